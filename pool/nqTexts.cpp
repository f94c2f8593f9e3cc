#include "pool/nqTexts.h"

#include <algorithm>
#include <array>

namespace nq {

namespace {

constexpr std::string_view blanks = " \t\r\n\v\f";

/// "1.9" for 19 of them.
std::string tenthsText(std::uint64_t tenths)
{
    std::string text = std::to_string(tenths / 10);
    if (tenths % 10 != 0)
        text += '.' + std::to_string(tenths % 10);
    return text;
}

bool isControl(char character)
{
    const auto code = static_cast<unsigned char>(character);
    return code < 0x20 || code == 0x7F;
}

std::string_view trimmed(std::string_view text)
{
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == text.npos)
        return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

/// Two units, of which the smaller one is left out when there is none.
std::string
twoUnits(std::int64_t number, std::int64_t divisor, const char* greater, const char* smaller)
{
    std::string text = std::to_string(number / divisor) + greater;
    if (number % divisor != 0)
        text += ' ' + std::to_string(number % divisor) + smaller;
    return text;
}

} // namespace

std::string sizeText(std::uint64_t bytes)
{
    constexpr std::uint64_t step = 1024;
    if (bytes < step)
        return std::to_string(bytes) + " B";
    constexpr std::array<const char*, 6> units{" KB", " MB", " GB", " TB", " PB", " EB"};
    std::size_t unit = 0;
    while (bytes >= step * step) {
        bytes /= step;
        ++unit;
    }
    const std::uint64_t whole = bytes / step;
    const std::uint64_t tenths = whole < 100 ? bytes * 10 / step : whole * 10;
    return tenthsText(tenths) + units[unit];
}

std::string durationText(std::chrono::microseconds duration)
{
    const std::int64_t us = std::max<std::int64_t>(duration.count(), 0);
    const std::int64_t seconds = us / 1'000'000;
    if (us < 10'000)
        return tenthsText(static_cast<std::uint64_t>(us / 100)) + " ms";
    if (us < 1'000'000)
        return std::to_string(us / 1'000) + " ms";
    if (seconds < 60)
        return tenthsText(static_cast<std::uint64_t>(us / 100'000)) + " s";
    if (seconds < 3'600)
        return twoUnits(seconds, 60, " min", " s");
    if (seconds < 86'400)
        return twoUnits(seconds / 60, 60, " h", " min");
    return twoUnits(seconds / 3'600, 24, " d", " h");
}

std::string oneLine(std::string_view text, std::size_t limit)
{
    text = trimmed(text);
    std::size_t end = std::min(text.size(), limit);
    if (end < text.size()) // never in the middle of a character of UTF-8
        while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U)
            --end;
    std::string line(text.substr(0, end));
    std::replace_if(line.begin(), line.end(), isControl, ' ');
    if (end < text.size())
        line += "...";
    return line;
}

std::string_view lastLine(std::string_view text)
{
    text = trimmed(text);
    return trimmed(text.substr(text.find_last_of("\r\n") + 1));
}

} // namespace nq
