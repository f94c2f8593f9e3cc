#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace nq {

/// Pieces of sentences for people. Numbers are cut off, not rounded, and look the same under every
/// locale.

/// "17 B", "1.9 GB": in steps of 1024.
std::string sizeText(std::uint64_t bytes);

/// "0.4 ms", "340 ms", "1.2 s", "2 min 5 s", "3 h 12 min", "2 d 5 h".
std::string durationText(std::chrono::microseconds duration);

/// A foreign text without line breaks and other control characters, which could also end the
/// sentence or steer a terminal, and with no more than `limit` bytes before "...".
std::string oneLine(std::string_view text, std::size_t limit);

/// The last line that is not blank, without blanks around it.
std::string_view lastLine(std::string_view text);

} // namespace nq
