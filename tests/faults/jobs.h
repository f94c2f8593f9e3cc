#pragma once

#include <cstddef>

/// What host and worker agree on: the first byte of a job says what the worker does with it.
namespace faults {

constexpr char echoJob = 'e';  // answers with the job itself
constexpr char crashJob = 'c'; // dies
constexpr char forkJob = 'f';  // dies, and leaves a helper that holds the connection
constexpr char growJob = 'g';  // exceeds the memory cap, and answers if nobody minds
constexpr char hangJob = 'h';  // never answers

constexpr std::size_t memoryCapBytes = std::size_t{64} << 20;

} // namespace faults
