#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace nq {

/// How many events a second there were in the last ten seconds, in bounded memory: they are counted
/// by tenths of a second.
class nqRecentRate {
public:
    using Clock = std::chrono::steady_clock;

    /// An event has happened; `now` is that of the last one or later.
    void add(Clock::time_point now);

    /// Over the last ten seconds before `now`, less a tenth at most, or from `since` on if that is
    /// later. 0 when no time has passed.
    double perSecond(Clock::time_point now, Clock::time_point since) const;

private:
    static constexpr std::size_t slotCount = 100;

    std::array<std::uint64_t, slotCount> mCounts{}; // of a slot's number modulo their own
    std::int64_t mLatest = 0;                       // the number of the slot of the last event
};

} // namespace nq
