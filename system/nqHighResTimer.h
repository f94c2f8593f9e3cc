#pragma once

#include "nqExport.h"

#include <chrono>

namespace nq {

/// A stopwatch on the monotonic clock. Nothing blocks and nothing fails. Not locked: one thread at
/// a time.
class NQ_API nqHighResTimer {
public:
    /// Starts, or starts again from zero.
    void start();

    /// Seconds since the last start(), with their fraction; 0 when never started.
    double getElapsedTimeInSec() const;

private:
    std::chrono::steady_clock::time_point mStart{};
    bool mIsStarted = false;
};

} // namespace nq
