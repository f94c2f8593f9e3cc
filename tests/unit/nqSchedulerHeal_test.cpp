#include "tests/common/observer.h"
#include "tests/unit/schedulerFixture.h"

#include <stdexcept>

using namespace support;
using scripted::Connection;

namespace {

class HealWorkers : public SchedulerFixture {
protected:
    /// Starts `count` workers, all of which die and are not replaced.
    void startAndLoseAll(unsigned long count)
    {
        start(count);
        for (std::size_t i = 0; i < count; ++i)
            die(i);
        machine.server.connections.assign(count, Connection::timesOut);
        scheduler->processScheduler(0);
        ASSERT_EQ(scheduler->workerCount(), 0U);
        forgetCalls();
    }
};

TEST_F(HealWorkers, launchesWhatIsMissing)
{
    startAndLoseAll(2);
    EXPECT_TRUE(scheduler->healWorkers());
    EXPECT_EQ(scheduler->workerCount(), 2U);
}

TEST_F(HealWorkers, givesTheNewWorkersThePendingJobs)
{
    startAndLoseAll(1);
    scheduler->push(bytes("job"));
    EXPECT_TRUE(scheduler->healWorkers());
    answer(1, "result");
    scheduler->processScheduler(0);
    scheduler->processScheduler(0);
    EXPECT_EQ(results(), Lines{"result"});
}

TEST_F(HealWorkers, leavesAWholePoolAlone)
{
    start(2);
    EXPECT_TRUE(scheduler->healWorkers());
    EXPECT_EQ(machine.calls, Lines{});
}

TEST_F(HealWorkers, leavesADeadWorkerThatNobodyHasSeenToThePump)
{
    start(1);
    die(0);
    EXPECT_TRUE(scheduler->healWorkers());
    EXPECT_EQ(machine.processes.size(), 1U);
    scheduler->processScheduler(0);
    EXPECT_EQ(scheduler->workerCount(), 1U);
}

TEST_F(HealWorkers, endsAtTheFirstLaunchThatFails)
{
    startAndLoseAll(3);
    machine.server.connections = {Connection::arrives, Connection::timesOut};
    EXPECT_FALSE(scheduler->healWorkers());
    EXPECT_EQ(scheduler->workerCount(), 1U);
    EXPECT_EQ(machine.logged.size(), 4U) << "three replacements and this one";
    EXPECT_TRUE(scheduler->healWorkers());
    EXPECT_EQ(scheduler->workerCount(), 3U);
}

TEST_F(HealWorkers, doesNothingWhileNotStarted)
{
    EXPECT_FALSE(scheduler->healWorkers());
    start(1);
    scheduler->stopScheduler();
    forgetCalls();
    EXPECT_FALSE(scheduler->healWorkers());
    EXPECT_EQ(machine.calls, Lines{});
}

TEST_F(HealWorkers, doesNothingAfterAStartThatFailed)
{
    machine.server.connections = {Connection::timesOut};
    ASSERT_FALSE(scheduler->startScheduler(1, connectionTimeout));
    forgetCalls();
    EXPECT_FALSE(scheduler->healWorkers());
    EXPECT_EQ(machine.calls, Lines{});
}

TEST_F(HealWorkers, isWholeWithoutWorkersWhenNoneWereStarted)
{
    start(0);
    EXPECT_TRUE(scheduler->healWorkers());
    EXPECT_TRUE(machine.processes.empty());
}

TEST_F(HealWorkers, countsTheWorkersThatAFailedStartHasLeft)
{
    machine.server.connections = {Connection::arrives, Connection::timesOut};
    ASSERT_FALSE(scheduler->startScheduler(2, connectionTimeout));
    start(2);
    ASSERT_EQ(scheduler->workerCount(), 3U);
    die(0);
    machine.server.connections = {Connection::timesOut};
    scheduler->processScheduler(0);
    forgetCalls();
    EXPECT_TRUE(scheduler->healWorkers());
    EXPECT_EQ(machine.calls, Lines{});
}

// An exception of the wait stands for what unwinds the stack of a cancelled thread.
TEST_F(HealWorkers, makesTheReplacementThatACancelledPumpOwes)
{
    start(2);
    die(0);
    machine.onSelect = []() -> int { throw std::runtime_error("unwinds"); };
    EXPECT_THROW(scheduler->processScheduler(1000), std::runtime_error);
    machine.onSelect = nullptr;
    EXPECT_TRUE(scheduler->healWorkers());
    scheduler->processScheduler(0);
    EXPECT_EQ(machine.processes.size(), 3U) << "two at the start and one replacement";
}

TEST_F(HealWorkers, doesNothingInsideALogger)
{
    start(1);
    die(0);
    machine.server.connections = {Connection::timesOut};
    bool isWhole = true;
    logger.onWrite = [&] { isWhole = scheduler->healWorkers(); };
    scheduler->processScheduler(0);
    EXPECT_FALSE(isWhole);
    EXPECT_EQ(machine.processes.size(), 2U);
}

TEST_F(HealWorkers, doesNothingInAForkedChild)
{
    startAndLoseAll(1);
    machine.isForkedChild = true;
    EXPECT_FALSE(scheduler->healWorkers());
    EXPECT_EQ(machine.calls, Lines{});
}

TEST_F(HealWorkers, tellsTheObserverOfEachLaunch)
{
    common::KeepingObserver observer;
    ASSERT_TRUE(scheduler->setObserver(&observer));
    startAndLoseAll(2);
    observer.mTold.clear();
    EXPECT_TRUE(scheduler->healWorkers());
    EXPECT_EQ(observer.of(nq::nqSchedulerEvent::Kind::WorkerLaunched).size(), 2U);
    scheduler.reset();
}

} // namespace
