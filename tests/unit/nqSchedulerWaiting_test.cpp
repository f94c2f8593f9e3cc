#include "tests/unit/schedulerFixture.h"

#include <algorithm>
#include <stdexcept>

using namespace support;

namespace {

constexpr unsigned long cap = 1000; // bytes of memory

/// A host that waits in a loop of its own.
class SchedulerWaiting : public SchedulerFixture {
protected:
    /// Starts `count` workers whose news the host has asked for.
    void startWaitedFor(unsigned long count)
    {
        ASSERT_NE(scheduler->waitDescriptor(), -1);
        start(count);
    }

    scripted::WaitSet& set()
    {
        return *machine.waitSets.at(0);
    }

    /// What the set and the scheduler say, which must be the same at every moment.
    bool hasWork()
    {
        EXPECT_EQ(set().isReady, scheduler->hasImmediateWork());
        return set().isReady;
    }

    void pump()
    {
        scheduler->processScheduler(0);
    }

    /// One worker that holds a job, all of which it has been sent.
    void startABusyWorker()
    {
        startWaitedFor(1);
        scheduler->push(bytes("job"));
        pump();
        pump();
        ASSERT_FALSE(hasWork());
    }
};

TEST_F(SchedulerWaiting, makesNoDescriptorThatNobodyAsksFor)
{
    start(1);
    scheduler->push(bytes("job"));
    pump();
    scheduler->clearPendingJobs();
    EXPECT_TRUE(machine.waitSets.empty());
    EXPECT_EQ(pipe(0).reportsTo, nullptr);
}

TEST_F(SchedulerWaiting, hasOneDescriptorOverEveryStopAndStart)
{
    const int descriptor = scheduler->waitDescriptor();
    EXPECT_EQ(descriptor, 5);
    start(1);
    EXPECT_EQ(scheduler->waitDescriptor(), descriptor);
    ASSERT_TRUE(scheduler->stopScheduler());
    EXPECT_EQ(scheduler->waitDescriptor(), descriptor);
    start(1);
    EXPECT_EQ(scheduler->waitDescriptor(), descriptor);
    EXPECT_EQ(machine.waitSets.size(), 1U);
    EXPECT_FALSE(set().isDestroyed);
}

TEST_F(SchedulerWaiting, triesAgainWhenThereWasNoDescriptor)
{
    machine.waitSetFails = true;
    EXPECT_EQ(scheduler->waitDescriptor(), -1);
    start(1);
    const int descriptor = scheduler->waitDescriptor();
    EXPECT_EQ(descriptor, machine.waitSets.at(1)->descriptor);
    EXPECT_EQ(pipe(0).reportsTo, machine.waitSets.at(1).get());
}

TEST_F(SchedulerWaiting, hasTheWorkersReportThatWereThereBefore)
{
    start(2);
    scheduler->waitDescriptor();
    EXPECT_EQ(pipe(0).reportsTo, &set());
    EXPECT_EQ(pipe(1).reportsTo, &set());
}

TEST_F(SchedulerWaiting, hasTheWorkersReportThatComeLater)
{
    startWaitedFor(1);
    EXPECT_EQ(pipe(0).reportsTo, &set());
    ASSERT_TRUE(scheduler->startWorker());
    EXPECT_EQ(pipe(1).reportsTo, &set());
}

TEST_F(SchedulerWaiting, hasAReplacementReport)
{
    startWaitedFor(1);
    die(0);
    pump();
    EXPECT_EQ(pipe(1).reportsTo, &set());
    EXPECT_FALSE(hasWork()) << "there is no job for it";
}

TEST_F(SchedulerWaiting, hasAHealedWorkerReport)
{
    startWaitedFor(1);
    die(0);
    machine.server.connections = {scripted::Connection::timesOut};
    pump();
    ASSERT_EQ(scheduler->workerCount(), 0U);
    ASSERT_TRUE(scheduler->healWorkers());
    EXPECT_EQ(pipe(machine.pipes.size() - 1).reportsTo, &set());
}

TEST_F(SchedulerWaiting, leavesTheWorkersOfAStartThatFailedOut)
{
    scheduler->waitDescriptor();
    machine.server.connections = {scripted::Connection::arrives, scripted::Connection::timesOut};
    ASSERT_FALSE(scheduler->startScheduler(2, connectionTimeout));
    scheduler->push(bytes("job"));
    EXPECT_EQ(pipe(0).reportsTo, nullptr) << "nobody would pump its news away";
    EXPECT_FALSE(hasWork());
}

TEST_F(SchedulerWaiting, takesThoseInWithTheNextStart)
{
    scheduler->waitDescriptor();
    machine.server.connections = {scripted::Connection::arrives, scripted::Connection::timesOut};
    ASSERT_FALSE(scheduler->startScheduler(2, connectionTimeout));
    ASSERT_TRUE(scheduler->startScheduler(1, connectionTimeout));
    EXPECT_EQ(pipe(0).reportsTo, &set());
}

TEST_F(SchedulerWaiting, takesTheWorkersOutBeforeItEndsThem)
{
    startWaitedFor(2);
    machine.onQuery = [this](const std::string& line) {
        if (line == "process 4242: getState()") {
            EXPECT_EQ(pipe(1).reportsTo, nullptr);
        }
    };
    ASSERT_TRUE(scheduler->stopScheduler());
    EXPECT_GT(machine.count("process 4242: getState()"), 0);
}

TEST_F(SchedulerWaiting, hasWorkFromAPushToTheLastByteOfTheJob)
{
    startWaitedFor(1);
    EXPECT_FALSE(hasWork());
    scheduler->push(bytes("job"));
    EXPECT_TRUE(hasWork()) << "a job and a worker to take it";
    pump();
    EXPECT_TRUE(hasWork()) << "bytes to send";
    pump();
    EXPECT_EQ(pipe(0).passedOn, frame("job"));
    EXPECT_FALSE(hasWork());
}

TEST_F(SchedulerWaiting, hasWorkWithAJobWhoseMemoryWasTaken)
{
    startWaitedFor(1);
    scheduler->push(Bytes(3, 'x'));
    EXPECT_TRUE(hasWork());
}

TEST_F(SchedulerWaiting, hasNoWorkWithAJobThatNoWorkerCanTake)
{
    startABusyWorker();
    scheduler->push(bytes("later"));
    EXPECT_FALSE(hasWork());
}

TEST_F(SchedulerWaiting, hasNoWorkOnceTheJobsAreCleared)
{
    startWaitedFor(1);
    scheduler->push(bytes("job"));
    scheduler->clearPendingJobs();
    EXPECT_FALSE(hasWork());
}

TEST_F(SchedulerWaiting, hasNoWorkOnceTheJobsAreTakenBack)
{
    startWaitedFor(1);
    scheduler->push(bytes("job"));
    Bytes job;
    EXPECT_TRUE(scheduler->takePendingJob(job));
    EXPECT_FALSE(hasWork());
}

TEST_F(SchedulerWaiting, hasWorkWithAJobThatWasPushedBeforeTheStart)
{
    scheduler->waitDescriptor();
    scheduler->push(bytes("job"));
    EXPECT_FALSE(hasWork());
    start(1);
    EXPECT_TRUE(hasWork());
}

TEST_F(SchedulerWaiting, hasWorkWithAJobThatWasPushedBeforeTheDescriptorWasAskedFor)
{
    start(1);
    scheduler->push(bytes("job"));
    scheduler->waitDescriptor();
    EXPECT_TRUE(hasWork());
}

TEST_F(SchedulerWaiting, hasNoWorkOnceItIsStopped)
{
    startWaitedFor(1);
    ASSERT_TRUE(scheduler->stopScheduler());
    scheduler->push(bytes("job"));
    EXPECT_FALSE(hasWork());
}

TEST_F(SchedulerWaiting, hasNoWorkWhileTheWorkerTakesNoBytes)
{
    startWaitedFor(1);
    pipe(0).passedOnPerCall = 0;
    scheduler->push(bytes("job"));
    pump();
    EXPECT_TRUE(hasWork()) << "nobody has tried to send it yet";
    pump();
    EXPECT_FALSE(hasWork());
    pump();
    EXPECT_FALSE(hasWork());
}

TEST_F(SchedulerWaiting, needsOnePumpMoreForTheNextJobsBytes)
{
    startABusyWorker();
    scheduler->push(bytes("next"));
    answer(0, "result");
    pump();
    EXPECT_EQ(results(), Lines{"result"});
    EXPECT_TRUE(hasWork());
    pump();
    EXPECT_EQ(pipe(0).passedOn, frame("job") + frame("next"));
    EXPECT_FALSE(hasWork());
}

TEST_F(SchedulerWaiting, hasNoWorkWithAResultThatWaitsToBePopped)
{
    startABusyWorker();
    answer(0, "result");
    pump();
    EXPECT_EQ(scheduler->resultCount(), 1U);
    EXPECT_FALSE(hasWork());
}

TEST_F(SchedulerWaiting, hasNoWorkWithBytesThatAnIdleWorkerSent)
{
    startWaitedFor(1);
    answer(0, "nobody has asked");
    pump();
    EXPECT_FALSE(pipe(0).incoming.empty());
    EXPECT_FALSE(hasWork());
}

TEST_F(SchedulerWaiting, hasWorkWithThoseBytesOnceAJobIsInFlight)
{
    startWaitedFor(1);
    answer(0, "nobody has asked");
    pump();
    scheduler->push(bytes("job"));
    pump();
    pump();
    EXPECT_EQ(results(), Lines{"nobody has asked"});
    EXPECT_FALSE(hasWork());
}

TEST_F(SchedulerWaiting, hasWorkWithASecondFrameBehindAResult)
{
    startABusyWorker();
    scheduler->push(bytes("next"));
    pipe(0).arrivals.push_back(frame("result") + frame("another"));
    pump();
    pump();
    EXPECT_EQ(results(), (Lines{"result", "another"}));
    EXPECT_FALSE(hasWork());
}

TEST_F(SchedulerWaiting, hasNoWorkWithAHeaderThatIsNotWhole)
{
    startABusyWorker();
    pipe(0).arrivals.push_back(bytes("abc"));
    pump();
    EXPECT_EQ(pipe(0).incoming.size(), 3U);
    EXPECT_FALSE(hasWork());
}

TEST_F(SchedulerWaiting, hasNoWorkWithAResultThatIsNotWhole)
{
    startABusyWorker();
    Bytes part = frame("result");
    part.pop_back();
    pipe(0).arrivals.push_back(part);
    pump();
    EXPECT_FALSE(hasWork());
}

TEST_F(SchedulerWaiting, hasWorkBehindAnEmptyJob)
{
    startWaitedFor(1);
    scheduler->push(Bytes());
    scheduler->push(bytes("job"));
    pump();
    EXPECT_TRUE(hasWork()) << "the empty one has been dropped";
    pump();
    EXPECT_TRUE(hasWork());
    pump();
    EXPECT_FALSE(hasWork());
    machine.isForkedChild = true; // the only scheduler that ends in spite of an empty job
    scheduler.reset();
}

TEST_F(SchedulerWaiting, hasWorkForAReplacementWhileAJobIsPending)
{
    startABusyWorker();
    scheduler->push(bytes("next"));
    die(0);
    pump();
    EXPECT_TRUE(hasWork());
    pump();
    pump();
    EXPECT_EQ(pipe(1).passedOn, frame("next"));
    EXPECT_FALSE(hasWork());
}

TEST_F(SchedulerWaiting, hasWorkWithALossThatTheKillOfTheSameStepHidAway)
{
    scheduler->setMaxCapMemory(cap);
    startABusyWorker();
    process(0).ramInUse = cap + 1;
    pipe(0).onEvents = [](scripted::Pipe& pipe) { pipe.lose(); };
    pump();
    EXPECT_EQ(scheduler->failCount(), 0U);
    EXPECT_TRUE(hasWork());
    pump();
    EXPECT_EQ(scheduler->failCount(), 1U);
}

TEST_F(SchedulerWaiting, hasNoWorkForAWorkerThatIsBeingKilled)
{
    scheduler->setMaxCapMemory(cap);
    startWaitedFor(1);
    process(0).ramInUse = cap + 1;
    pump();
    scheduler->push(bytes("job"));
    EXPECT_FALSE(hasWork());
}

TEST_F(SchedulerWaiting, hasWorkWhileTheEndOfAPipeIsHiddenBehindBytes)
{
    startWaitedFor(1);
    answer(0, "nobody has asked");
    pipe(0).endsWhenDrained = true;
    pump();
    EXPECT_TRUE(hasWork());
}

TEST_F(SchedulerWaiting, seesWhatALoggerPushesInsideAPump)
{
    startABusyWorker();
    die(0);
    logger.onWrite = [this] {
        scheduler->push(bytes("again"));
        EXPECT_FALSE(scheduler->hasImmediateWork()) << "no pump would do it now";
    };
    pump();
    EXPECT_EQ(scheduler->failCount(), 1U);
    EXPECT_TRUE(hasWork());
}

TEST_F(SchedulerWaiting, seesWhatALoggerPushesInsideAHealThatFails)
{
    startWaitedFor(2);
    die(0);
    machine.server.connections = {scripted::Connection::timesOut, scripted::Connection::timesOut};
    pump();
    ASSERT_FALSE(hasWork());
    logger.onWrite = [this] { scheduler->push(bytes("job")); };
    EXPECT_FALSE(scheduler->healWorkers());
    EXPECT_TRUE(hasWork()) << "the other worker can take it";
}

// An exception of the wait stands for what unwinds the stack of a cancelled thread.
TEST_F(SchedulerWaiting, hasNoWorkOnceAHealHasMadeTheReplacementThatWasDue)
{
    startWaitedFor(2);
    die(0);
    machine.onSelect = []() -> int { throw std::runtime_error("unwinds"); };
    EXPECT_THROW(scheduler->processScheduler(1000), std::runtime_error);
    machine.onSelect = nullptr;
    ASSERT_TRUE(hasWork());
    ASSERT_TRUE(scheduler->healWorkers());
    EXPECT_FALSE(hasWork());
}

TEST_F(SchedulerWaiting, hasNoDescriptorForALoggerThatAsksFirst)
{
    start(1);
    logger.onWrite = [this] { EXPECT_EQ(scheduler->waitDescriptor(), -1); };
    EXPECT_FALSE(scheduler->startScheduler(1, connectionTimeout));
    EXPECT_EQ(machine.messages().size(), 1U);
    EXPECT_TRUE(machine.waitSets.empty());
}

TEST_F(SchedulerWaiting, hasNeitherDescriptorNorWorkInAForkedChild)
{
    start(1);
    scheduler->push(bytes("job"));
    EXPECT_TRUE(scheduler->hasImmediateWork());
    machine.isForkedChild = true;
    EXPECT_FALSE(scheduler->hasImmediateWork());
    EXPECT_EQ(scheduler->waitDescriptor(), -1);
    EXPECT_TRUE(machine.waitSets.empty());
    machine.isForkedChild = false;
}

TEST_F(SchedulerWaiting, isOverWithTheScheduler)
{
    startWaitedFor(1);
    scheduler.reset();
    EXPECT_TRUE(set().isDestroyed);
    const auto line = [this](const char* text) {
        return std::find(machine.trace.begin(), machine.trace.end(), text);
    };
    EXPECT_LT(line("pipe 1: destroyed"), line("wait set: destroyed")) << "it reports to the set";
}

} // namespace
