#pragma once

#include "pool/nqPoolClock.h"

#include <chrono>
#include <memory>
#include <optional>
#include <vector>

namespace nq {

/// What a pool sleeps on: the descriptors of its workers and, for a host with a loop of its own, a
/// timer beside them. Scripted in unit tests.
class nqPoolWait {
public:
    using TimePoint = nqPoolClock::TimePoint;

    /// Throws nqPoolError when the kernel has no descriptor to give.
    nqPoolWait();
    ~nqPoolWait();
    nqPoolWait(const nqPoolWait&) = delete;
    nqPoolWait& operator=(const nqPoolWait&) = delete;

    /// From now on, `owner` has something to do while `descriptor` is readable; null: it only ends
    /// a sleep. False when the kernel refuses.
    bool watch(int descriptor, void* owner);

    /// No longer. Before the descriptor is closed.
    void forget(int descriptor);

    /// Sleeps until something is readable, `timeout` at most (negative: no limit). The owners, each
    /// of them once or more often; valid until the next call.
    const std::vector<void*>& sleep(std::chrono::milliseconds timeout);

    /// Readable while something is, and from wakeAt() on.
    int descriptor() const;

    /// When the descriptor becomes readable by itself; empty: never. It may be earlier by a former
    /// time: whoever wakes up says again what is due.
    void wakeAt(const std::optional<TimePoint>& time);

private:
    struct Private;
    std::unique_ptr<Private> mPrivate;
};

} // namespace nq
