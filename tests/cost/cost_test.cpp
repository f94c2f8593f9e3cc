// What one small job costs in calls of the kernel and of the allocator, on both sides of the pipe.
// Counts, not times: they stay the same on a busy machine, but for a wake-up in vain now and then.
#include "counts.h"

#include "nqScheduler.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

constexpr int warmUpJobs = 100; // buffers grow to their size
constexpr int measuredJobs = 2'000;
constexpr double inVain = 0.5; // calls for each job that a busy machine may add

class CostOfASmallJob : public testing::Test {
protected:
    CostOfASmallJob()
        : mScheduler(NQ_COUNTING_WORKER, true, {}, true)
    {
    }

    void SetUp() override
    {
        ASSERT_TRUE(mScheduler.startScheduler(1, 30'000));
        for (int i = 0; i < warmUpJobs; ++i)
            runJob();
        const cost::Counts hostBefore = cost::counts();
        const cost::Counts workerBefore = runJob();
        for (int i = 1; i < measuredJobs; ++i)
            runJob();
        mHost = cost::counts() - hostBefore;
        mWorker = runJob() - workerBefore;
    }

    /// One job, one result at a time; what the worker had counted when it answered.
    cost::Counts runJob()
    {
        mScheduler.push(mJob);
        while (!mScheduler.pop(mResult))
            mScheduler.processScheduler(10'000);
        cost::Counts counts;
        EXPECT_EQ(mResult.size(), sizeof counts);
        std::memcpy(&counts, mResult.data(), sizeof counts);
        return counts;
    }

    static double perJob(std::uint64_t count)
    {
        return static_cast<double>(count) / measuredJobs;
    }

    nq::nqScheduler mScheduler;
    const std::vector<char> mJob = std::vector<char>(64, 'x');
    std::vector<char> mResult;
    cost::Counts mHost;
    cost::Counts mWorker;
};

TEST_F(CostOfASmallJob, isOneSendTwoReceivesAndOneWaitInTheHost)
{
    // The second receive tells whether a worker that answered has left, before it gets another job.
    // The pass that takes the job looks once more at the idle worker.
    EXPECT_GE(perJob(mHost.mMessageCalls), 2) << "they are not counted";
    EXPECT_LE(perJob(mHost.mMessageCalls), 4 + inVain);
    EXPECT_LE(perJob(mHost.mWaitCalls), 1 + inVain);
}

TEST_F(CostOfASmallJob, isOneSendOneReceiveAndOneWaitInTheWorker)
{
    EXPECT_GE(perJob(mWorker.mMessageCalls), 2) << "they are not counted";
    EXPECT_LE(perJob(mWorker.mMessageCalls), 2 + inVain);
    EXPECT_LE(perJob(mWorker.mWaitCalls), 1 + inVain);
}

TEST_F(CostOfASmallJob, isTheJobsAndTheResultsMemoryInTheHost)
{
    EXPECT_LE(perJob(mHost.mAllocations), 2 + inVain);
}

TEST_F(CostOfASmallJob, isNoMemoryInTheWorker)
{
    EXPECT_LE(perJob(mWorker.mAllocations), inVain);
}

class CostOfRest : public CostOfASmallJob {};

TEST_F(CostOfRest, isAFewCallsOfTheKernelOnBothSides)
{
    const cost::Counts workerBefore = runJob();
    const cost::Counts hostBefore = cost::counts();
    mScheduler.processScheduler(300); // nothing comes, so this is as long as it says
    const cost::Counts host = cost::counts() - hostBefore;
    const cost::Counts worker = runJob() - workerBefore;
    // One sleep each. A worker that has just answered first sleeps for a moment, and looks for less
    // than that; both sleep once more on a busy machine.
    EXPECT_GE(host.mWaitCalls, 1U);
    EXPECT_LE(host.mWaitCalls, 2U);
    EXPECT_GE(worker.mWaitCalls, 1U);
    EXPECT_LE(worker.mWaitCalls, 8U);
    EXPECT_LE(worker.mLooks, 2'000U);
    EXPECT_LE(host.mLooks, 2'000U);
}

} // namespace
