#pragma once

#include "cluster/nqDescriptor.h"

#include <chrono>
#include <cstdint>
#include <optional>

namespace nq {

/// The time of clusters: monotonic, so that a wall clock that jumps changes nothing.
using nqClusterClock = std::chrono::steady_clock;

/// What has something to do when its descriptor has news.
class nqWaitOwner {
public:
    virtual void onDescriptor() = 0;

protected:
    ~nqWaitOwner() = default;
};

/// The one descriptor that stands for all connections and for the time.
class nqClusterWait {
public:
    using TimePoint = nqClusterClock::time_point;

    /// Throws nqPoolError when the kernel has no descriptor to give.
    nqClusterWait();

    /// From now on, or no longer, tells `owner` when `descriptor` can be read or, if wanted,
    /// written. False when the kernel refuses.
    bool watch(int descriptor, nqWaitOwner& owner, bool isToWrite);
    void change(int descriptor, nqWaitOwner& owner, bool isToWrite);
    void forget(int descriptor);

    /// Sleeps until there is news or a signal, `timeout` at most (negative: no limit), and tells
    /// the owners. False when there was no news.
    bool sleep(std::chrono::milliseconds timeout);

    int descriptor() const;

    /// Makes the descriptor readable at `time`; empty: not by itself.
    void wakeAt(const std::optional<TimePoint>& time);

private:
    nqDescriptor mSet;
    nqDescriptor mTimer;
    std::optional<TimePoint> mTimerSetTo;
};

} // namespace nq
