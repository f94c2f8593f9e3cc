#pragma once

#include "nqExport.h"
#include "nqOutcome.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace nq {

/// Counts of a pool since it was made, and what it does now. A copy, which does not change.
struct nqPoolStatistics {
    static constexpr std::size_t reasons = 12; ///< the number of nqAttempt::Reason

    std::uint64_t submitted = 0; ///< jobs accepted
    std::uint64_t done = 0;      ///< outcomes of nqOutcome::State::Done
    std::uint64_t failed = 0;    ///< likewise Failed
    std::uint64_t cancelled = 0; ///< likewise Cancelled
    std::uint64_t retried = 0;   ///< attempts after the first

    /// Outcomes by nqAttempt::Reason, each cast to an index.
    std::array<std::uint64_t, reasons> byReason{};

    std::size_t queued = 0;     ///< jobs that wait for a worker or for their next attempt
    std::size_t running = 0;    ///< jobs that workers hold
    std::size_t alive = 0;      ///< workers that have been launched and not found to have ended
    std::uint64_t launched = 0; ///< workers, since the pool was made
    std::uint64_t launchesFailed = 0; ///< launches that gave no worker that could take a job

    std::uint64_t jobBytes = 0;    ///< of the jobs accepted
    std::uint64_t resultBytes = 0; ///< of the results

    std::uint64_t writesFailed = 0; ///< of the files that show the pool, see nqPoolOptions
    std::string writeProblem;       ///< of the first of those: the file and why

    std::chrono::microseconds age{}; ///< since the pool was made
    double donePerSecond = 0;        ///< over the last ten seconds, or the pool's age

    /// @name Run times
    /// Of the attempts that gave a result, within 7 % of the true value; 0 when there was none.
    /// @{
    std::chrono::microseconds medianRunTime{};  ///< of half of them at most
    std::chrono::microseconds p90RunTime{};     ///< of 90 %
    std::chrono::microseconds p99RunTime{};     ///< of 99 %
    std::chrono::microseconds longestRunTime{}; ///< exact
    /// @}
};

} // namespace nq
