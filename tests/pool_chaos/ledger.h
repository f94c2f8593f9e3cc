#pragma once

#include "tests/pool_chaos/job.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <iosfwd>

namespace pool_chaos {

/// What has happened in all rounds. Any thread may count.
struct Figures {
    std::atomic<std::uint64_t> rounds{0};
    std::atomic<std::uint64_t> jobs{0};
    std::atomic<std::uint64_t> cancels{0};
    std::atomic<std::uint64_t> stops{0};
    std::atomic<std::uint64_t> refused{0};
    std::atomic<std::uint64_t> retried{0};
    std::array<std::atomic<std::uint64_t>, nq::nqPoolStatistics::reasons> outcomes{};
};

Figures& figures();

void print(std::ostream& out);

/// Ends the program unless every reason that a host can hear of has been seen.
void requireVariety();

/// Ends the program when the outcome is not one that the job can have. `isCancelAsked`: somebody
/// has, or may have, called cancel() for it.
void settle(
    const Job& job,
    const nq::nqOutcome& outcome,
    const JobPlan& plan,
    bool isCancelAsked,
    bool isStopAsked);

/// What two kinds of rounds choose in the same way.
JobPlan makePlan(common::Random& random);

/// A round on an nqPool, and one on an nqPoolThread.
void playPool(std::uint64_t seed);
void playThread(std::uint64_t seed);

} // namespace pool_chaos
