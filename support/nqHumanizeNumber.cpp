#include "system/nqStringUtils.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <sstream>

namespace nq {

namespace {

/// One prefix with its factor in both bases.
struct Step {
    const char* mPrefix;
    double mFactor1000;
    double mFactor1024;

    double factor(bool base1024) const
    {
        return base1024 ? mFactor1024 : mFactor1000;
    }
};

// Largest first: the first factor that fits wins.
constexpr std::array<Step, 8> multiples{{
    {"Y", 1e24, 0x1p80},
    {"Z", 1e21, 0x1p70},
    {"E", 1e18, 0x1p60},
    {"P", 1e15, 0x1p50},
    {"T", 1e12, 0x1p40},
    {"G", 1e9, 0x1p30},
    {"M", 1e6, 0x1p20},
    {"k", 1e3, 0x1p10},
}};

constexpr std::array<Step, 8> submultiples{{
    {"m", 1e-3, 0x1p-10},
    {"\xC2\xB5", 1e-6, 0x1p-20}, // the micro sign in UTF-8
    {"n", 1e-9, 0x1p-30},
    {"p", 1e-12, 0x1p-40},
    {"f", 1e-15, 0x1p-50},
    {"a", 1e-18, 0x1p-60},
    {"z", 1e-21, 0x1p-70},
    {"y", 1e-24, 0x1p-80},
}};

/// Scales `number` by the first step that fits and returns its prefix; null when none fits.
const char* scale(double& number, const std::array<Step, 8>& steps, bool base1024)
{
    const auto step = std::find_if(steps.begin(), steps.end(), [&](const Step& candidate) {
        return number >= candidate.factor(base1024);
    });
    if (step == steps.end())
        return nullptr;
    number /= step->factor(base1024);
    return step->mPrefix;
}

const char*
choosePrefix(double& number, bool base1024, bool useMultiplePrefixes, bool useSubmultiplePrefixes)
{
    if (useMultiplePrefixes) {
        if (const char* prefix = scale(number, multiples, base1024))
            return prefix;
    }
    if (useSubmultiplePrefixes && number < 1.0) {
        if (const char* prefix = scale(number, submultiples, base1024))
            return prefix;
        number = 0.0;
    }
    return "";
}

/// To the nearest integer, exact halves down. The absolute value turns a negative zero into zero.
double roundHalfDown(double number)
{
    return std::fabs(std::ceil(number - 0.5));
}

std::string integerText(double number)
{
    std::ostringstream stream;
    stream.imbue(nqStringUtils::msCplusLocale);
    stream << static_cast<std::int64_t>(roundHalfDown(number));
    return stream.str();
}

std::string decimalText(double number, int nbDecimals)
{
    const double power = std::pow(10, nbDecimals);
    std::ostringstream stream;
    stream.imbue(nqStringUtils::msCplusLocale);
    stream.setf(std::ios_base::fixed);
    stream.precision(nbDecimals);
    stream << roundHalfDown(number * power) / power;

    std::string text = stream.str();
    text.erase(text.find_last_not_of('0') + 1);
    if (!text.empty() && (text.back() == '.' || text.back() == ','))
        text.pop_back();
    return text;
}

} // namespace

template <typename T>
std::string nqStringUtils::humanizeNumberGeneric(
    T value,
    int nbSignificantDigits,
    int maxNbDecimals,
    bool base1024,
    bool useMultiplePrefixes,
    bool useSubmultiplePrefixes)
{
    double number = static_cast<double>(value);
    const char* prefix =
        choosePrefix(number, base1024, useMultiplePrefixes, useSubmultiplePrefixes);

    // The prefix stays as it was chosen, even when rounding reaches the next step: "1024k".
    const int integerDigits =
        number <= 1.0 ? 1 : static_cast<int>(std::floor(std::log10(number))) + 1;
    const int nbDecimals = std::min(maxNbDecimals, nbSignificantDigits - integerDigits);
    return (nbDecimals <= 0 ? integerText(number) : decimalText(number, nbDecimals)) + prefix;
}

template std::string
nqStringUtils::humanizeNumberGeneric<unsigned long>(unsigned long, int, int, bool, bool, bool);

} // namespace nq
