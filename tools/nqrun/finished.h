#pragma once

#include <cstdint>
#include <string>

namespace nqrun {

/// One attempt that is over: what the log, the messages and the scripts are made of.
struct Finished {
    std::uint64_t ordinal = 0; ///< in the order in which items were started, from 0
    std::uint64_t index = 0;   ///< of the item, from 1
    std::string name;          ///< of the item, for people
    std::string identity;      ///< for the log: the item, or its command line
    unsigned attempt = 1;
    bool isFinal = true; ///< no further attempt follows
    bool isDone = false;
    bool isSlotFree = false; ///< no process can write to the files of its output any more

    /// "done", "exit", "signal", "timeout", "memory", "not started", "exception" or "lost".
    std::string outcome;
    int status = 0;             ///< the exit status; of "not started" 126 or 127
    int signal = 0;             ///< that ended it
    std::string failure;        ///< in words; empty when it is done
    std::string lastWords;      ///< the last lines of standard error; empty when it is done
    std::int64_t startedAt = 0; ///< microseconds since 1970
    std::int64_t ran = 0;       ///< microseconds
    std::uint64_t peakMemory = 0;
    std::uint64_t outputBytes = 0;
    std::uint64_t errorBytes = 0;
};

} // namespace nqrun
