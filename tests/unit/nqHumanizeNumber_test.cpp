#include "system/nqStringUtils.h"
#include "tests/unit/testSupport.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace {

using nq::nqStringUtils;

std::string memoryText(unsigned long value, bool base1024 = true)
{
    return nqStringUtils::humanizeNumberGeneric<unsigned long>(value, 3, 1, base1024, true, false);
}

std::string
text(unsigned long value, int nbSignificantDigits, int maxNbDecimals, bool multiples = true)
{
    return nqStringUtils::humanizeNumberGeneric<unsigned long>(
        value, nbSignificantDigits, maxNbDecimals, true, multiples, false);
}

struct Example {
    unsigned long value;
    const char* base1024;
    const char* base1000;
};

class HumanizeNumberExample : public testing::TestWithParam<Example> {};

TEST_P(HumanizeNumberExample, hasThisTextInStepsOf1024)
{
    EXPECT_EQ(memoryText(GetParam().value), GetParam().base1024);
}

TEST_P(HumanizeNumberExample, hasThisTextInStepsOf1000)
{
    EXPECT_EQ(memoryText(GetParam().value, false), GetParam().base1000);
}

INSTANTIATE_TEST_SUITE_P(
    Table,
    HumanizeNumberExample,
    testing::Values(
        Example{0, "0", "0"},
        Example{999, "999", "999"},
        Example{1000, "1000", "1k"},
        Example{1023, "1023", "1k"},
        Example{1024, "1k", "1k"},
        Example{1536, "1.5k", "1.5k"},
        Example{2304, "2.2k", "2.3k"},
        Example{10188, "9.9k", "10.2k"},
        Example{10240, "10k", "10.2k"},
        Example{102400, "100k", "102k"},
        Example{1048575, "1024k", "1M"},
        Example{1048576, "1M", "1M"},
        Example{1610612736, "1.5G", "1.6G"},
        Example{5368709120, "5G", "5.4G"},
        Example{18446744073709551615UL, "16E", "18.4E"}),
    [](const auto& example) { return std::to_string(example.param.value); });

TEST(HumanizeNumber, takesTheStepWhoseFactorItEqualsExactly)
{
    EXPECT_EQ(memoryText(1UL << 10), "1k");
    EXPECT_EQ(memoryText(1UL << 20), "1M");
    EXPECT_EQ(memoryText(1UL << 30), "1G");
    EXPECT_EQ(memoryText(1UL << 40), "1T");
    EXPECT_EQ(memoryText(1UL << 50), "1P");
    EXPECT_EQ(memoryText(1UL << 60), "1E");
    EXPECT_EQ(memoryText(1000UL, false), "1k");
    EXPECT_EQ(memoryText(1'000'000UL, false), "1M");
    EXPECT_EQ(memoryText(1'000'000'000UL, false), "1G");
    EXPECT_EQ(memoryText(1'000'000'000'000UL, false), "1T");
    EXPECT_EQ(memoryText(1'000'000'000'000'000UL, false), "1P");
    EXPECT_EQ(memoryText(1'000'000'000'000'000'000UL, false), "1E");
}

TEST(HumanizeNumber, roundsExactHalvesDownOnPurpose)
{
    EXPECT_EQ(memoryText(2304), "2.2k");                 // 2.25 k
    EXPECT_EQ(memoryText(1024 + 256), "1.2k");           // 1.25 k
    EXPECT_EQ(text(1025024, 4, 0), "1001k");             // exactly 1001 k
    EXPECT_EQ(text(1024UL * 1000 + 512, 4, 0), "1000k"); // 1000.5 k
}

TEST(HumanizeNumber, keepsTheLowerPrefixWhenItRoundsUpToTheNextStepOnPurpose)
{
    EXPECT_EQ(memoryText((1UL << 20) - 1), "1024k");
    EXPECT_EQ(memoryText((1UL << 30) - 1), "1024M");
    EXPECT_EQ(memoryText((1UL << 40) - 1), "1024G");
    EXPECT_EQ(memoryText(999'999, false), "1000k");
}

TEST(HumanizeNumber, rendersZeroWithoutPrefixInEveryMode)
{
    for (const bool base1024 : {false, true}) {
        for (const bool multiples : {false, true}) {
            for (const bool submultiples : {false, true}) {
                EXPECT_EQ(
                    nqStringUtils::humanizeNumberGeneric<unsigned long>(
                        0, 3, 1, base1024, multiples, submultiples),
                    "0");
            }
        }
    }
}

TEST(HumanizeNumber, doesNotScaleWithoutMultiplePrefixes)
{
    EXPECT_EQ(text(5368709120, 3, 1, false), "5368709120");
    EXPECT_EQ(text(1024, 3, 1, false), "1024");
    EXPECT_EQ(
        text(std::numeric_limits<std::int64_t>::max() / 1024 + 1, 3, 1, false), "9007199254740992");
}

TEST(HumanizeNumber, keepsTheZerosOfAnInteger)
{
    EXPECT_EQ(memoryText(100), "100");
    EXPECT_EQ(memoryText(100UL * 1024), "100k");
    EXPECT_EQ(text(10, 2, 1, false), "10");
}

TEST(HumanizeNumber, showsAsManyDecimalsAsDigitsAreLeft)
{
    EXPECT_EQ(text(1536 + 128, 1, 3), "2k");
    EXPECT_EQ(text(1536 + 128, 2, 3), "1.6k");
    EXPECT_EQ(text(1536 + 128, 3, 3), "1.62k"); // 1.625: the half goes down
    EXPECT_EQ(text(1536 + 128, 4, 3), "1.625k");
    EXPECT_EQ(text(1536 + 128, 9, 3), "1.625k");
    EXPECT_EQ(text(1536 + 128, 9, 2), "1.62k");
    EXPECT_EQ(text(1536 + 128, 9, 0), "2k");
}

TEST(HumanizeNumber, countsOneIntegerDigitForOneAndBelow)
{
    EXPECT_EQ(text(1, 1, 1, false), "1");
    EXPECT_EQ(text(1, 3, 1, false), "1");
    EXPECT_EQ(text(9, 1, 1, false), "9");
}

TEST(HumanizeNumber, treatsNegativeDigitCountsAsNoDecimals)
{
    EXPECT_EQ(text(1536, -1, 1), "1k");
    EXPECT_EQ(text(1537, 3, -1), "2k");
}

TEST(HumanizeNumber, ignoresAGroupingGlobalLocale)
{
    const support::GroupingGlobalLocale locale;
    EXPECT_EQ(memoryText(1610612736), "1.5G");
    EXPECT_EQ(text(5368709120, 3, 1, false), "5368709120");
}

} // namespace
