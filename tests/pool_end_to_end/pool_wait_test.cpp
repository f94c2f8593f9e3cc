#include "pool/nqPoolWait.h"
#include "tests/common/waiting.h"

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using TimePoint = nq::nqPoolWait::TimePoint;

/// A wait whose times are real.
class PoolWait : public testing::Test {
protected:
    bool isReadable() const
    {
        return common::becomesReadable(mWait.descriptor(), 0ms);
    }

    bool becomesReadable() const
    {
        return common::becomesReadable(mWait.descriptor());
    }

    /// As a host does that is woken too early: it looks, and says again what is due.
    void wakeUpAt(TimePoint time)
    {
        do {
            mWait.wakeAt(time);
            ASSERT_TRUE(becomesReadable());
        } while (nq::nqPoolClock::now() < time);
        mWait.wakeAt(time);
        EXPECT_TRUE(isReadable());
    }

    const TimePoint mNow = nq::nqPoolClock::now();
    nq::nqPoolWait mWait;
};

TEST_F(PoolWait, isQuietUntilItHasATime)
{
    EXPECT_FALSE(isReadable());
    mWait.wakeAt({});
    EXPECT_FALSE(isReadable());
}

TEST_F(PoolWait, isReadableAtOnceForATimeThatHasCome)
{
    mWait.wakeAt(mNow);
    EXPECT_TRUE(isReadable());
}

TEST_F(PoolWait, isQuietBeforeItsTime)
{
    mWait.wakeAt(mNow + 1h);
    EXPECT_FALSE(isReadable());
}

TEST_F(PoolWait, becomesReadableAtItsTime)
{
    wakeUpAt(mNow + 20ms);
}

TEST_F(PoolWait, becomesReadableAtATimeThatIsEarlierThanTheOneBefore)
{
    mWait.wakeAt(mNow + 1h);
    wakeUpAt(mNow + 20ms);
}

TEST_F(PoolWait, becomesReadableAtATimeThatIsLaterThanTheOneBefore)
{
    mWait.wakeAt(mNow + 10ms);
    wakeUpAt(mNow + 40ms);
}

TEST_F(PoolWait, becomesReadableAtATimeAfterOneThatHadComeAlready)
{
    mWait.wakeAt(mNow);
    wakeUpAt(mNow + 20ms);
}

TEST_F(PoolWait, isQuietAgainOnceNothingIsDue)
{
    mWait.wakeAt(mNow);
    mWait.wakeAt({});
    EXPECT_FALSE(isReadable());
    wakeUpAt(mNow + 20ms);
    mWait.wakeAt({});
    EXPECT_FALSE(isReadable());
}

TEST_F(PoolWait, isQuietAgainAfterATimerThatWentOffTooEarly)
{
    mWait.wakeAt(mNow + 10ms);
    mWait.wakeAt(mNow + 1h);
    EXPECT_TRUE(becomesReadable()) << "it was left alone";
    mWait.wakeAt(mNow + 1h);
    EXPECT_FALSE(isReadable());
}

TEST_F(PoolWait, isWokenByWhatItWatches)
{
    const int news = ::eventfd(0, EFD_CLOEXEC);
    int owner = 0;
    ASSERT_TRUE(mWait.watch(news, &owner));
    EXPECT_FALSE(isReadable());
    ::eventfd_write(news, 1);
    EXPECT_TRUE(isReadable());
    EXPECT_EQ(mWait.sleep(-1ms), std::vector<void*>{&owner});
    mWait.forget(news);
    EXPECT_FALSE(isReadable());
    ::close(news);
}

TEST_F(PoolWait, namesNobodyWhenItWakesForATime)
{
    mWait.wakeAt(mNow);
    EXPECT_TRUE(mWait.sleep(-1ms).empty());
}

} // namespace
