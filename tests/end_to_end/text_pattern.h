#pragma once

#include <string>

namespace end_to_end {

/// Whether the whole of `text` matches a POSIX extended regular expression.
bool matchesWhole(const std::string& text, const std::string& pattern);

/// A pattern that matches exactly `text`.
std::string literally(const std::string& text);

} // namespace end_to_end
