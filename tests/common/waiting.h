#pragma once

#include <chrono>
#include <string>

namespace common {

/// Longer than anything takes on a busy machine, and shorter than the limit of the test runner.
constexpr std::chrono::seconds generousLimit{60};

/// Whether `descriptor` reports one of poll's `events`, or its end, before `deadline`. A signal
/// neither ends nor lengthens the wait.
bool becomesReady(int descriptor, short events, std::chrono::steady_clock::time_point deadline);

bool becomesReadable(int descriptor, std::chrono::milliseconds limit = generousLimit);

/// What can be read up to the end of the descriptor; of one that does not block, what is there.
std::string readAll(int descriptor);

} // namespace common
