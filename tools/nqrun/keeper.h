#pragma once

#include "tools/nqrun/descriptor.h"

#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace nqrun {

/// A process between a worker and its commands: it starts them, watches their limits and ends them.
///
/// The library ends a worker with SIGKILL, so the worker itself could not end what its command has
/// started. The keeper can: it leads a session of its own, all descendants of commands are handed
/// to it, and it ends them when the socket to its worker is closed, in whatever way the worker
/// ends. Should the keeper be killed, the worker ends them in its place.
class Keeper {
public:
    /// Forks it. Throws std::runtime_error.
    Keeper();

    /// Closes the socket, and waits until the keeper has ended.
    ~Keeper();

    Keeper(const Keeper&) = delete;
    Keeper& operator=(const Keeper&) = delete;

    /// Runs an encoded command, and returns once neither it nor a descendant of it is left. Its
    /// encoded failure, empty for one that is done; nothing when the keeper is lost, which cannot
    /// be used again.
    std::optional<std::string> run(std::string_view command);

private:
    Descriptor mSocket;
    pid_t mProcess = 0;
};

} // namespace nqrun
