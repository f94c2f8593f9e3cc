#include "pool/nqPoolQueue.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using nq::nqJobId;
using nq::nqPoolJob;
using nq::nqPoolQueue;
using TimePoint = nqPoolQueue::TimePoint;
using std::chrono::milliseconds;
using Ids = std::vector<nqJobId>;

TimePoint at(int ms)
{
    return TimePoint(std::chrono::hours(1)) + milliseconds(ms);
}

nqPoolJob job(nqJobId id)
{
    nqPoolJob made;
    made.id = id & nqPoolJob::largestId;
    made.bytes = {static_cast<char>('a' + id)};
    return made;
}

nqPoolJob jobWithDeadline(nqJobId id, TimePoint deadline)
{
    nqPoolJob made = job(id);
    made.ownDetails().options.deadline = deadline;
    return made;
}

class PoolQueue : public testing::Test {
protected:
    void push(const Ids& ids)
    {
        for (const nqJobId id : ids)
            queue.push(job(id));
    }

    Ids popAll(TimePoint now)
    {
        Ids all;
        while (auto one = queue.pop(now))
            all.push_back(one->id);
        return all;
    }

    nqPoolQueue queue;
};

TEST_F(PoolQueue, givesNewJobsInTheOrderOfTheirIds)
{
    push({1, 2, 3});
    EXPECT_EQ(queue.size(), 3U);
    EXPECT_EQ(popAll(at(0)), (Ids{1, 2, 3}));
    EXPECT_EQ(queue.size(), 0U);
}

TEST_F(PoolQueue, givesTheJobAsItCame)
{
    push({4});
    const auto got = queue.pop(at(0));
    ASSERT_TRUE(got);
    EXPECT_EQ(got->bytes, std::vector<char>{'e'});
}

TEST_F(PoolQueue, removesAnyJobOnce)
{
    push({1, 2, 3, 4});
    EXPECT_EQ(queue.remove(3)->id, 3U);
    EXPECT_EQ(queue.remove(1)->id, 1U);
    EXPECT_FALSE(queue.remove(3));
    EXPECT_FALSE(queue.remove(1));
    EXPECT_FALSE(queue.remove(9));
    EXPECT_EQ(queue.size(), 2U);
    EXPECT_EQ(popAll(at(0)), (Ids{2, 4}));
}

TEST_F(PoolQueue, isEmptyWhenTheRestWasRemoved)
{
    push({1, 2});
    queue.remove(2);
    queue.remove(1);
    EXPECT_FALSE(queue.hasDue(at(0)));
    EXPECT_FALSE(queue.pop(at(0)));
    EXPECT_EQ(queue.size(), 0U);
}

TEST_F(PoolQueue, givesAnotherAttemptBeforeNewJobsOnceItIsDue)
{
    push({1, 2});
    auto tried = queue.pop(at(0));
    queue.pushAgain(std::move(*tried), at(10));
    EXPECT_EQ(queue.pop(at(9))->id, 2U);
    EXPECT_FALSE(queue.hasDue(at(9)));
    EXPECT_EQ(queue.nextDue(at(0)), at(10));
    EXPECT_TRUE(queue.hasDue(at(10)));
    EXPECT_EQ(queue.pop(at(10))->id, 1U);
}

TEST_F(PoolQueue, removesAJobThatWaitsForAnotherAttempt)
{
    queue.pushAgain(job(7), at(10));
    EXPECT_EQ(queue.remove(7)->id, 7U);
    EXPECT_FALSE(queue.remove(7));
    EXPECT_FALSE(queue.hasDue(at(10)));
    EXPECT_EQ(queue.size(), 0U);
}

TEST_F(PoolQueue, findsWhatHasExpiredAtItsDeadlineAndNotBefore)
{
    queue.push(job(1));
    queue.push(jobWithDeadline(2, at(20)));
    queue.push(jobWithDeadline(3, at(10)));
    EXPECT_EQ(queue.nextDue(at(0)), at(10));
    EXPECT_FALSE(queue.removeExpired(at(9)));
    EXPECT_EQ(queue.removeExpired(at(10))->id, 3U);
    EXPECT_EQ(queue.nextDue(at(0)), at(20));
    EXPECT_EQ(queue.removeExpired(at(99))->id, 2U);
    EXPECT_FALSE(queue.removeExpired(at(99)));
    EXPECT_EQ(queue.nextDue(at(0)), std::nullopt);
    EXPECT_EQ(popAll(at(99)), Ids{1});
}

TEST_F(PoolQueue, forgetsTheDeadlineOfAJobThatIsGone)
{
    queue.push(jobWithDeadline(1, at(10)));
    queue.push(jobWithDeadline(2, at(10)));
    queue.push(jobWithDeadline(3, at(10)));
    queue.pop(at(0));
    queue.remove(2);
    EXPECT_EQ(queue.removeExpired(at(10))->id, 3U);
    EXPECT_FALSE(queue.removeExpired(at(10)));
}

TEST_F(PoolQueue, expiresAJobThatWaitsForAnotherAttempt)
{
    queue.pushAgain(jobWithDeadline(1, at(5)), at(10));
    EXPECT_EQ(queue.nextDue(at(0)), at(5));
    EXPECT_EQ(queue.removeExpired(at(5))->id, 1U);
    EXPECT_EQ(queue.size(), 0U);
}

TEST_F(PoolQueue, givesUpWhatIsOldEnoughWhetherItIsDueOrNot)
{
    push({2, 3, 4, 5});
    queue.remove(3);
    queue.pushAgain(job(1), at(10));
    Ids all;
    while (auto one = queue.removeUpTo(4))
        all.push_back(one->id);
    EXPECT_EQ(all, (Ids{1, 2, 4}));
    EXPECT_EQ(popAll(at(0)), Ids{5});
}

TEST(PoolJob, takesNoMoreThanEightyBytes)
{
    EXPECT_LE(sizeof(nqPoolJob), 80U) << "a million of them may wait";
}

} // namespace
