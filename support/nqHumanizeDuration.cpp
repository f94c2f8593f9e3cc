#include "system/nqStringUtils.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <iomanip>
#include <sstream>
#include <vector>

namespace nq {

namespace {

// From the least significant component on; every unit but the last has a divisor to the next one.
constexpr std::array<const char*, 5> units{"ms", "s", "m", "h", "d"};
constexpr std::array<std::int64_t, 4> divisors{1000, 60, 60, 24};

constexpr std::size_t secondIndex = 1;
constexpr std::size_t minuteIndex = 2;
constexpr const char* noDuration = "0ms";

/// The components without the zeros at the most significant end.
std::vector<std::int64_t> split(std::int64_t rest)
{
    std::vector<std::int64_t> components;
    components.reserve(units.size());
    for (const std::int64_t divisor : divisors) {
        components.push_back(rest % divisor);
        rest = (rest - components.back()) / divisor;
    }
    components.push_back(rest);
    while (!components.empty() && components.back() == 0)
        components.pop_back();
    return components;
}

/// The least significant component that may be shown. Level 2 never shows less than a minute, so a
/// short duration vanishes altogether there.
std::size_t lowestAllowed(int detailLevel, std::size_t count)
{
    if (detailLevel == 1)
        return count >= 4 ? minuteIndex : count == 3 ? secondIndex : 0;
    if (detailLevel == 2)
        return count == 1 ? secondIndex : minuteIndex;
    return 0;
}

std::string plainNumber(std::uint64_t number)
{
    std::ostringstream stream;
    stream.imbue(nqStringUtils::msCplusLocale);
    stream << std::setfill('0') << std::setw(1) << number;
    return stream.str();
}

std::string compose(const std::vector<std::int64_t>& components, std::size_t lowest)
{
    std::string text;
    for (std::size_t index = components.size(); index-- > lowest;) {
        if (!text.empty())
            text += ' ';
        text += plainNumber(static_cast<std::uint64_t>(components[index]));
        text += units[index];
    }
    return text.empty() ? noDuration : text;
}

} // namespace

template <typename T>
std::string nqStringUtils::humanizeDuration(T durationMs, int detailLevel, bool appendTotalMs)
{
    const std::vector<std::int64_t> components = split(static_cast<std::int64_t>(durationMs));
    const std::size_t count = components.size();
    std::size_t lowest = lowestAllowed(detailLevel, count);
    if (count <= lowest)
        return noDuration;
    while (components[lowest] == 0)
        ++lowest;

    std::string text = compose(components, lowest);
    if (appendTotalMs && count >= 2)
        text += " (" + plainNumber(durationMs) + "ms)";
    return text;
}

template std::string nqStringUtils::humanizeDuration<unsigned long>(unsigned long, int, bool);

} // namespace nq
