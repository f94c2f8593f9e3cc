#include "tests/unit/schedulerFixture.h"

#include <algorithm>
#include <cerrno>

namespace {

using scripted::Connection;
using scripted::Select;
using support::bytes;
using support::Lines;

class SchedulerPump : public support::SchedulerFixture {
protected:
    /// Starts `count` workers and gives each a job that has left for the worker.
    void startBusy(unsigned long count)
    {
        start(count);
        for (unsigned long i = 0; i < count; ++i)
            scheduler->push(bytes("job"));
        scheduler->processScheduler(0);
        scheduler->processScheduler(0);
        forgetCalls();
    }

    /// Whether a pump call of a second sleeps.
    bool blocks()
    {
        const auto before = machine.selects.size();
        scheduler->processScheduler(1000);
        return machine.selects.size() != before;
    }
};

TEST_F(SchedulerPump, returnsAtOnceWhenNotStarted)
{
    scheduler->push(bytes("job"));
    forgetCalls();
    scheduler->processScheduler(1000);
    EXPECT_EQ(machine.calls, Lines{});
}

TEST_F(SchedulerPump, returnsAtOnceAfterAStop)
{
    start(1);
    scheduler->stopScheduler();
    forgetCalls();
    scheduler->processScheduler(1000);
    EXPECT_EQ(machine.calls, Lines{});
}

TEST_F(SchedulerPump, servesTheServerThenEveryWorkerInListOrderThenSleeps)
{
    startBusy(3);
    scheduler->processScheduler(1000);
    EXPECT_EQ(
        machine.calls,
        (Lines{
            "server: processPipeServerEvents(0)",
            "pipe 1: processNamedPipeEvents(0, false)",
            "pipe 2: processNamedPipeEvents(0, false)",
            "pipe 3: processNamedPipeEvents(0, false)",
            "select()"}));
}

TEST_F(SchedulerPump, waitsOnTheSocketThatAPipeHasAfterItsOwnStep)
{
    startBusy(2);
    pipe(1).onEvents = [](scripted::Pipe& one) { one.socket = 77; };
    ASSERT_TRUE(blocks());
    EXPECT_EQ(machine.selects.back().readSet, (std::vector<int>{10, 77}));
}

TEST_F(SchedulerPump, waitsOnEverySocketForReadingAndExceptionsOnly)
{
    startBusy(2);
    scheduler->processScheduler(2500);
    EXPECT_EQ(machine.selects, (std::vector<Select>{{12, {10, 11}, false, {10, 11}, 2, 500000}}));
}

TEST_F(SchedulerPump, passesTheLargestSocketPlusOneWhereverItStandsInTheList)
{
    machine.planPipe().socket = 500;
    machine.planPipe().socket = 1023;
    machine.planPipe().socket = 3;
    startBusy(3);
    scheduler->processScheduler(1);
    EXPECT_EQ(
        machine.selects,
        (std::vector<Select>{{1024, {3, 500, 1023}, false, {3, 500, 1023}, 0, 1000}}));
}

TEST_F(SchedulerPump, splitsItsTimeIntoSecondsAndMicroseconds)
{
    struct Time {
        int ms;
        long seconds;
        long microseconds;
    };
    startBusy(1);
    for (const Time& time :
         {Time{1, 0, 1000},
          Time{999, 0, 999000},
          Time{1000, 1, 0},
          Time{1001, 1, 1000},
          Time{2147483647, 2147483, 647000}}) {
        scheduler->processScheduler(time.ms);
        EXPECT_EQ(machine.selects.back().seconds, time.seconds);
        EXPECT_EQ(machine.selects.back().microseconds, time.microseconds);
    }
}

TEST_F(SchedulerPump, sleepsWhileEveryWorkerIsBusyThoughJobsArePending)
{
    startBusy(2);
    scheduler->push(bytes("pending"));
    EXPECT_TRUE(blocks());
}

TEST_F(SchedulerPump, sleepsWhileWorkersAreIdleAndNothingIsPending)
{
    start(2);
    EXPECT_TRUE(blocks());
}

TEST_F(SchedulerPump, neverSleepsWithoutATime)
{
    startBusy(1);
    scheduler->processScheduler(0);
    scheduler->processScheduler(-5);
    scheduler->processScheduler(-2147483647 - 1);
    EXPECT_TRUE(machine.selects.empty());
}

TEST_F(SchedulerPump, doesNotSleepWhileAPipeHasBytesToWrite)
{
    start(2);
    pipe(1).passedOnPerCall = 0;
    scheduler->push(bytes("a"));
    scheduler->push(bytes("b"));
    EXPECT_FALSE(blocks());
    EXPECT_FALSE(blocks());
    pipe(1).passedOnPerCall = 100;
    EXPECT_TRUE(blocks());
}

TEST_F(SchedulerPump, doesNotSleepWhileTheFirstPipeAloneHasWrites)
{
    startBusy(2);
    pipe(0).passedOnPerCall = 0;
    pipe(0).outgoing = bytes("x");
    EXPECT_FALSE(blocks());
    pipe(0).passedOnPerCall = 1;
    EXPECT_TRUE(blocks());
}

TEST_F(SchedulerPump, doesNotSleepWhileAResultIsNotPopped)
{
    startBusy(2);
    answer(0, "result");
    EXPECT_FALSE(blocks());
    EXPECT_FALSE(blocks());
    EXPECT_EQ(results(), Lines{"result"});
    EXPECT_TRUE(blocks());
}

TEST_F(SchedulerPump, sleepsWhileAFailureIsNotPopped)
{
    startBusy(2);
    die(0);
    scheduler->processScheduler(0);
    EXPECT_EQ(scheduler->failCount(), 1U);
    EXPECT_TRUE(blocks());
}

TEST_F(SchedulerPump, doesNotSleepWhileAWorkerIsIdleAndAJobIsPending)
{
    startBusy(3);
    answer(1, "result");
    scheduler->processScheduler(0);
    results();
    // The job comes when the idle worker has had its step.
    pipe(2).onEvents = [this](scripted::Pipe& pipe) {
        scheduler->push(bytes("late job"));
        pipe.onEvents = nullptr;
    };
    EXPECT_FALSE(blocks());
    EXPECT_TRUE(pipe(1).outgoing.empty());
    scheduler->processScheduler(1000);
    EXPECT_EQ(pipe(1).outgoing, support::frame("late job"));
}

TEST_F(SchedulerPump, countsAKilledWorkerThatHoldsNoJobAsIdleOnPurpose)
{
    scheduler->setMaxCapMemory(100);
    start(1);
    process(0).ramInUse = 101;
    process(0).endsWhenKilled = false;
    scheduler->push(bytes("job"));
    EXPECT_FALSE(blocks());
    EXPECT_FALSE(blocks());
    scheduler->clearPendingJobs();
    EXPECT_TRUE(blocks());
}

TEST_F(SchedulerPump, doesNotCountAWorkerAsIdleThatHasJustBeenGivenAJob)
{
    start(1);
    pipe(0).isWriteChannelClosed = true; // so that nothing is pending to be written
    scheduler->push(bytes("a"));
    scheduler->push(bytes("b"));
    EXPECT_TRUE(blocks());
}

TEST_F(SchedulerPump, leavesAWorkerWithoutASocketOutOfTheWaitButServesIt)
{
    startBusy(2);
    pipe(0).socket = -1;
    scheduler->processScheduler(1000);
    EXPECT_EQ(machine.count("pipe 1: processNamedPipeEvents(0, false)"), 1);
    EXPECT_EQ(machine.selects, (std::vector<Select>{{12, {11}, false, {11}, 1, 0}}));
}

TEST_F(SchedulerPump, neverSleepsWhenNoWorkerHasASocket)
{
    startBusy(2);
    pipe(0).socket = -1;
    pipe(1).socket = -1;
    EXPECT_FALSE(blocks());
}

TEST_F(SchedulerPump, waitsOnSocketZeroLikeOnAnyOther)
{
    machine.planPipe().socket = 0;
    startBusy(1);
    scheduler->processScheduler(1000);
    EXPECT_EQ(machine.selects, (std::vector<Select>{{1, {0}, false, {0}, 1, 0}}));
}

TEST_F(SchedulerPump, neverSleepsWithoutAnyWorker)
{
    start(0);
    EXPECT_FALSE(blocks());
    EXPECT_EQ(machine.calls, Lines{"server: processPipeServerEvents(0)"});
}

TEST_F(SchedulerPump, doesNotLookAtTheResultOfItsWait)
{
    startBusy(1);
    for (const int result : {-1, 0, 1}) {
        forgetCalls();
        machine.onSelect = [result] {
            errno = EINTR;
            return result;
        };
        scheduler->processScheduler(1000);
        EXPECT_EQ(
            machine.calls,
            (Lines{
                "server: processPipeServerEvents(0)",
                "pipe 1: processNamedPipeEvents(0, false)",
                "select()"}));
    }
}

TEST_F(SchedulerPump, handlesInTheNextCallWhatItsWaitAnnounced)
{
    startBusy(1);
    machine.onSelect = [this] {
        answer(0, "result");
        return 1;
    };
    scheduler->processScheduler(1000);
    EXPECT_EQ(scheduler->resultCount(), 0U);
    scheduler->processScheduler(1000);
    EXPECT_EQ(scheduler->resultCount(), 1U);
}

TEST_F(SchedulerPump, replacesAFinishedWorkerInTheSameCallAfterTheWait)
{
    start(2);
    die(0);
    scheduler->processScheduler(1000);
    EXPECT_EQ(
        machine.calls,
        (Lines{
            "server: processPipeServerEvents(0)",
            "pipe 1: processNamedPipeEvents(0, false)",
            "pipe 1: closeNamedPipe()",
            "pipe 1: destroyed",
            "process 4242: waitForFinished(4294967295)",
            "process 4242: destroyed",
            "pipe 2: processNamedPipeEvents(0, false)",
            "select()",
            "process 4244: created",
            "process 4244: setWorkingDirectory(/opt/w)",
            "process 4244: startProcess(/opt/w/worker, [uuid-1])",
            "server: waitForNewConnection(5000, null)",
            "server: takePendingConnection() gives pipe 3"}));
    EXPECT_EQ(machine.selects, (std::vector<Select>{{12, {11}, false, {11}, 1, 0}}));
}

TEST_F(SchedulerPump, givesAReplacementItsFirstStepInTheNextCallBehindTheOthers)
{
    start(2);
    die(0);
    scheduler->processScheduler(0);
    forgetCalls();
    scheduler->processScheduler(0);
    EXPECT_EQ(
        machine.calls,
        (Lines{
            "server: processPipeServerEvents(0)",
            "pipe 2: processNamedPipeEvents(0, false)",
            "pipe 3: processNamedPipeEvents(0, false)"}));
}

TEST_F(SchedulerPump, replacesTwoFinishedWorkersWithTwoLaunchesBothAfterTheWait)
{
    start(3);
    die(0);
    die(2);
    scheduler->processScheduler(1000);
    const auto wait = std::find(machine.calls.begin(), machine.calls.end(), "select()");
    ASSERT_NE(wait, machine.calls.end());
    EXPECT_EQ(std::count(wait, machine.calls.end(), "process 4245: created"), 1);
    EXPECT_EQ(std::count(wait, machine.calls.end(), "process 4246: created"), 1);
    EXPECT_EQ(machine.processes.size(), 5U);
    EXPECT_TRUE(process(0).isDestroyed);
    EXPECT_FALSE(process(1).isDestroyed);
    EXPECT_TRUE(process(2).isDestroyed);
}

TEST_F(SchedulerPump, doesNotSleepBeforeAReplacementThatCanTakeAPendingJob)
{
    startBusy(2);
    scheduler->push(bytes("pending"));
    die(0);
    EXPECT_FALSE(blocks());
    EXPECT_EQ(machine.processes.size(), 3U);
}

TEST_F(SchedulerPump, neverSleepsWhenItsOnlyWorkerHasFinished)
{
    start(1);
    die(0);
    EXPECT_FALSE(blocks());
}

TEST_F(SchedulerPump, replacesAWorkerThatUsedTooMuchMemoryAfterAJobInTheSameCall)
{
    scheduler->setMaxCapMemoryAfterProcessingAJob(100);
    startBusy(1);
    process(0).ramInUse = 101;
    answer(0, "result");
    scheduler->processScheduler(1000);
    EXPECT_TRUE(process(0).isDestroyed);
    EXPECT_EQ(machine.count("process 4242: killProcess()"), 0);
    EXPECT_EQ(machine.processes.size(), 2U);
    EXPECT_EQ(results(), Lines{"result"});
}

TEST_F(SchedulerPump, doesNotRetryAFailedReplacement)
{
    start(2);
    die(0);
    machine.server.connections = {Connection::timesOut};
    scheduler->processScheduler(0);
    EXPECT_EQ(machine.logged.size(), 1U);
    forgetCalls();
    scheduler->processScheduler(0);
    EXPECT_EQ(
        machine.calls,
        (Lines{"server: processPipeServerEvents(0)", "pipe 2: processNamedPipeEvents(0, false)"}));
}

TEST_F(SchedulerPump, makesTheSecondReplacementThoughTheFirstFails)
{
    start(2);
    die(0);
    die(1);
    machine.server.connections = {Connection::timesOut};
    scheduler->processScheduler(0);
    EXPECT_EQ(machine.processes.size(), 4U);
    EXPECT_TRUE(process(2).isDestroyed);
    EXPECT_FALSE(process(3).isDestroyed);
}

TEST_F(SchedulerPump, handsAJobToTheFirstIdleWorkerAndTheNextToTheSecond)
{
    start(2);
    scheduler->push(bytes("a"));
    scheduler->push(bytes("b"));
    scheduler->push(bytes("c"));
    scheduler->processScheduler(0);
    EXPECT_EQ(pipe(0).outgoing, support::frame("a"));
    EXPECT_EQ(pipe(1).outgoing, support::frame("b"));
    EXPECT_EQ(scheduler->jobCount(), 3U);
}

TEST_F(SchedulerPump, deliversResultsInTheOrderInWhichWorkersFinish)
{
    startBusy(2);
    answer(1, "second worker");
    scheduler->processScheduler(0);
    answer(0, "first worker");
    scheduler->processScheduler(0);
    EXPECT_EQ(results(), (Lines{"second worker", "first worker"}));
}

} // namespace
