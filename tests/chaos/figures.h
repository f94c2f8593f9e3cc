#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <ostream>

namespace chaos {

/// What a run has to tell. Pools count for themselves and are added up.
struct Figures {
    static constexpr std::size_t failReasons = 4;

    std::uint64_t rounds = 0;
    std::uint64_t jobs = 0;
    std::uint64_t results = 0;
    std::array<std::uint64_t, failReasons> failures{}; // by fail reason
    std::uint64_t kills = 0;                           // from outside
    std::uint64_t crashes = 0;                         // likewise
    std::uint64_t stops = 0;     // likewise, each followed by SIGCONT or a kill
    std::uint64_t ownDeaths = 0; // by a job's wish
    std::uint64_t launches = 0;  // of workers that got as far as the board
    std::uint64_t starts = 0;    // of a scheduler
    std::uint64_t failedStarts = 0;
    std::uint64_t firstLaunches = 0; // wanted by starts; the others are replacements
    std::uint64_t failedLaunches = 0;
    std::uint64_t emptiedPools = 0;   // every launch failed, so that a restart was needed
    std::int64_t longestToReport = 0; // nanoseconds from a death to its failure, over all hosts
    std::int64_t longestToReportSteadily = 0; // the same where the host is never away
    std::uint64_t peakDescriptors = 0;

    void add(const Figures& other);
    std::uint64_t replacements() const;
};

void print(const Figures& figures, std::ostream& out);

} // namespace chaos
