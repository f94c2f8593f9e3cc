#pragma once

#include <cstdint>

namespace chaos {

#ifdef __SANITIZE_ADDRESS__
constexpr bool isUnderAddressSanitizer = true;
#else
constexpr bool isUnderAddressSanitizer = false;
#endif

#ifdef __SANITIZE_THREAD__
constexpr bool isUnderThreadSanitizer = true;
#else
constexpr bool isUnderThreadSanitizer = false;
#endif

/// How many times as long a worker takes to launch: the sanitizer sets up its memory first. Plans
/// have so many times fewer jobs and disturbances then, and tell the same story in the same time.
constexpr std::uint32_t slowness = isUnderAddressSanitizer || isUnderThreadSanitizer ? 8 : 1;

} // namespace chaos
