#pragma once

#include "tools/nqrun/command.h"
#include "tools/nqrun/descriptor.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

namespace nqrun {

/// Runs commands one after the other, in a keeper.
///
/// A command writes into pipes, whose content is moved into the host's files: a file of its own
/// would be emptied by `>/dev/stderr`, and a full disk would be the command's failure.
class CommandRun {
public:
    /// `worker` is the socket to the worker: once it is closed, a command that runs is ended.
    explicit CommandRun(int worker);

    /// Starts the command, waits for its end or for the first of its limits, ends what is left of
    /// its descendants and writes the report into the host's file. Returns its failure, nothing for
    /// one that is done. Throws std::runtime_error when the host's files are out of reach.
    std::optional<CommandFailure> operator()(const Command& command);

    /// The worker has ended.
    bool isAlone() const;

private:
    /// What a command writes to, and where it is read. It stays from command to command.
    struct Stream {
        Descriptor reader; ///< never waits
        Descriptor writer;
    };
    struct Files {
        Descriptor output;
        Descriptor error;
        Descriptor report;
    };

    const Files& filesOf(const CommandFiles& files);
    void await(pid_t process, const Command& command, const Files& files, Report& report);
    void move(const Stream& from, const Descriptor& to, std::size_t most);
    void makeStreams();

    int mWorker;
    bool mIsAlone = false;
    Stream mOutput;
    Stream mError;
    int mWriteError = 0;          ///< why output of this command is lost; 0: it is not
    std::uint64_t mOpenFiles = 0; ///< the limit in force
    std::unordered_map<std::uint64_t, Files> mFiles; ///< by slot
};

} // namespace nqrun
