#pragma once

#include <algorithm>
#include <chrono>

namespace nq {

/// The time of the pool: monotonic, and scripted in unit tests.
struct nqPoolClock {
    using TimePoint = std::chrono::steady_clock::time_point;

    static TimePoint now();

    /// `time` and `longer`, or the end of time: hosts say milliseconds::max() for "never".
    static TimePoint later(TimePoint time, std::chrono::milliseconds longer)
    {
        const auto longest = std::chrono::duration_cast<std::chrono::milliseconds>(
            TimePoint::max() - std::max(time, TimePoint()));
        return longer < longest ? time + longer : TimePoint::max();
    }
};

} // namespace nq
