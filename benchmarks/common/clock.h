#pragma once

#include <cstdint>
#include <ctime>

namespace bench {

inline std::int64_t clockNanoseconds(clockid_t clock)
{
    timespec now{};
    ::clock_gettime(clock, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

inline std::int64_t monotonicNanoseconds()
{
    return clockNanoseconds(CLOCK_MONOTONIC);
}

inline std::int64_t threadCpuNanoseconds()
{
    return clockNanoseconds(CLOCK_THREAD_CPUTIME_ID);
}

inline std::int64_t processCpuNanoseconds()
{
    return clockNanoseconds(CLOCK_PROCESS_CPUTIME_ID);
}

} // namespace bench
