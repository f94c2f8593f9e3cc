#include "tests/common/observer.h"
#include "tests/unit/schedulerFixture.h"

#include <chrono>
#include <vector>

using namespace support;
using State = nq::nqWorkerStatus::State;

namespace {

class SchedulerCounts : public SchedulerFixture {
protected:
    /// Starts `count` workers, the first of which gets a job.
    void startWithAJob(unsigned long count)
    {
        start(count);
        scheduler->push(bytes("job"));
        scheduler->processScheduler(0);
    }

    std::vector<State> states() const
    {
        std::vector<State> all;
        for (const nq::nqWorkerStatus& worker : scheduler->workers())
            all.push_back(worker.mState);
        return all;
    }
};

TEST_F(SchedulerCounts, areZeroBeforeAStart)
{
    EXPECT_EQ(scheduler->workerCount(), 0U);
    EXPECT_EQ(scheduler->busyWorkerCount(), 0U);
    EXPECT_EQ(scheduler->pendingJobCount(), 0U);
    EXPECT_TRUE(scheduler->workers().empty());
}

TEST_F(SchedulerCounts, tellBusyWorkersAndPendingJobsApart)
{
    startWithAJob(3);
    EXPECT_EQ(scheduler->workerCount(), 3U);
    EXPECT_EQ(scheduler->busyWorkerCount(), 1U);
    EXPECT_EQ(scheduler->pendingJobCount(), 0U);
    scheduler->push(bytes("another"));
    EXPECT_EQ(scheduler->pendingJobCount(), 1U);
    EXPECT_EQ(scheduler->jobCount(), 2U);
}

TEST_F(SchedulerCounts, fallWhenAReplacementCannotBeLaunched)
{
    start(2);
    die(0);
    EXPECT_EQ(scheduler->workerCount(), 2U) << "nobody has looked yet";
    machine.server.connections = {scripted::Connection::timesOut};
    scheduler->processScheduler(0);
    EXPECT_EQ(scheduler->workerCount(), 1U);
}

TEST_F(SchedulerCounts, areZeroAfterAStop)
{
    start(2);
    scheduler->stopScheduler();
    EXPECT_EQ(scheduler->workerCount(), 0U);
}

TEST_F(SchedulerCounts, includeTheWorkersThatAFailedStartHasLeft)
{
    machine.server.connections = {scripted::Connection::arrives, scripted::Connection::timesOut};
    ASSERT_FALSE(scheduler->startScheduler(2, connectionTimeout));
    EXPECT_EQ(scheduler->workerCount(), 1U);
}

TEST_F(SchedulerCounts, listEachWorkerWithItsMemoryAndItsTimeInTheJob)
{
    startWithAJob(2);
    process(0).ramInUse = 1000;
    process(1).ramInUse = 2000;
    machine.advance(std::chrono::milliseconds{1500});
    const auto workers = scheduler->workers();
    ASSERT_EQ(workers.size(), 2U);
    EXPECT_EQ(workers[0].mPid, 4242);
    EXPECT_EQ(workers[0].mState, State::Busy);
    EXPECT_EQ(workers[0].mResidentMemory, 1000U);
    EXPECT_EQ(workers[0].mTimeInJob, std::chrono::milliseconds{1500});
    EXPECT_EQ(workers[1].mPid, 4243);
    EXPECT_EQ(workers[1].mState, State::Idle);
    EXPECT_EQ(workers[1].mResidentMemory, 2000U);
    EXPECT_EQ(workers[1].mTimeInJob.count(), 0);
}

TEST_F(SchedulerCounts, showNoTimeOnceTheJobIsDone)
{
    startWithAJob(1);
    machine.advance(std::chrono::seconds{1});
    answer(0, "result");
    scheduler->processScheduler(0);
    EXPECT_EQ(scheduler->workers().at(0).mTimeInJob.count(), 0);
}

TEST_F(SchedulerCounts, showAKilledWorkerAsLeavingUntilItIsGone)
{
    scheduler->setMaxCapMemory(100);
    start(1);
    process(0).ramInUse = 101;
    scheduler->processScheduler(0);
    EXPECT_EQ(states(), std::vector<State>{State::Leaving});
    EXPECT_EQ(scheduler->workerCount(), 1U);
    pipe(0).lose();
    scheduler->processScheduler(0);
    EXPECT_EQ(states(), std::vector<State>{State::Idle}) << "the replacement";
}

TEST_F(SchedulerCounts, askTheMachineNothingButTheMemoryOfTheListed)
{
    startWithAJob(2);
    forgetCalls();
    scheduler->workerCount();
    scheduler->busyWorkerCount();
    scheduler->pendingJobCount();
    EXPECT_EQ(machine.trace, Lines{});
    scheduler->workers();
    EXPECT_EQ(machine.calls, Lines{});
    EXPECT_EQ(process(0).ramReads, 1);
}

TEST_F(SchedulerCounts, areOpenToALoggerWhileAJobFails)
{
    startWithAJob(2);
    die(0);
    std::vector<unsigned long> seen;
    logger.onWrite = [&] {
        seen = {
            scheduler->workerCount(), scheduler->busyWorkerCount(), scheduler->workers().size()};
    };
    scheduler->processScheduler(0);
    EXPECT_EQ(seen, (std::vector<unsigned long>{2, 1, 2}));
}

TEST_F(SchedulerCounts, areOpenWhileARecordIsDestroyed)
{
    common::KeepingObserver observer; // for whose sake a record asks how its process ended
    ASSERT_TRUE(scheduler->setObserver(&observer));
    start(2);
    die(0);
    std::vector<std::size_t> seen;
    machine.onQuery = [&](const std::string& question) {
        if (question == "process 4242: end()")
            seen = {scheduler->workerCount(), scheduler->workers().size()};
    };
    scheduler->processScheduler(0);
    machine.onQuery = nullptr;
    EXPECT_EQ(seen, (std::vector<std::size_t>{1, 1}));
    scheduler.reset();
}

} // namespace
