#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace nqrun {

/// One word of a POSIX shell that stands for exactly these bytes; plain words stay as they are.
std::string shellQuoted(std::string_view text);

/// Text for a line that people read: control characters and bytes that are not UTF-8 as escapes,
/// and an ellipsis in place of what is beyond `columns` (0: no limit).
std::string shown(std::string_view text, std::size_t columns = 0);

/// How many columns of a terminal the text takes, which holds no control characters.
std::size_t columnsOf(std::string_view text);

bool isUtf8(std::string_view text);

/// "0.5", "30s", "2m", "1h", "250ms"; without a unit, seconds. Nothing for anything else and for
/// what is not above 0.
std::optional<std::chrono::nanoseconds> parseDuration(std::string_view text);

/// "512M", "2G", "1048576"; units of 1024. Nothing for anything else and for what is not above 0.
std::optional<std::uint64_t> parseSize(std::string_view text);

/// A whole number, and nothing but that.
std::optional<std::uint64_t> parseNumber(std::string_view text);

/// For people: "0.31 s", "2 min 5 s", "3 h 12 min".
std::string durationText(std::chrono::duration<double> duration);

/// For people: "812 B", "2.1 GB"; units of 1024, as parseSize() reads them.
std::string sizeText(std::uint64_t bytes);

/// "1 item", "2 items".
std::string countText(std::uint64_t count, const char* singular);

/// The end of a text: at most `bytes`, beginning with a whole line where possible, without the line
/// break at its end.
std::string_view lastLines(std::string_view text, std::size_t bytes);

} // namespace nqrun
