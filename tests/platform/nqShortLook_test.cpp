#include "system/linux/nqShortLook.h"

#include "pipe_helpers.h"

using nq::nqLookingHabit;
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

private:
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

TEST_F(ShortLook, findsWhatComesWhileItLooks)
{
    // It may come before or after the look as well, which the next round mends.
    bool isFound = false;
    for (int round = 0; round < 1000 && !isFound; ++round) {
        mLook = nqShortLook();
        Child writer([this] {
            makeReady();
            return 0;
        });
        isFound = finds();
        EXPECT_EQ(writer.wait(), 0);
        takeBack();
    }
    EXPECT_TRUE(isFound);
}

TEST_F(ShortLook, goesByWhatItsHabitSays)
{
    EXPECT_FALSE(finds());
    makeReady();
    EXPECT_FALSE(finds());
    EXPECT_EQ(reported(), 0);
    EXPECT_TRUE(finds());
    EXPECT_FALSE(finds()); // what was there at once changes nothing
    EXPECT_TRUE(finds());
}

int countSkipped(nqLookingHabit& habit)
{
    int skipped = 0;
    while (!habit.wantsToLook())
        ++skipped;
    return skipped;
}

void lookInVain(nqLookingHabit& habit, int times)
{
    for (int i = 0; i < times; ++i) {
        countSkipped(habit);
        habit.foundNothing();
    }
}

TEST(LookingHabit, looksAtFirst)
{
    nqLookingHabit habit;
    EXPECT_TRUE(habit.wantsToLook());
}

TEST(LookingHabit, letsTwiceAsManyWaitsGoByAndOneMoreAfterEachLookInVain)
{
    nqLookingHabit habit;
    for (const int skipped : {1, 3, 7, 15, 31, 63, 127, 255, 511, 1023, 2047, 4095}) {
        habit.foundNothing();
        EXPECT_EQ(countSkipped(habit), skipped);
    }
}

TEST(LookingHabit, neverLetsMoreThanFourThousandOddWaitsGoBy)
{
    nqLookingHabit habit;
    lookInVain(habit, 40);
    EXPECT_EQ(countSkipped(habit), 4095);
}

TEST(LookingHabit, letsHalfAsManyWaitsGoByAfterEachLookThatPaid)
{
    nqLookingHabit habit;
    lookInVain(habit, 4);
    EXPECT_EQ(countSkipped(habit), 15);
    for (const int skipped : {7, 3, 1, 0, 0}) {
        habit.foundWhileLooking();
        EXPECT_EQ(countSkipped(habit), skipped);
    }
}

TEST(LookingHabit, learnsNothingFromWhatWasThereAlready)
{
    nqLookingHabit habit;
    habit.foundAtOnce();
    EXPECT_EQ(countSkipped(habit), 0);
    lookInVain(habit, 2);
    EXPECT_EQ(countSkipped(habit), 3);
    habit.foundAtOnce();
    EXPECT_EQ(countSkipped(habit), 3);
}

} // namespace
