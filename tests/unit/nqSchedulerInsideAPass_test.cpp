#include "tests/unit/schedulerFixture.h"

#include <new>

using namespace support;

namespace {

/// A host whose logger calls back into the scheduler.
class InsideAPass : public SchedulerFixture {
protected:
    int linesSeen = 0;

    /// Has every line of the log tried with what starts, stops or pumps.
    void tryEverythingInTheLogger()
    {
        logger.onWrite = [this] {
            ++linesSeen;
            const Lines callsBefore = machine.calls;
            const std::size_t loggedBefore = machine.logged.size();
            EXPECT_FALSE(scheduler->startScheduler(1, connectionTimeout));
            EXPECT_FALSE(scheduler->startWorker());
            EXPECT_FALSE(scheduler->stopScheduler());
            scheduler->processScheduler(1000);
            scheduler->waitForFinished();
            EXPECT_EQ(machine.calls, callsBefore);
            EXPECT_EQ(machine.logged.size(), loggedBefore);
        };
    }

    /// A started pool of `count`, the first of which has died over a job.
    void startWithALostJob(unsigned long count)
    {
        start(count);
        scheduler->push(bytes("job"));
        scheduler->processScheduler(0);
        die(0);
    }
};

TEST_F(InsideAPass, ofThePumpNothingStartsStopsOrPumps)
{
    startWithALostJob(2);
    tryEverythingInTheLogger();
    scheduler->processScheduler(0);
    EXPECT_EQ(linesSeen, 1);
    EXPECT_EQ(machine.processes.size(), 3U) << "one replacement";
}

TEST_F(InsideAPass, ofAReplacementThatFailsNothingStartsStopsOrPumps)
{
    start(1);
    die(0);
    machine.server.connections = {scripted::Connection::timesOut};
    tryEverythingInTheLogger();
    scheduler->processScheduler(0);
    EXPECT_EQ(linesSeen, 1);
    EXPECT_EQ(machine.processes.size(), 2U);
}

TEST_F(InsideAPass, ofARefusedStartNothingStartsStopsOrPumps)
{
    start(1);
    tryEverythingInTheLogger();
    EXPECT_FALSE(scheduler->startScheduler(1, connectionTimeout));
    EXPECT_EQ(linesSeen, 1);
    EXPECT_EQ(machine.processes.size(), 1U);
}

TEST_F(InsideAPass, ofAStartWithAFailedLaunchNothingStartsStopsOrPumps)
{
    machine.server.connections = {scripted::Connection::arrives, scripted::Connection::timesOut};
    tryEverythingInTheLogger();
    EXPECT_FALSE(scheduler->startScheduler(3, connectionTimeout));
    EXPECT_EQ(linesSeen, 1);
    EXPECT_EQ(machine.processes.size(), 3U);
}

TEST_F(InsideAPass, ofASingleLaunchNothingStartsStopsOrPumps)
{
    start(1);
    machine.server.connections = {scripted::Connection::timesOut};
    tryEverythingInTheLogger();
    EXPECT_FALSE(scheduler->startWorker());
    EXPECT_EQ(linesSeen, 1);
}

TEST_F(InsideAPass, ofAWaitNothingStartsStopsOrPumps)
{
    startWithALostJob(1);
    tryEverythingInTheLogger();
    scheduler->waitForFinished();
    EXPECT_EQ(linesSeen, 1);
    EXPECT_EQ(scheduler->jobCount(), 0U);
}

TEST_F(InsideAPass, ofAStopNothingStartsStopsOrPumps)
{
    startWithALostJob(1);
    tryEverythingInTheLogger();
    EXPECT_TRUE(scheduler->stopScheduler()) << "which goes on pumping by itself";
    EXPECT_EQ(linesSeen, 1);
    EXPECT_EQ(scheduler->failCount(), 1U);
}

TEST_F(InsideAPass, isOverWhenAnExceptionHasLeftIt)
{
    start(1);
    pipe(0).onEvents = [](scripted::Pipe&) { throw std::bad_alloc(); };
    EXPECT_THROW(scheduler->processScheduler(0), std::bad_alloc);
    pipe(0).onEvents = nullptr;
    EXPECT_TRUE(scheduler->stopScheduler());
}

TEST_F(InsideAPass, ofAnotherSchedulerEverythingWorks)
{
    startWithALostJob(1);
    const auto other = newScheduler();
    bool isStarted = false;
    bool isStopped = false;
    logger.onWrite = [&] {
        isStarted = other->startScheduler(1, connectionTimeout);
        other->processScheduler(0);
        isStopped = other->stopScheduler();
    };
    scheduler->processScheduler(0);
    EXPECT_TRUE(isStarted);
    EXPECT_TRUE(isStopped);
}

TEST_F(InsideAPass, theQueuesAreOpenWhenAJobFails)
{
    startWithALostJob(1);
    scheduler->push(bytes("dropped"));
    logger.onWrite = [this] {
        EXPECT_FALSE(common::popFailure(*scheduler));
        EXPECT_EQ(scheduler->jobCount(), 2U);
        scheduler->clearPendingJobs();
        scheduler->push(bytes("again"));
    };
    scheduler->processScheduler(0);
    logger.onWrite = nullptr;
    EXPECT_EQ(
        failures(*scheduler),
        std::vector<Failure>({{"job", nq::nqScheduler::UnexpectedCrash, "Unexpected crash"}}));
    answer(1, "result");
    scheduler->processScheduler(0);
    scheduler->processScheduler(0);
    EXPECT_EQ(pipe(1).passedOn, frame("again"));
    EXPECT_EQ(results(), Lines{"result"});
}

TEST_F(InsideAPass, theQueuesAreOpenWhenAWorkerIsRestarted)
{
    ASSERT_TRUE(scheduler->setMaxCapMemoryAfterProcessingAJob(1));
    start(1);
    process(0).ramInUse = 2;
    scheduler->push(bytes("job"));
    scheduler->processScheduler(0);
    answer(0, "result");
    Lines popped;
    logger.onWrite = [&] {
        popped = results();
        scheduler->push(bytes("next"));
    };
    scheduler->processScheduler(0);
    EXPECT_EQ(popped, Lines{"result"});
    EXPECT_EQ(scheduler->jobCount(), 1U);
    EXPECT_EQ(scheduler->resultCount(), 0U);
}

TEST_F(InsideAPass, theQueuesAreOpenWhenALaunchFails)
{
    start(1);
    die(0);
    machine.server.connections = {scripted::Connection::timesOut};
    logger.onWrite = [this] {
        scheduler->push(bytes("job"));
        scheduler->clearPendingJobs();
        scheduler->push(bytes("kept"));
    };
    scheduler->processScheduler(0);
    EXPECT_EQ(scheduler->jobCount(), 1U);
}

using InsideAPassDeathTest = InsideAPass;

TEST_F(InsideAPassDeathTest, theDestructorEndsTheProcessWithAMessage)
{
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    startWithALostJob(1);
    logger.onWrite = [this] { scheduler.reset(); };
    EXPECT_DEATH(
        scheduler->processScheduler(0),
        "nqScheduler: destroyed by a logger inside one of its own operations");
}

} // namespace
