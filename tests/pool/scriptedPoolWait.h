#pragma once

#include "pool/nqPoolClock.h"

#include <chrono>
#include <functional>
#include <optional>
#include <vector>

/// What a pool sleeps on, as plain data: a sleep returns at once and names everything watched.
namespace scripted {

struct PoolWait {
    std::vector<std::chrono::milliseconds> sleeps; ///< their time-outs
    std::optional<nq::nqPoolClock::TimePoint> wakeAt;
    std::vector<int> watched;
    std::function<void(std::chrono::milliseconds)> onSleep; ///< what happens meanwhile; may throw
};

/// That of the youngest pool; null when there is none.
PoolWait* poolWait();

} // namespace scripted
