#pragma once

#include "pool/include/nqPoolStatus.h"
#include "pool/nqEndNames.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace nq {

/// How many times were no longer than each of some bounds, from a tenth of a millisecond to hours.
class nqTimeHistogram {
public:
    void add(std::chrono::microseconds time);

    /// As the series of a metric, whose `labels` end in a comma or are empty.
    void append(std::string& out, const char* name, const std::string& labels) const;

private:
    static constexpr std::size_t boundCount = 17;

    std::array<std::uint64_t, boundCount + 1> mCounts{}; // of each bucket alone; last: the rest
    std::chrono::microseconds mSum{};
};

/// What a pool has done, in the text format of Prometheus. All labels have few values, however long
/// the pool lives: workers are told by their place, not by their process.
class nqPoolMetrics {
public:
    void addRun(std::chrono::microseconds time);
    void addWait(std::chrono::microseconds time);
    void addRestart(nqWorkerEnd cause);

    /// Of a pool that has room for so many workers.
    std::string text(const nqPoolStatus& status, std::size_t workers) const;

private:
    nqTimeHistogram mRunTimes;
    nqTimeHistogram mWaitTimes;
    std::map<nqWorkerEnd, std::uint64_t> mRestarts;
};

} // namespace nq
