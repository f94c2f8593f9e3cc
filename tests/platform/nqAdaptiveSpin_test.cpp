#include "system/linux/nqAdaptiveSpin.h"

#include "pipe_helpers.h"

using nq::nqAdaptiveSpin;
using nq::nqSpinBackoff;
using namespace pipe_test;

namespace {

/// Spins on the reading end of a pipe that holds nothing until the test says so.
class AdaptiveSpin : public LeavesNothingBehind {
protected:
    nqAdaptiveSpin mSpin;

    void SetUp() override
    {
        LeavesNothingBehind::SetUp();
        int ends[2] = {-1, -1};
        ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        mReading = Descriptor(ends[0]);
        mWriting = Descriptor(ends[1]);
    }

    void TearDown() override
    {
        mReading.close();
        mWriting.close();
        LeavesNothingBehind::TearDown();
    }

    bool finds()
    {
        mWatched = {mReading.get(), POLLIN, 0};
        return mSpin.spin(&mWatched, 1);
    }

    short reported() const
    {
        return mWatched.revents;
    }

    void makeReady() const
    {
        ASSERT_EQ(::write(mWriting.get(), "!", 1), 1);
    }

private:
    Descriptor mReading;
    Descriptor mWriting;
    pollfd mWatched{};
};

TEST_F(AdaptiveSpin, findsWhatIsThere)
{
    makeReady();
    EXPECT_TRUE(finds());
    EXPECT_EQ(reported(), POLLIN);
    EXPECT_TRUE(finds());
}

TEST_F(AdaptiveSpin, givesUpWhenThereIsNothing)
{
    EXPECT_FALSE(finds());
    EXPECT_EQ(reported(), 0);
}

TEST_F(AdaptiveSpin, skipsTheWaitsThatItsBackoffSays)
{
    EXPECT_FALSE(finds());
    makeReady();
    EXPECT_FALSE(finds());
    EXPECT_EQ(reported(), 0);
    EXPECT_TRUE(finds());
    EXPECT_FALSE(finds()); // what was there at once changes nothing
    EXPECT_TRUE(finds());
}

int countSkipped(nqSpinBackoff& backoff)
{
    int skipped = 0;
    while (!backoff.countWait())
        ++skipped;
    return skipped;
}

void missRepeatedly(nqSpinBackoff& backoff, int times)
{
    for (int i = 0; i < times; ++i) {
        countSkipped(backoff);
        backoff.noteMiss();
    }
}

TEST(SpinBackoff, spinsAtFirst)
{
    nqSpinBackoff backoff;
    EXPECT_TRUE(backoff.countWait());
}

TEST(SpinBackoff, skipsTwiceAsManyWaitsAndOneMoreAfterEachMiss)
{
    nqSpinBackoff backoff;
    for (const int skipped : {1, 3, 7, 15, 31, 63, 127, 255, 511, 1023, 2047, 4095}) {
        backoff.noteMiss();
        EXPECT_EQ(countSkipped(backoff), skipped);
    }
}

TEST(SpinBackoff, neverSkipsMoreThanFourThousandOddWaits)
{
    nqSpinBackoff backoff;
    missRepeatedly(backoff, 40);
    EXPECT_EQ(countSkipped(backoff), 4095);
}

TEST(SpinBackoff, skipsHalfAsManyWaitsAfterEachHit)
{
    nqSpinBackoff backoff;
    missRepeatedly(backoff, 4);
    EXPECT_EQ(countSkipped(backoff), 15);
    for (const int skipped : {7, 3, 1, 0, 0}) {
        backoff.noteHit();
        EXPECT_EQ(countSkipped(backoff), skipped);
    }
}

TEST(SpinBackoff, learnsNothingFromWhatWasReadyAtOnce)
{
    nqSpinBackoff backoff;
    backoff.noteReadyAtOnce();
    EXPECT_EQ(countSkipped(backoff), 0);
    missRepeatedly(backoff, 2);
    EXPECT_EQ(countSkipped(backoff), 3);
    backoff.noteReadyAtOnce();
    EXPECT_EQ(countSkipped(backoff), 3);
}

} // namespace
