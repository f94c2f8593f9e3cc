#include "pool/nqRunTimes.h"
#include "tests/common/random.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <vector>

namespace {

using nq::nqRunTimes;
using us = std::chrono::microseconds;

TEST(RunTimes, areNothingWhenThereWereNone)
{
    const nqRunTimes times;
    EXPECT_EQ(times.quantile(0.5), us(0));
    EXPECT_EQ(times.longest(), us(0));
}

TEST(RunTimes, ofOneJobAreItsRunTimeNearly)
{
    nqRunTimes times;
    times.add(us(1'000));
    for (const double part : {0.0, 0.5, 0.99, 1.0})
        EXPECT_NEAR(double(times.quantile(part).count()), 1'000, 70) << part;
}

TEST(RunTimes, areExactWhenTheyAreShort)
{
    for (int time = 0; time < 16; ++time) {
        nqRunTimes times;
        times.add(us(time));
        times.add(us(1'000));
        EXPECT_EQ(times.quantile(0.5), us(time));
    }
}

TEST(RunTimes, haveAnExactLongest)
{
    nqRunTimes times;
    times.add(us(123'457));
    times.add(us(5));
    EXPECT_EQ(times.longest(), us(123'457));
}

TEST(RunTimes, neverHaveAQuantileAboveTheLongest)
{
    nqRunTimes times;
    times.add(us(1024)); // the middle of its bucket is above
    EXPECT_EQ(times.quantile(1), us(1024));
}

TEST(RunTimes, countANegativeTimeAsNone)
{
    nqRunTimes times;
    times.add(us(-5));
    EXPECT_EQ(times.quantile(1), us(0));
}

TEST(RunTimes, takeTheLongestTimeThereIs)
{
    nqRunTimes times;
    times.add(us::max());
    EXPECT_EQ(times.longest(), us::max());
    EXPECT_NEAR(double(times.quantile(0.5).count()) / double(us::max().count()), 1, 0.07);
}

TEST(RunTimes, haveTheMedianOfAnOddNumberInTheMiddle)
{
    nqRunTimes times;
    for (const int time : {9, 3, 1, 15, 5})
        times.add(us(time));
    EXPECT_EQ(times.quantile(0.5), us(5));
}

TEST(RunTimes, tellTheSlowestPercentFromTheRest)
{
    nqRunTimes times;
    for (int number = 0; number < 98; ++number)
        times.add(us(10));
    times.add(us(15));
    times.add(us(1'000'000));
    EXPECT_EQ(times.quantile(0.9), us(10));
    EXPECT_EQ(times.quantile(0.99), us(15));
    EXPECT_NEAR(double(times.quantile(1).count()), 1e6, 7e4);
}

TEST(RunTimes, areWithinSevenPercentOfThoseOfASortedList)
{
    common::SeededRandom random(7);
    for (int round = 0; round < 200; ++round) {
        nqRunTimes times;
        std::vector<std::int64_t> all(1 + random.index(1'000));
        for (std::int64_t& time : all) {
            time = static_cast<std::int64_t>(random.below(std::uint64_t{1} << random.below(50)));
            times.add(us(time));
        }
        std::sort(all.begin(), all.end());
        for (const double part : {0.01, 0.5, 0.9, 0.99, 1.0}) {
            const auto rank = std::size_t(std::ceil(part * double(all.size())));
            const auto truth = double(all[rank - 1]);
            EXPECT_NEAR(double(times.quantile(part).count()), truth, 0.07 * truth) << part;
        }
    }
}

} // namespace
