#pragma once

#include "nqExport.h"
#include "nqPool.h"
#include "nqPoolStatistics.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace nq {

/// What a pool did at one moment: the content of nqPoolOptions::statusFile.
struct nqPoolStatus {
    /// Whether the pool goes on.
    enum class State : std::int32_t {
        Running = 0, ///< it does; if no process `host` exists, it was killed
        Ended = 1    ///< this is what it has left
    };

    State state = State::Running;                  ///< whether the pool goes on
    std::string name;                              ///< nqPoolOptions::name
    std::int64_t host = 0;                         ///< process id of the program with the pool
    std::chrono::system_clock::time_point written; ///< when this was so, to the millisecond

    nqPoolStatistics statistics; ///< counts, rates and times, as of then
    std::string problem;         ///< nqPool::problem()

    /// Until all jobs have their outcome, those that nqPool::expectJobs() has announced included,
    /// if it goes on like this. Empty when no outcome is there to tell from.
    std::optional<std::chrono::milliseconds> timeLeft;

    std::vector<nqPoolWorkerStatus> workers; ///< those that live, by number; labels are shortened
};

/// Reads a status file, which any program may do at any time. Throws nqPoolError when it cannot be
/// read, or is none; what() says why.
NQ_API nqPoolStatus readPoolStatus(const std::string& file);

} // namespace nq
