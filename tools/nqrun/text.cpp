#include "tools/nqrun/text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>

namespace nqrun {

namespace {

constexpr std::string_view plainBytes =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-./,:@%+=";

unsigned char byteAt(std::string_view text, std::size_t position)
{
    return static_cast<unsigned char>(text[position]);
}

struct Character {
    std::size_t bytes = 0; // 0: not UTF-8
    char32_t code = 0;
};

// As strict as RFC 3629: no overlong forms, no surrogates, nothing above U+10FFFF.
Character characterAt(std::string_view text, std::size_t position)
{
    const unsigned char first = byteAt(text, position);
    if (first < 0x80U)
        return {1, first};
    std::size_t bytes = 0;
    char32_t code = 0;
    if ((first & 0xE0U) == 0xC0U) {
        bytes = 2;
        code = first & 0x1FU;
    } else if ((first & 0xF0U) == 0xE0U) {
        bytes = 3;
        code = first & 0x0FU;
    } else if ((first & 0xF8U) == 0xF0U) {
        bytes = 4;
        code = first & 0x07U;
    } else {
        return {};
    }
    if (text.size() - position < bytes)
        return {};
    for (std::size_t next = 1; next < bytes; ++next) {
        const unsigned char byte = byteAt(text, position + next);
        if ((byte & 0xC0U) != 0x80U)
            return {};
        code = (code << 6U) | (byte & 0x3FU);
    }
    constexpr std::array<char32_t, 5> smallest = {0, 0, 0x80, 0x800, 0x10000};
    const bool isSurrogate = code >= 0xD800 && code <= 0xDFFF;
    if (code < smallest[bytes] || isSurrogate || code > 0x10FFFF)
        return {};
    return {bytes, code};
}

bool isControl(char32_t code)
{
    const bool turnsText = (code >= 0x202A && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069);
    return code < 0x20 || (code >= 0x7F && code < 0xA0) || turnsText;
}

// The ranges that matter for file names; a full table belongs to a terminal library.
std::size_t columnsOf(char32_t code)
{
    if ((code >= 0x300 && code <= 0x36F) || code == 0x200D || (code >= 0xFE00 && code <= 0xFE0F))
        return 0;
    const bool isWide = (code >= 0x1100 && code <= 0x115F) || (code >= 0x2E80 && code <= 0xA4CF) ||
                        (code >= 0xAC00 && code <= 0xD7A3) || (code >= 0xF900 && code <= 0xFAFF) ||
                        (code >= 0xFF00 && code <= 0xFF60) ||
                        (code >= 0x1F300 && code <= 0x1FAFF) ||
                        (code >= 0x20000 && code <= 0x3FFFD);
    return isWide ? 2 : 1;
}

std::string escaped(unsigned char byte)
{
    switch (byte) {
    case '\n':
        return "\\n";
    case '\t':
        return "\\t";
    case '\r':
        return "\\r";
    default: {
        std::array<char, 8> text{};
        std::snprintf(text.data(), text.size(), "\\x%02x", byte);
        return text.data();
    }
    }
}

struct Number {
    double value = 0;
    std::string_view unit;
};

// A decimal number that is above 0 and finite, and the letters behind it. Neither signs, exponents
// nor hexadecimal digits: they are more often mistakes than meant.
std::optional<Number> parseWithUnit(std::string_view text)
{
    const std::size_t end = std::min(text.find_first_not_of("0123456789."), text.size());
    const std::string_view digits = text.substr(0, end);
    if (digits.empty() || digits == ".")
        return std::nullopt;
    double value = 0;
    const auto [stop, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (error != std::errc() || stop != digits.data() + digits.size() || !(value > 0))
        return std::nullopt;
    return Number{value, text.substr(end)};
}

} // namespace

std::string shellQuoted(std::string_view text)
{
    if (!text.empty() && text.find_first_not_of(plainBytes) == text.npos)
        return std::string(text);
    std::string quoted = "'";
    for (const char byte : text) {
        if (byte == '\'')
            quoted += "'\\''";
        else
            quoted += byte;
    }
    return quoted + "'";
}

std::string shown(std::string_view text, std::size_t columns)
{
    std::string line;
    std::size_t used = 0;
    std::size_t cut = 0; // where the line ends if an ellipsis has to follow
    for (std::size_t position = 0; position < text.size();) {
        const Character character = characterAt(text, position);
        std::string piece;
        std::size_t width = 0;
        if (character.bytes == 0 || isControl(character.code)) {
            const std::size_t bytes = std::max<std::size_t>(character.bytes, 1);
            for (std::size_t at = 0; at < bytes; ++at)
                piece += escaped(byteAt(text, position + at));
            width = piece.size();
            position += bytes;
        } else {
            piece = text.substr(position, character.bytes);
            width = columnsOf(character.code);
            position += character.bytes;
        }
        if (columns != 0 && used + width > columns)
            return columns < 3 ? std::string(columns, '.') : line.substr(0, cut) + "...";
        line += piece;
        used += width;
        if (used + 3 <= columns)
            cut = line.size();
    }
    return line;
}

std::size_t columnsOf(std::string_view text)
{
    std::size_t columns = 0;
    for (std::size_t position = 0; position < text.size();) {
        const Character character = characterAt(text, position);
        columns += character.bytes == 0 ? 1 : columnsOf(character.code);
        position += std::max<std::size_t>(character.bytes, 1);
    }
    return columns;
}

bool isUtf8(std::string_view text)
{
    for (std::size_t position = 0; position < text.size();) {
        const Character character = characterAt(text, position);
        if (character.bytes == 0)
            return false;
        position += character.bytes;
    }
    return true;
}

std::optional<std::chrono::nanoseconds> parseDuration(std::string_view text)
{
    const std::optional<Number> number = parseWithUnit(text);
    if (!number)
        return std::nullopt;
    double seconds = number->value;
    if (number->unit == "ms")
        seconds /= 1000;
    else if (number->unit == "m")
        seconds *= 60;
    else if (number->unit == "h")
        seconds *= 3600;
    else if (number->unit == "d")
        seconds *= 86400;
    else if (!number->unit.empty() && number->unit != "s")
        return std::nullopt;
    constexpr double longest = 86400.0 * 365;
    constexpr double shortest = 0.001;
    if (seconds > longest || seconds < shortest)
        return std::nullopt;
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
        std::chrono::duration<double>(seconds));
}

std::optional<std::uint64_t> parseSize(std::string_view text)
{
    const std::optional<Number> number = parseWithUnit(text);
    if (!number)
        return std::nullopt;
    std::string_view unit = number->unit;
    if (unit.size() == 2 && (unit[1] == 'B' || unit[1] == 'b'))
        unit.remove_suffix(1);
    double bytes = number->value;
    if (!unit.empty()) {
        if (unit.size() != 1)
            return std::nullopt;
        const std::size_t power = std::string_view("BKMGTbkmgt").find(unit.front());
        if (power == std::string_view::npos)
            return std::nullopt;
        bytes *= std::pow(1024.0, static_cast<double>(power % 5));
    }
    if (bytes < 1 || bytes > 1e18)
        return std::nullopt;
    return static_cast<std::uint64_t>(bytes);
}

std::optional<std::uint64_t> parseNumber(std::string_view text)
{
    std::uint64_t value = 0;
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || stop != text.data() + text.size())
        return std::nullopt;
    return value;
}

std::string durationText(std::chrono::duration<double> duration)
{
    const double seconds = duration.count();
    std::array<char, 64> text{};
    if (seconds < 0.9995)
        std::snprintf(text.data(), text.size(), "%.3f s", seconds);
    else if (seconds < 9.95)
        std::snprintf(text.data(), text.size(), "%.1f s", seconds);
    else if (seconds < 59.5)
        std::snprintf(text.data(), text.size(), "%.0f s", seconds);
    else {
        const auto whole = static_cast<std::uint64_t>(std::lround(seconds));
        if (whole < 3600)
            return std::to_string(whole / 60) + " min " + std::to_string(whole % 60) + " s";
        if (whole < 86400)
            return std::to_string(whole / 3600) + " h " + std::to_string(whole % 3600 / 60) +
                   " min";
        return std::to_string(whole / 86400) + " d " + std::to_string(whole % 86400 / 3600) + " h";
    }
    return text.data();
}

std::string sizeText(std::uint64_t bytes)
{
    constexpr std::array<const char*, 5> units = {"B", "KB", "MB", "GB", "TB"};
    auto value = static_cast<double>(bytes);
    std::size_t unit = 0;
    while (value >= 1024 && unit + 1 < units.size()) {
        value /= 1024;
        ++unit;
    }
    std::array<char, 64> text{};
    std::snprintf(
        text.data(),
        text.size(),
        value < 9.95 && unit > 0 ? "%.1f %s" : "%.0f %s",
        value,
        units[unit]);
    return text.data();
}

std::string countText(std::uint64_t count, const char* singular)
{
    return std::to_string(count) + ' ' + singular + (count == 1 ? "" : "s");
}

std::string_view lastLines(std::string_view text, std::size_t bytes)
{
    while (!text.empty() && text.back() == '\n')
        text.remove_suffix(1);
    if (text.size() <= bytes)
        return text;
    std::string_view end = text.substr(text.size() - bytes);
    const std::size_t lineBreak = end.find('\n');
    if (lineBreak != end.npos)
        return end.substr(lineBreak + 1);
    while (!end.empty() && (static_cast<unsigned char>(end.front()) & 0xC0U) == 0x80U)
        end.remove_prefix(1); // the rest of a character
    return end;
}

} // namespace nqrun
