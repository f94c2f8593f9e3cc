#include "pool/nqMarkup.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>

namespace nq {

namespace {

constexpr std::string_view replacement = "\xEF\xBF\xBD"; // U+FFFD
constexpr std::string_view ellipsis = "\xE2\x80\xA6";
constexpr std::size_t longestLabel = 120; // bytes: more does not fit into a line

unsigned byteAt(std::string_view text, std::size_t index)
{
    return index < text.size() ? static_cast<unsigned char>(text[index]) : 0;
}

bool isBetween(unsigned value, unsigned first, unsigned last)
{
    return first <= value && value <= last;
}

/// Bytes of the character that the text begins with; 0: it begins with none. Neither surrogates nor
/// detours are characters.
std::size_t characterSize(std::string_view text)
{
    const unsigned first = byteAt(text, 0);
    const unsigned second = byteAt(text, 1);
    const auto follows = [&](std::size_t index) { return (byteAt(text, index) & 0xC0U) == 0x80U; };
    if (first < 0x80)
        return 1;
    if (isBetween(first, 0xC2, 0xDF))
        return follows(1) ? 2 : 0;
    if (isBetween(first, 0xE0, 0xEF)) {
        const bool isDetour = first == 0xE0 && second < 0xA0;
        const bool isSurrogate = first == 0xED && second > 0x9F;
        return follows(1) && follows(2) && !isDetour && !isSurrogate ? 3 : 0;
    }
    if (isBetween(first, 0xF0, 0xF4)) {
        const bool isDetour = first == 0xF0 && second < 0x90;
        const bool isTooLarge = first == 0xF4 && second > 0x8F;
        return follows(1) && follows(2) && follows(3) && !isDetour && !isTooLarge ? 4 : 0;
    }
    return 0;
}

/// Calls `append` with each character, of which those that are none have become U+FFFD.
template <typename Append>
void forEachCharacter(std::string_view text, const Append& append)
{
    while (!text.empty()) {
        const std::size_t size = characterSize(text);
        append(size == 0 ? replacement : text.substr(0, size));
        text.remove_prefix(size == 0 ? 1 : size);
    }
}

constexpr std::array<char, 17> hexadecimal{"0123456789abcdef"};

bool isPlainInJson(char character)
{
    return character >= ' ' && character <= '~' && character != '"' && character != '\\';
}

void appendJsonCharacter(std::string& out, std::string_view character)
{
    const auto code = static_cast<unsigned char>(character.front());
    if (code == '"' || code == '\\') {
        out += '\\';
        out += character;
    } else if (code < 0x20 || code == 0x7F) {
        out += "\\u00";
        out += hexadecimal[code >> 4U];
        out += hexadecimal[code & 0xFU];
    } else {
        out += character;
    }
}

void appendXmlCharacter(std::string& out, std::string_view character)
{
    const auto code = static_cast<unsigned char>(character.front());
    if (code == '<')
        out += "&lt;";
    else if (code == '>')
        out += "&gt;";
    else if (code == '&')
        out += "&amp;";
    else if (code == '"')
        out += "&quot;";
    else if (code == 0x7F)
        out += "\xE2\x90\xA1"; // the pictures begin at U+2400
    else if (code < 0x20)
        out.append("\xE2\x90").push_back(static_cast<char>(0x80U + code));
    else if (character == "\xEF\xBF\xBE" || character == "\xEF\xBF\xBF")
        out += replacement; // valid UTF-8, but not in XML
    else
        out += character;
}

void appendMetricCharacter(std::string& out, std::string_view character)
{
    if (character == "\n")
        out += "\\n";
    else if (character == "\"" || character == "\\")
        out.append("\\").append(character);
    else
        out += character;
}

template <typename Number>
void append(std::string& out, Number number)
{
    std::array<char, 24> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
    out.append(digits.data(), end);
}

} // namespace

std::string shortened(std::string_view text, std::size_t limit)
{
    std::string whole;
    forEachCharacter(
        text.substr(0, limit + 4), [&](std::string_view character) { whole += character; });
    if (text.size() <= limit)
        return whole;
    std::size_t end = limit;
    while (end > 0 && (byteAt(whole, end) & 0xC0U) == 0x80U)
        --end;
    return whole.substr(0, end).append(ellipsis);
}

std::string shownLabel(std::string_view label)
{
    return shortened(label, longestLabel);
}

/// Nearly all texts are plain, and a trace has many.
void appendJsonText(std::string& out, std::string_view text)
{
    out += '"';
    const auto end = std::find_if_not(text.begin(), text.end(), isPlainInJson);
    const auto plain = static_cast<std::size_t>(end - text.begin());
    out += text.substr(0, plain);
    forEachCharacter(
        text.substr(plain), [&](std::string_view each) { appendJsonCharacter(out, each); });
    out += '"';
}

void appendXmlText(std::string& out, std::string_view text)
{
    forEachCharacter(text, [&](std::string_view each) { appendXmlCharacter(out, each); });
}

void appendMetricText(std::string& out, std::string_view text)
{
    out += '"';
    forEachCharacter(text, [&](std::string_view each) { appendMetricCharacter(out, each); });
    out += '"';
}

void appendNumber(std::string& out, std::uint64_t number)
{
    append(out, number);
}

void appendNumber(std::string& out, std::int64_t number)
{
    append(out, number);
}

void appendDecimal(std::string& out, std::int64_t number, unsigned digits)
{
    std::uint64_t magnitude = static_cast<std::uint64_t>(number);
    if (number < 0) {
        out += '-';
        magnitude = 0 - magnitude;
    }
    std::uint64_t unit = 1;
    for (unsigned digit = 0; digit < digits; ++digit)
        unit *= 10;
    append(out, magnitude / unit);
    std::uint64_t rest = magnitude % unit;
    if (rest != 0)
        out += '.';
    while (rest != 0) {
        unit /= 10;
        out += static_cast<char>('0' + rest / unit);
        rest %= unit;
    }
}

void appendSeconds(std::string& out, std::chrono::microseconds time)
{
    appendDecimal(out, time.count(), 6);
}

} // namespace nq
