#include "text_pattern.h"

#include <regex.h>

#include <stdexcept>

namespace end_to_end {

bool matchesWhole(const std::string& text, const std::string& pattern)
{
    regex_t compiled;
    if (regcomp(&compiled, ("^(" + pattern + ")$").c_str(), REG_EXTENDED | REG_NOSUB) != 0)
        throw std::invalid_argument(pattern);
    const bool matches = regexec(&compiled, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&compiled);
    return matches;
}

std::string literally(const std::string& text)
{
    std::string pattern;
    for (const char character : text) {
        if (std::string("^.[$()|*+?{\\").find(character) != std::string::npos)
            pattern += '\\';
        pattern += character;
    }
    return pattern;
}

} // namespace end_to_end
