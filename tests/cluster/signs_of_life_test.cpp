#include "cluster/nqSignsOfLife.h"

#include <chrono>
#include <deque>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace cluster {

using nq::nqRedisReply;
using nq::nqSignsOfLife;
using std::chrono::milliseconds;

namespace {

/// The hash of agents, as Redis answers.
class Agents {
public:
    Agents& add(const std::string& name, milliseconds lease, std::uint64_t count)
    {
        addText(name);
        addText(nqSignsOfLife::valueOf(lease, count));
        return *this;
    }

    nqRedisReply reply()
    {
        mPointers.clear();
        for (redisReply& part : mParts)
            mPointers.push_back(&part);
        mWhole.type = REDIS_REPLY_ARRAY;
        mWhole.elements = mPointers.size();
        mWhole.element = mPointers.data();
        return nqRedisReply(&mWhole);
    }

private:
    void addText(const std::string& text)
    {
        mTexts.push_back(text);
        redisReply part{};
        part.type = REDIS_REPLY_STRING;
        part.str = mTexts.back().data();
        part.len = mTexts.back().size();
        mParts.push_back(part);
    }

    std::deque<std::string> mTexts;
    std::deque<redisReply> mParts;
    std::vector<redisReply*> mPointers;
    redisReply mWhole{};
};

class SignsOfLife : public testing::Test {
protected:
    /// Looks at one agent, `step` after the last time.
    std::vector<nqSignsOfLife::Lost> look(milliseconds step, std::uint64_t count)
    {
        mNow += step;
        return mSigns.look(Agents().add("host7", lease, count).reply(), mNow, mNow);
    }

    static constexpr milliseconds lease{1'000};
    nqSignsOfLife mSigns;
    nqSignsOfLife::TimePoint mNow{std::chrono::hours(1)};
};

} // namespace

TEST_F(SignsOfLife, takeAnAgentForLostWhoseValueStaysForALease)
{
    EXPECT_TRUE(look(milliseconds(0), 1).empty());
    for (int i = 0; i < 4; ++i)
        EXPECT_TRUE(look(milliseconds(200), 1).empty());
    const auto lost = look(milliseconds(200), 1);
    ASSERT_EQ(lost.size(), 1U);
    EXPECT_EQ(lost.front().agent, "host7");
    EXPECT_EQ(lost.front().value, "1000 1");
    EXPECT_EQ(lost.front().message, "agent host7 was lost, 1.0 s after its last sign of life");
}

TEST_F(SignsOfLife, leaveAnAgentAloneWhoseValueChanges)
{
    for (std::uint64_t i = 0; i < 20; ++i)
        EXPECT_TRUE(look(milliseconds(200), i / 3).empty());
}

TEST_F(SignsOfLife, giveEverybodyMostOfALeaseAfterTheyWereNotLookedAt)
{
    look(milliseconds(0), 1);
    EXPECT_TRUE(look(milliseconds(5'000), 1).empty());
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(look(milliseconds(200), 1).empty());
    EXPECT_EQ(look(milliseconds(200), 1).size(), 1U);
}

TEST_F(SignsOfLife, giveEverybodyAnotherLeaseAfterRedisWasAway)
{
    look(milliseconds(0), 1);
    for (int i = 0; i < 4; ++i)
        EXPECT_TRUE(look(milliseconds(200), 1).empty());
    mSigns.forget();
    for (int i = 0; i < 5; ++i)
        EXPECT_TRUE(look(milliseconds(200), 1).empty());
    EXPECT_EQ(look(milliseconds(200), 1).size(), 1U);
}

TEST_F(SignsOfLife, showALossToWhoLooksRarely)
{
    look(milliseconds(0), 1);
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(look(milliseconds(5'000), 1).empty());
    const auto lost = look(milliseconds(5'000), 1);
    ASSERT_EQ(lost.size(), 1U);
    EXPECT_EQ(lost.front().message, "agent host7 was lost, 20.0 s after its last sign of life");
}

TEST_F(SignsOfLife, showALossToWhoGetsEachAnswerWithTheNextLook)
{
    std::size_t lost = 0;
    for (int i = 0; i < 7; ++i) {
        const auto asked = mNow;
        mNow += milliseconds(5'000);
        lost += mSigns.look(Agents().add("host7", lease, 1).reply(), asked, mNow).size();
        EXPECT_EQ(lost, i < 5 ? 0U : static_cast<std::size_t>(i) - 4U) << i;
    }
}

TEST_F(SignsOfLife, leaveAnAgentAloneThatComesRoundAfterAStall)
{
    look(milliseconds(0), 1);
    for (std::uint64_t i = 0; i < 20; ++i) { // Redis is away again and again
        EXPECT_TRUE(look(milliseconds(5'000), i).empty());
        EXPECT_TRUE(look(milliseconds(200), i).empty());
        EXPECT_TRUE(look(milliseconds(200), i + 1).empty());
    }
}

TEST_F(SignsOfLife, doNotCountTheTimeThatAnAnswerTook)
{
    look(milliseconds(0), 1);
    for (int i = 0; i < 4; ++i)
        look(milliseconds(200), 1);
    // Asked after 0.9 s, answered after 1.1 s.
    EXPECT_TRUE(mSigns
                    .look(
                        Agents().add("host7", lease, 1).reply(),
                        mNow + milliseconds(100),
                        mNow + milliseconds(300))
                    .empty());
}

TEST_F(SignsOfLife, suspectThoseThatHaveNotBeenSeenToChange)
{
    const auto lookAt = [this](std::uint64_t living) {
        mNow += milliseconds(200);
        Agents agents;
        agents.add("dead", lease, 1).add("living", lease, living);
        mSigns.look(agents.reply(), mNow, mNow);
        return mSigns.suspects().size();
    };
    EXPECT_EQ(lookAt(1), 2U);
    EXPECT_EQ(lookAt(2), 1U);
    EXPECT_EQ(mSigns.suspects().front(), "dead");
    EXPECT_EQ(lookAt(2), 2U);
}

TEST_F(SignsOfLife, makeAnAgentLateThatIsSilentForTwoLooks)
{
    look(milliseconds(0), 1);
    look(milliseconds(200), 1);
    EXPECT_FALSE(mSigns.isAnyoneLate());
    look(milliseconds(200), 1);
    EXPECT_TRUE(mSigns.isAnyoneLate());
    look(milliseconds(200), 2);
    EXPECT_FALSE(mSigns.isAnyoneLate());
}

TEST_F(SignsOfLife, countAnAgentOnceThatIsToldOfTwice)
{
    for (int i = 0; i < 5; ++i) {
        mNow += milliseconds(200);
        Agents agents;
        agents.add("host7", lease, 1).add("host7", lease, 1);
        EXPECT_TRUE(mSigns.look(agents.reply(), mNow, mNow).empty());
    }
    EXPECT_EQ(look(milliseconds(200), 1).size(), 1U);
}

TEST_F(SignsOfLife, areLookedForFiveTimesInTheShortestLease)
{
    mSigns.look(
        Agents().add("slow", milliseconds(9'000), 1).add("fast", milliseconds(500), 1).reply(),
        mNow,
        mNow);
    EXPECT_EQ(mSigns.interval(), milliseconds(100));
}

TEST_F(SignsOfLife, doNotTrustWhatAValueSays)
{
    Agents agents;
    agents.add("zero", milliseconds(0), 1);
    mSigns.look(agents.reply(), mNow, mNow);
    EXPECT_EQ(mSigns.interval(), milliseconds(40));
    EXPECT_EQ(mSigns.count(), 1U);
}

} // namespace cluster
