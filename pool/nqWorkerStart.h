#pragma once

#include "pool/nqOwnProgram.h"

#include <optional>
#include <string>
#include <sys/types.h>

namespace nq {

/// What a pool adds to the command line of a worker that calls runAsWorker() or runWorker(): one
/// argument, and the name of the pipe, which the scheduler puts behind it.
struct nqWorkerStart {
    /// Which program file the worker is to be, when it is the host's own. A path may have gone to
    /// another file between the pool's choice and the launch; the host holds the file open.
    struct Program {
        nqFileIdentity identity;
        int descriptor = -1; ///< in the host
    };

    std::string tag; ///< see nqEnvelope
    pid_t host = 0;  ///< the process that the pool belongs to
    std::optional<Program> program;

    /// The argument that says so.
    std::string argument() const;

    /// Whether a command line ends as that of a worker.
    static bool isOne(int argc, char* const argv[]);

    /// What it says; nothing when it makes no sense, as one that was typed by hand.
    static std::optional<nqWorkerStart> read(int argc, char* const argv[]);
};

} // namespace nq
