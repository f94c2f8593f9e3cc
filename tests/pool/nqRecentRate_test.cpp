#include "pool/nqRecentRate.h"

#include <gtest/gtest.h>

namespace {

using nq::nqRecentRate;
using std::chrono::milliseconds;
using std::chrono::seconds;

class RecentRate : public testing::Test {
protected:
    /// One event each `step`, for `time`.
    void run(milliseconds time, milliseconds step)
    {
        for (const auto end = mNow + time; mNow < end; mNow += step)
            mRate.add(mNow);
    }

    double perSecond() const
    {
        return mRate.perSecond(mNow, mStart);
    }

    nqRecentRate mRate;
    nqRecentRate::Clock::time_point mStart{seconds(1'000'000)};
    nqRecentRate::Clock::time_point mNow = mStart;
};

TEST_F(RecentRate, isNoneWithoutEvents)
{
    mNow += seconds(5);
    EXPECT_EQ(perSecond(), 0);
}

TEST_F(RecentRate, isNoneBeforeTimeHasPassed)
{
    mRate.add(mNow);
    EXPECT_EQ(perSecond(), 0);
}

TEST_F(RecentRate, isThatSinceTheStartAtFirst)
{
    run(seconds(2), milliseconds(20));
    EXPECT_NEAR(perSecond(), 50, 0.001);
}

TEST_F(RecentRate, isThatOfASteadyStream)
{
    run(seconds(60), milliseconds(20));
    EXPECT_NEAR(perSecond(), 50, 1);
}

TEST_F(RecentRate, forgetsWhatIsTenSecondsOld)
{
    run(seconds(20), milliseconds(1));
    run(seconds(10), milliseconds(100));
    EXPECT_NEAR(perSecond(), 10, 0.2);
}

TEST_F(RecentRate, fallsWhileNothingHappens)
{
    run(seconds(20), milliseconds(20));
    mNow += seconds(5);
    EXPECT_NEAR(perSecond(), 25, 0.5);
    mNow += seconds(5);
    EXPECT_EQ(perSecond(), 0);
}

TEST_F(RecentRate, startsAgainAfterALongBreak)
{
    run(seconds(20), milliseconds(1));
    mNow += std::chrono::hours(24);
    run(seconds(1), milliseconds(100));
    EXPECT_NEAR(perSecond(), 1, 0.02);
}

TEST_F(RecentRate, countsManyEventsOfOneMoment)
{
    for (int number = 0; number < 1'000; ++number)
        mRate.add(mNow);
    mNow += seconds(2);
    EXPECT_NEAR(perSecond(), 500, 0.001);
}

TEST_F(RecentRate, isRightSoonAfterTheStartOfTheClock)
{
    mStart = mNow = nqRecentRate::Clock::time_point(seconds(1));
    run(seconds(2), milliseconds(20));
    EXPECT_NEAR(perSecond(), 50, 0.001);
}

} // namespace
