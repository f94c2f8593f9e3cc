#include "system/linux/nqShortLook.h"

#include "pipe_helpers.h"

using nq::nqShortLook;
using namespace pipe_test;

namespace {

/// A look at the reading end of a pipe that holds nothing until the test says so.
class ShortLook : public LeavesNothingBehind {
protected:
    nqShortLook mLook;

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
        return mLook.findsActivity(&mWatched, 1);
    }

    short reported() const
    {
        return mWatched.revents;
    }

    void makeReady() const
    {
        ASSERT_EQ(::write(mWriting.get(), "!", 1), 1);
    }

    void takeBack() const
    {
        char byte = 0;
        ASSERT_EQ(::read(mReading.get(), &byte, 1), 1);
    }

    void callInVain(int times)
    {
        for (int i = 0; i < times; ++i)
            ASSERT_FALSE(finds());
    }

    /// How many calls go without a look while there is something to find; it is found afterwards.
    int countSkipped()
    {
        makeReady();
        int skipped = 0;
        while (skipped < muchMoreThanItSkips && !finds())
            ++skipped;
        takeBack();
        return skipped;
    }

private:
    static constexpr int muchMoreThanItSkips = 1'000'000;

    Descriptor mReading;
    Descriptor mWriting;
    pollfd mWatched{};
};

TEST_F(ShortLook, findsWhatIsThere)
{
    makeReady();
    EXPECT_TRUE(finds());
    EXPECT_EQ(reported(), POLLIN);
    EXPECT_TRUE(finds());
}

TEST_F(ShortLook, givesUpWhenThereIsNothing)
{
    EXPECT_FALSE(finds());
    EXPECT_EQ(reported(), 0);
}

TEST_F(ShortLook, letsOneWaitGoByAfterItsFirstLookInVain)
{
    callInVain(1);
    makeReady();
    EXPECT_FALSE(finds());
    EXPECT_EQ(reported(), 0);
    EXPECT_TRUE(finds());
}

TEST_F(ShortLook, letsAsManyWaitsGoByAsThereWereBeforeWhenEachLookWasInVain)
{
    for (const int calls : {1, 3, 7, 15, 31, 63, 127, 255, 511, 1023}) {
        mLook = nqShortLook();
        callInVain(calls); // the last of them looks
        EXPECT_EQ(countSkipped(), calls);
    }
}

TEST_F(ShortLook, neverLetsMoreThanAThousandOddWaitsGoBy)
{
    callInVain(100'000);
    EXPECT_LE(countSkipped(), 1023);
}

TEST_F(ShortLook, looksMoreOftenAgainWithEverythingThatItFinds)
{
    callInVain(1023);
    int skipped = countSkipped();
    while (skipped > 0) {
        const int before = skipped;
        skipped = countSkipped();
        ASSERT_LT(skipped, before);
    }
    EXPECT_EQ(countSkipped(), 0);
}

} // namespace
