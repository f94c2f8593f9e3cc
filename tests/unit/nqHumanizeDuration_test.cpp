#include "system/nqStringUtils.h"
#include "tests/unit/testSupport.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace {

std::string text(unsigned long durationMs, int detailLevel, bool appendTotalMs = false)
{
    return nq::nqStringUtils::humanizeDuration<unsigned long>(
        durationMs, detailLevel, appendTotalMs);
}

struct Example {
    unsigned long durationMs;
    const char* level0;
    const char* level1;
    const char* level2;
    const char* withTotal;
};

class HumanizeDurationExample : public testing::TestWithParam<Example> {};

TEST_P(HumanizeDurationExample, showsEveryComponentAtLevelZero)
{
    EXPECT_EQ(text(GetParam().durationMs, 0), GetParam().level0);
}

TEST_P(HumanizeDurationExample, dropsWhatIsSmallAtLevelOne)
{
    EXPECT_EQ(text(GetParam().durationMs, 1), GetParam().level1);
}

TEST_P(HumanizeDurationExample, showsNothingBelowMinutesAtLevelTwo)
{
    EXPECT_EQ(text(GetParam().durationMs, 2), GetParam().level2);
}

TEST_P(HumanizeDurationExample, appendsTheTotalFromOneSecondOn)
{
    EXPECT_EQ(text(GetParam().durationMs, 0, true), GetParam().withTotal);
}

INSTANTIATE_TEST_SUITE_P(
    Table,
    HumanizeDurationExample,
    testing::Values(
        Example{0, "0ms", "0ms", "0ms", "0ms"},
        Example{999, "999ms", "999ms", "0ms", "999ms"},
        Example{1000, "1s", "1s", "0ms", "1s (1000ms)"},
        Example{1500, "1s 500ms", "1s 500ms", "0ms", "1s 500ms (1500ms)"},
        Example{45000, "45s", "45s", "0ms", "45s (45000ms)"},
        Example{90000, "1m 30s", "1m 30s", "1m", "1m 30s (90000ms)"},
        Example{300000, "5m", "5m", "5m", "5m (300000ms)"},
        Example{3600500, "1h 0m 0s 500ms", "1h", "1h", "1h 0m 0s 500ms (3600500ms)"},
        Example{3723004, "1h 2m 3s 4ms", "1h 2m", "1h 2m", "1h 2m 3s 4ms (3723004ms)"},
        Example{
            90061001, "1d 1h 1m 1s 1ms", "1d 1h 1m", "1d 1h 1m", "1d 1h 1m 1s 1ms (90061001ms)"}),
    [](const auto& example) { return std::to_string(example.param.durationMs); });

TEST(HumanizeDuration, isZeroMillisecondsAtEveryLevelForNothing)
{
    for (const int level : {-1, 0, 1, 2, 3, 100}) {
        EXPECT_EQ(text(0, level), "0ms");
        EXPECT_EQ(text(0, level, true), "0ms");
    }
}

TEST(HumanizeDuration, isZeroMillisecondsAtLevelTwoBelowAMinuteOnPurpose)
{
    EXPECT_EQ(text(999, 2), "0ms");
    EXPECT_EQ(text(59999, 2), "0ms");
    EXPECT_EQ(text(59999, 2, true), "0ms");
    EXPECT_EQ(text(60000, 2), "1m");
}

TEST(HumanizeDuration, showsEverythingAtLevelsWithoutAMeaningOfTheirOwn)
{
    for (const int level : {-1, 3, 100})
        EXPECT_EQ(text(3723004, level), "1h 2m 3s 4ms");
}

TEST(HumanizeDuration, appendsTheTotalAtEveryLevelThatShowsSomething)
{
    EXPECT_EQ(text(125000, 1, true), "2m 5s (125000ms)");
    EXPECT_EQ(text(125000, 2, true), "2m (125000ms)");
    EXPECT_EQ(text(999, 1, true), "999ms");
}

TEST(HumanizeDuration, writesZerosBetweenComponentsButNotBehindThem)
{
    EXPECT_EQ(text(3600500, 0), "1h 0m 0s 500ms");
    EXPECT_EQ(text(3600000, 0), "1h");
    EXPECT_EQ(text(86400000UL + 60000, 0), "1d 0h 1m");
    EXPECT_EQ(text(86400000UL + 1000, 1), "1d");
    EXPECT_EQ(text(60500, 1), "1m");
}

TEST(HumanizeDuration, changesComponentsAtTheirBoundaries)
{
    EXPECT_EQ(text(59999, 0), "59s 999ms");
    EXPECT_EQ(text(60000, 0), "1m");
    EXPECT_EQ(text(3599999, 0), "59m 59s 999ms");
    EXPECT_EQ(text(3600000, 0), "1h");
    EXPECT_EQ(text(86399999, 0), "23h 59m 59s 999ms");
    EXPECT_EQ(text(86400000, 0), "1d");
}

TEST(HumanizeDuration, countsDaysWithoutBound)
{
    EXPECT_EQ(text(86400000UL * 10000, 0), "10000d");
    EXPECT_EQ(text(9223372036854775807UL, 0), "106751991167d 7h 12m 55s 807ms");
}

TEST(HumanizeDuration, takesWhatIsBeyondTheSignedRangeApartAsNegativeOnPurpose)
{
    // One millisecond below zero, each component being written as if it were unsigned.
    constexpr unsigned long largest = std::numeric_limits<unsigned long>::max();
    EXPECT_EQ(text(largest, 0), "18446744073709551615ms");
    EXPECT_EQ(text(largest, 0, true), "18446744073709551615ms");
    EXPECT_EQ(text(largest, 2), "0ms");
    EXPECT_EQ(
        text(1UL << 63, 0, true),
        "18446743966957560449d 18446744073709551609h 18446744073709551604m "
        "18446744073709551561s 18446744073709550808ms (9223372036854775808ms)");
}

TEST(HumanizeDuration, ignoresAGroupingGlobalLocale)
{
    const support::GroupingGlobalLocale locale;
    EXPECT_EQ(text(86400000UL * 10000, 0, true), "10000d (864000000000ms)");
}

} // namespace
