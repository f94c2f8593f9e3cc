#include "scheduler/nqJobQueues.h"
#include "tests/common/refusedMemory.h"
#include "tests/unit/testSupport.h"

#include <gtest/gtest.h>

#include <limits>
#include <new>
#include <string>
#include <utility>

namespace {

using common::RefusedMemory;
using nq::nqJobQueues;
using nq::nqScheduler;
using support::Bytes;
using support::bytes;

/// Larger than any block that a queue needs for itself.
const Bytes largeData(std::size_t{1} << 20, 'd');

Bytes take(nqJobQueues& queues)
{
    Bytes job;
    EXPECT_TRUE(queues.takeNextJob(job));
    return job;
}

Bytes popped(nqJobQueues& queues)
{
    Bytes result;
    EXPECT_TRUE(queues.pop(result));
    return result;
}

TEST(JobQueues, startWithNothingInThem)
{
    const nqJobQueues queues;
    EXPECT_EQ(queues.jobCount(), 0U);
    EXPECT_EQ(queues.resultCount(), 0U);
    EXPECT_EQ(queues.failCount(), 0U);
    EXPECT_EQ(queues.pendingJobCount(), 0U);
    EXPECT_TRUE(queues.allJobsDone());
}

TEST(JobQueues, handOutJobsOldestFirst)
{
    nqJobQueues queues;
    queues.push(bytes("first"));
    queues.push(bytes("second"));
    EXPECT_EQ(take(queues), bytes("first"));
    EXPECT_EQ(take(queues), bytes("second"));
}

TEST(JobQueues, keepACopyOfAPushedJob)
{
    nqJobQueues queues;
    Bytes job = bytes("job");
    queues.push(job);
    job.front() = 'x';
    EXPECT_EQ(take(queues), bytes("job"));
}

TEST(JobQueues, takeTheMemoryOfAMovedJob)
{
    nqJobQueues queues;
    Bytes job = largeData;
    const char* const memory = job.data();
    queues.push(std::move(job));
    EXPECT_TRUE(job.empty()); // NOLINT(bugprone-use-after-move): what a moved-from job is
    EXPECT_EQ(queues.jobCount(), 1U);
    EXPECT_EQ(take(queues).data(), memory);
}

TEST(JobQueues, leaveAMovedJobAloneThatFindsNoPlace)
{
    if (!RefusedMemory::isPossible())
        GTEST_SKIP() << "this tool has an allocator of its own";
    constexpr std::size_t smallestPlaces = 256; // less than a deque asks for at a time
    nqJobQueues queues;
    unsigned long jobs = 0;
    Bytes job = bytes("job");
    bool isRefused = false;
    while (!isRefused) {
        const RefusedMemory refused(smallestPlaces);
        try {
            queues.push(std::move(job));
            ++jobs;
            job = bytes("job");
        } catch (const std::bad_alloc&) {
            isRefused = true;
        }
    }
    EXPECT_EQ(job, bytes("job"));
    EXPECT_EQ(queues.jobCount(), jobs);
}

TEST(JobQueues, moveJobsAndResultsOutWithoutCopying)
{
    if (!RefusedMemory::isPossible())
        GTEST_SKIP() << "this tool has an allocator of its own";
    nqJobQueues queues;
    queues.push(largeData);
    queues.pushResult(largeData);
    Bytes job = bytes("old contents");
    Bytes result = bytes("old contents");
    {
        const RefusedMemory refused(largeData.size());
        queues.takeNextJob(job);
        queues.pop(result);
    }
    EXPECT_EQ(job, largeData);
    EXPECT_EQ(result, largeData);
}

TEST(JobQueues, takeAResultOverWithoutCopyingItAndCountItsJobNoLonger)
{
    if (!RefusedMemory::isPossible())
        GTEST_SKIP() << "this tool has an allocator of its own";
    nqJobQueues queues;
    queues.push(bytes("job"));
    take(queues);
    Bytes result = largeData;
    {
        const RefusedMemory refused(largeData.size());
        queues.pushResult(std::move(result));
    }
    EXPECT_EQ(queues.jobCount(), 0U);
    EXPECT_EQ(queues.resultCount(), 1U);
    EXPECT_EQ(popped(queues), largeData);
}

TEST(JobQueues, stayAsTheyWereWhenAJobCannotBeCopied)
{
    if (!RefusedMemory::isPossible())
        GTEST_SKIP() << "this tool has an allocator of its own";
    nqJobQueues queues;
    queues.push(bytes("job"));
    {
        const RefusedMemory refused(largeData.size());
        EXPECT_THROW(queues.push(largeData), std::bad_alloc);
    }
    EXPECT_EQ(queues.jobCount(), 1U);
    EXPECT_EQ(take(queues), bytes("job"));
}

TEST(JobQueues, countAJobNoLongerWhoseResultCannotBeCopied)
{
    if (!RefusedMemory::isPossible())
        GTEST_SKIP() << "this tool has an allocator of its own";
    nqJobQueues queues;
    queues.push(bytes("job"));
    take(queues);
    {
        const RefusedMemory refused(largeData.size());
        EXPECT_THROW(queues.pushResult(largeData), std::bad_alloc);
    }
    EXPECT_EQ(queues.jobCount(), 0U);
    EXPECT_EQ(queues.resultCount(), 0U);
}

TEST(JobQueues, countAJobNoLongerWhoseResultFindsNoPlace)
{
    if (!RefusedMemory::isPossible())
        GTEST_SKIP() << "this tool has an allocator of its own";
    constexpr std::size_t smallestPlaces = 256; // less than a deque asks for at a time
    nqJobQueues queues;
    unsigned long results = 0;
    bool isRefused = false;
    while (!isRefused) {
        queues.push(bytes("job"));
        take(queues);
        Bytes result = bytes("result");
        const RefusedMemory refused(smallestPlaces);
        try {
            queues.pushResult(std::move(result));
            ++results;
        } catch (const std::bad_alloc&) {
            isRefused = true;
        }
    }
    EXPECT_EQ(queues.jobCount(), 0U);
    EXPECT_EQ(queues.resultCount(), results);
}

TEST(JobQueues, countAJobNoLongerWhoseFailureCannotBeCopied)
{
    if (!RefusedMemory::isPossible())
        GTEST_SKIP() << "this tool has an allocator of its own";
    nqJobQueues queues;
    queues.push(bytes("job"));
    take(queues);
    {
        const RefusedMemory refused(largeData.size());
        EXPECT_THROW(queues.pushFailedJob(largeData, nqScheduler::Timeout, "late"), std::bad_alloc);
    }
    EXPECT_EQ(queues.jobCount(), 0U);
    EXPECT_EQ(queues.failCount(), 0U);
}

TEST(JobQueues, changeNothingWhenThereIsNoJobToTake)
{
    nqJobQueues queues;
    Bytes job = bytes("mine");
    EXPECT_FALSE(queues.takeNextJob(job));
    EXPECT_EQ(job, bytes("mine"));
    EXPECT_EQ(queues.jobCount(), 0U);
}

TEST(JobQueues, countAJobUntilItIsAResult)
{
    nqJobQueues queues;
    queues.push(bytes("job"));
    EXPECT_EQ(queues.jobCount(), 1U);
    EXPECT_FALSE(queues.allJobsDone());
    take(queues);
    EXPECT_EQ(queues.jobCount(), 1U);
    EXPECT_FALSE(queues.allJobsDone());
    queues.pushResult(bytes("result"));
    EXPECT_EQ(queues.jobCount(), 0U);
    EXPECT_EQ(queues.resultCount(), 1U);
    EXPECT_TRUE(queues.allJobsDone());
}

TEST(JobQueues, countAJobUntilItIsAFailure)
{
    nqJobQueues queues;
    queues.push(bytes("job"));
    take(queues);
    queues.pushFailedJob(bytes("job"), nqScheduler::Timeout, "late");
    EXPECT_EQ(queues.jobCount(), 0U);
    EXPECT_EQ(queues.failCount(), 1U);
    EXPECT_TRUE(queues.allJobsDone());
}

TEST(JobQueues, countPendingJobsWithoutThoseInProgress)
{
    nqJobQueues queues;
    queues.push(bytes("a"));
    queues.push(bytes("b"));
    take(queues);
    EXPECT_EQ(queues.pendingJobCount(), 1U);
    EXPECT_EQ(queues.jobCount(), 2U);
}

TEST(JobQueues, handOutResultsInTheOrderOfTheirArrival)
{
    nqJobQueues queues;
    queues.pushResult(bytes("one"));
    queues.pushResult(bytes("two"));
    EXPECT_EQ(popped(queues), bytes("one"));
    EXPECT_EQ(popped(queues), bytes("two"));
    EXPECT_EQ(queues.resultCount(), 0U);
}

TEST(JobQueues, discardWhatAPoppedIntoVectorHeldBefore)
{
    nqJobQueues queues;
    queues.pushResult(bytes("r"));
    Bytes result = bytes("longer than the result");
    EXPECT_TRUE(queues.pop(result));
    EXPECT_EQ(result, bytes("r"));
}

TEST(JobQueues, handOutFailuresOldestFirstWithReasonAndMessage)
{
    nqJobQueues queues;
    queues.pushFailedJob(bytes("one"), nqScheduler::UnexpectedCrash, "crash");
    queues.pushFailedJob(bytes("two"), nqScheduler::TooMuchRam, "ram");
    Bytes job = bytes("before");
    auto reason = nqScheduler::Timeout;
    std::string message = "before";

    EXPECT_TRUE(queues.popFail(job, reason, message));
    EXPECT_EQ(job, bytes("one"));
    EXPECT_EQ(reason, nqScheduler::UnexpectedCrash);
    EXPECT_EQ(message, "crash");
    EXPECT_EQ(queues.failCount(), 1U);

    EXPECT_TRUE(queues.popFail(job, reason, message));
    EXPECT_EQ(job, bytes("two"));
    EXPECT_EQ(reason, nqScheduler::TooMuchRam);
    EXPECT_EQ(message, "ram");
    EXPECT_EQ(queues.failCount(), 0U);
}

TEST(JobQueues, popLeavesItsArgumentAloneWhenThereIsNoResultUnlikePopFailOnPurpose)
{
    nqJobQueues queues;
    Bytes result = bytes("mine");
    EXPECT_FALSE(queues.pop(result));
    EXPECT_EQ(result, bytes("mine"));
}

TEST(JobQueues, popFailClearsItsArgumentsWhenThereIsNoFailureUnlikePopOnPurpose)
{
    nqJobQueues queues;
    Bytes job = bytes("mine");
    auto reason = nqScheduler::Timeout;
    std::string message = "mine";
    EXPECT_FALSE(queues.popFail(job, reason, message));
    EXPECT_EQ(job, Bytes{});
    EXPECT_EQ(reason, nqScheduler::NoFailure);
    EXPECT_EQ(message, "");
}

TEST(JobQueues, queueAnEmptyJobLikeAnyOther)
{
    nqJobQueues queues;
    queues.push({});
    EXPECT_EQ(queues.jobCount(), 1U);
    Bytes job = bytes("before");
    EXPECT_TRUE(queues.takeNextJob(job));
    EXPECT_EQ(job, Bytes{});
    EXPECT_EQ(queues.jobCount(), 1U);
}

TEST(JobQueues, neverClampTheCountOfJobsInProgressOnPurpose)
{
    nqJobQueues queues;
    queues.pushResult(bytes("from nowhere"));
    EXPECT_EQ(queues.jobCount(), std::numeric_limits<unsigned long>::max());
    EXPECT_FALSE(queues.allJobsDone());

    queues.push(bytes("job"));
    EXPECT_EQ(queues.jobCount(), 0U);
    EXPECT_EQ(queues.pendingJobCount(), 1U);
    EXPECT_TRUE(queues.allJobsDone());

    queues.pushFailedJob(bytes("x"), nqScheduler::Timeout, "");
    EXPECT_EQ(queues.jobCount(), std::numeric_limits<unsigned long>::max());
}

TEST(JobQueues, keepEverythingButPendingJobsWhenTheseAreCleared)
{
    nqJobQueues queues;
    for (const char* job : {"a", "b", "c", "d", "e"})
        queues.push(bytes(job));
    for (int i = 0; i < 3; ++i)
        take(queues);
    queues.pushResult(bytes("result"));
    queues.pushFailedJob(bytes("b"), nqScheduler::Timeout, "late");

    queues.clearPendingJobs();

    EXPECT_EQ(queues.pendingJobCount(), 0U);
    EXPECT_EQ(queues.jobCount(), 1U);
    EXPECT_EQ(queues.resultCount(), 1U);
    EXPECT_EQ(queues.failCount(), 1U);
}

TEST(JobQueues, takeBackTheOldestJobThatIsPending)
{
    nqJobQueues queues;
    for (const char* job : {"a", "b", "c"})
        queues.push(bytes(job));
    take(queues);
    Bytes job;
    EXPECT_TRUE(queues.takeBack(job));
    EXPECT_EQ(job, bytes("b"));
    EXPECT_EQ(queues.pendingJobCount(), 1U);
    EXPECT_EQ(queues.jobCount(), 2U);
}

TEST(JobQueues, takeNoJobBackThatIsInProgress)
{
    nqJobQueues queues;
    queues.push(bytes("a"));
    take(queues);
    Bytes job = bytes("untouched");
    EXPECT_FALSE(queues.takeBack(job));
    EXPECT_EQ(job, bytes("untouched"));
    EXPECT_EQ(queues.jobCount(), 1U);
}

} // namespace
