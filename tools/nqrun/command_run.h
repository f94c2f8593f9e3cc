#pragma once

#include "tools/nqrun/command.h"
#include "tools/nqrun/descriptor.h"

#include <cstdint>
#include <string>
#include <unordered_map>

namespace nqrun {

/// Runs commands one after the other, in a keeper.
class CommandRun {
public:
    /// `worker` is the socket to the worker: once it is closed, a command that runs is ended.
    explicit CommandRun(int worker);

    /// Starts the command, waits for its end or for the first of its limits, ends what is left of
    /// its descendants and writes the report into the host's file. Returns the text of its failure,
    /// empty for one that is done. Throws std::runtime_error when the host's files are out of
    /// reach.
    std::string operator()(const Command& command);

    /// The worker has ended.
    bool isAlone() const;

private:
    struct Files {
        Descriptor output;
        Descriptor error;
        Descriptor report;
    };

    const Files& filesOf(const CommandFiles& files);
    void await(pid_t process, const Command& command, Report& report);

    int mWorker;
    bool mIsAlone = false;
    std::uint64_t mOpenFiles = 0;                    ///< the limit in force
    std::unordered_map<std::uint64_t, Files> mFiles; ///< by slot
};

} // namespace nqrun
