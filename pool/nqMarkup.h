#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace nq {

/// Texts and numbers in formats that programs read. A foreign text may hold any bytes: what is no
/// UTF-8 becomes U+FFFD. Numbers look the same under every locale.

/// No more than `limit` bytes, cut between two characters and then followed by an ellipsis.
std::string shortened(std::string_view text, std::size_t limit);

/// How a label is shown: shortened(), so that a file of many labels stays small.
std::string shownLabel(std::string_view label);

/// With quotes around it.
void appendJsonText(std::string& out, std::string_view text);

/// As the content of an element or an attribute. Control characters become their pictures, since
/// XML has no way to say them.
void appendXmlText(std::string& out, std::string_view text);

/// As the value of a label of a metric, with quotes around it.
void appendMetricText(std::string& out, std::string_view text);

void appendNumber(std::string& out, std::uint64_t number);
void appendNumber(std::string& out, std::int64_t number);

/// "1.25" for 1250 thousandths: so many of which 10 to the power of `digits` make one.
void appendDecimal(std::string& out, std::int64_t number, unsigned digits);

/// "1.25"
void appendSeconds(std::string& out, std::chrono::microseconds time);

} // namespace nq
