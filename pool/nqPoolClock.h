#pragma once

#include <chrono>

namespace nq {

/// The time of the pool: monotonic, and scripted in unit tests.
struct nqPoolClock {
    using TimePoint = std::chrono::steady_clock::time_point;

    static TimePoint now();
};

} // namespace nq
