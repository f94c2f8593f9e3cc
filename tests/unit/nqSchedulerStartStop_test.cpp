#include "tests/unit/schedulerFixture.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <stdexcept>

namespace {

using nq::nqProcess;
using nq::nqScheduler;
using scripted::Connection;
using support::bytes;
using support::Entry;
using support::Failure;
using support::Lines;

using support::operator+; // NOLINT(misc-unused-using-decls): the check overlooks operators

class SchedulerStart : public support::SchedulerFixture {
protected:
    bool startsOn(int idealThreadCount, unsigned long nbWorkers)
    {
        machine.idealThreadCount = idealThreadCount;
        nqScheduler fresh("/opt/w/worker", true, {}, true);
        return fresh.startScheduler(nbWorkers, connectionTimeout);
    }

    Lines launches() const
    {
        Lines lines;
        std::copy_if(
            machine.calls.begin(),
            machine.calls.end(),
            std::back_inserter(lines),
            [](const std::string& line) {
                return line.find(": startProcess(") != std::string::npos;
            });
        return lines;
    }
};

TEST_F(SchedulerStart, listensUnderItsUuidAndLaunchesTheWorkersOneAfterTheOther)
{
    forgetCalls();
    EXPECT_TRUE(scheduler->startScheduler(2, 5000));
    EXPECT_EQ(
        machine.calls,
        (Lines{
            "server: listenUtf8(uuid-1)",
            "process 4242: created",
            "process 4242: setWorkingDirectory(/opt/w)",
            "process 4242: startProcess(/opt/w/worker, [uuid-1])",
            "server: waitForNewConnection(5000, null)",
            "server: takePendingConnection() gives pipe 1",
            "process 4243: created",
            "process 4243: setWorkingDirectory(/opt/w)",
            "process 4243: startProcess(/opt/w/worker, [uuid-1])",
            "server: waitForNewConnection(5000, null)",
            "server: takePendingConnection() gives pipe 2"}));
    EXPECT_TRUE(machine.logged.empty());
}

TEST_F(SchedulerStart, refusesTooManyWorkersOnlyOnceItListens)
{
    machine.server.listens = false;
    EXPECT_FALSE(scheduler->startScheduler(17, 0));
    machine.server.listens = true;
    EXPECT_FALSE(scheduler->startScheduler(17, 0));
    EXPECT_EQ(
        machine.messages(),
        (Lines{
            "Fail to startScheduler - cannot listen",
            "Too many workers (17), limit to ideal thread count"}));
}

TEST_F(SchedulerStart, passesTheConnectionTimeoutOnUnchanged)
{
    for (const int timeout : {0, -1, 2147483647}) {
        nqScheduler fresh("/opt/w/worker", true, {}, true);
        EXPECT_TRUE(fresh.startScheduler(1, timeout));
        EXPECT_EQ(
            machine.count("server: waitForNewConnection(" + std::to_string(timeout) + ", null)"),
            1);
    }
}

TEST_F(SchedulerStart, refusesToStartTwice)
{
    start(1);
    EXPECT_FALSE(scheduler->startScheduler(2, 777));
    EXPECT_EQ(
        support::entries(machine),
        (std::vector<Entry>{{2, true, "Cannot startScheduler - already started"}}));
    EXPECT_EQ(
        machine.calls,
        (Lines{"entry: computeLogPrefix(true)", "log: Cannot startScheduler - already started"}));
}

TEST_F(SchedulerStart, keepsTheConnectionTimeoutWhenItRefusesToStartTwice)
{
    start(1);
    scheduler->startScheduler(1, 777);
    die(0);
    scheduler->processScheduler(0);
    EXPECT_EQ(machine.count("server: waitForNewConnection(777, null)"), 0);
    EXPECT_EQ(machine.count("server: waitForNewConnection(5000, null)"), 1);
}

TEST_F(SchedulerStart, reportsThatItCannotListen)
{
    machine.server.listens = false;
    forgetCalls();
    EXPECT_FALSE(scheduler->startScheduler(1, 5000));
    EXPECT_EQ(
        support::entries(machine),
        (std::vector<Entry>{{3, true, "Fail to startScheduler - cannot listen"}}));
    EXPECT_EQ(
        machine.calls,
        (Lines{
            "server: listenUtf8(uuid-1)",
            "entry: computeLogPrefix(true)",
            "log: Fail to startScheduler - cannot listen"}));
    EXPECT_FALSE(scheduler->stopScheduler());
}

TEST_F(SchedulerStart, acceptsFourWorkersAndRefusesFiveOnOneThread)
{
    EXPECT_TRUE(startsOn(1, 4));
    EXPECT_TRUE(machine.logged.empty());
    EXPECT_FALSE(startsOn(1, 5));
    EXPECT_EQ(
        support::entries(machine),
        (std::vector<Entry>{{2, true, "Too many workers (5), limit to ideal thread count"}}));
}

TEST_F(SchedulerStart, acceptsSixteenWorkersAndRefusesSeventeenOnEightThreads)
{
    EXPECT_TRUE(startsOn(8, 16));
    EXPECT_FALSE(startsOn(8, 17));
    EXPECT_EQ(machine.messages(), Lines{"Too many workers (17), limit to ideal thread count"});
}

TEST_F(SchedulerStart, allowsTwiceTheThreadsButAtLeastFour)
{
    EXPECT_TRUE(startsOn(2, 4));
    EXPECT_FALSE(startsOn(2, 5));
    EXPECT_TRUE(startsOn(3, 6));
    EXPECT_FALSE(startsOn(3, 7));
    EXPECT_TRUE(startsOn(0, 4));
    EXPECT_FALSE(startsOn(0, 5));
    EXPECT_TRUE(startsOn(-8, 4));
    EXPECT_FALSE(startsOn(-8, 5));
}

TEST_F(SchedulerStart, writesTheRefusedCountPlainlyInAHostThatGroupsDigits)
{
    const support::GroupingGlobalLocale locale;
    EXPECT_FALSE(scheduler->startScheduler(1234567, 5000));
    EXPECT_FALSE(scheduler->startScheduler(18446744073709551615UL, 5000));
    EXPECT_EQ(
        machine.messages(),
        (Lines{
            "Too many workers (1234567), limit to ideal thread count",
            "Too many workers (18446744073709551615), limit to ideal thread count"}));
}

TEST_F(SchedulerStart, staysListeningButNotStartedWhenItRefusesTooManyWorkersOnPurpose)
{
    forgetCalls();
    EXPECT_FALSE(scheduler->startScheduler(17, 5000));
    EXPECT_EQ(
        machine.calls,
        (Lines{
            "server: listenUtf8(uuid-1)",
            "entry: computeLogPrefix(true)",
            "log: Too many workers (17), limit to ideal thread count"}));
    forgetCalls();
    scheduler->processScheduler(1000);
    scheduler->waitForFinished();
    EXPECT_FALSE(scheduler->stopScheduler());
    EXPECT_EQ(machine.calls, Lines{});
}

TEST_F(SchedulerStart, listensAgainAfterARefusalWithoutClosingFirst)
{
    scheduler->startScheduler(17, 5000);
    forgetCalls();
    EXPECT_TRUE(scheduler->startScheduler(0, 5000));
    EXPECT_EQ(machine.calls, Lines{"server: listenUtf8(uuid-1)"});
}

TEST_F(SchedulerStart, succeedsWithNoWorkerAtAllAndThenLeavesJobsPending)
{
    EXPECT_TRUE(scheduler->startScheduler(0, 5000));
    scheduler->push(bytes("job"));
    scheduler->processScheduler(1000);
    EXPECT_TRUE(machine.processes.empty());
    EXPECT_EQ(scheduler->jobCount(), 1U);
    scheduler->clearPendingJobs();
}

TEST_F(SchedulerStart, makesEveryLaunchThoughOneOfThreeFails)
{
    machine.server.connections = {Connection::arrives, Connection::timesOut, Connection::arrives};
    EXPECT_FALSE(scheduler->startScheduler(3, 5000));
    EXPECT_EQ(launches().size(), 3U);
    EXPECT_EQ(machine.logged.size(), 1U);
    EXPECT_FALSE(process(0).isDestroyed);
    EXPECT_TRUE(process(1).isDestroyed);
    EXPECT_FALSE(process(2).isDestroyed);
}

TEST_F(SchedulerStart, makesEveryLaunchThoughTheFirstFails)
{
    machine.server.connections = {Connection::timesOut};
    EXPECT_FALSE(scheduler->startScheduler(3, 5000));
    EXPECT_EQ(launches().size(), 3U);
}

TEST_F(SchedulerStart, ignoresTheWorkersOfAFailedStartUntilItIsDestroyedOnPurpose)
{
    machine.server.connections = {Connection::arrives, Connection::timesOut, Connection::arrives};
    scheduler->startScheduler(3, 5000);
    scheduler->push(bytes("job"));
    forgetCalls();

    scheduler->processScheduler(1000);
    scheduler->waitForFinished();
    EXPECT_FALSE(scheduler->stopScheduler());
    EXPECT_EQ(machine.calls, Lines{});

    scheduler.reset();
    EXPECT_EQ(
        machine.calls,
        (Lines{
            "pipe 1: closeNamedPipe()",
            "pipe 1: destroyed",
            "process 4242: waitForFinished(4294967295)",
            "process 4242: destroyed",
            "pipe 2: closeNamedPipe()",
            "pipe 2: destroyed",
            "process 4244: waitForFinished(4294967295)",
            "process 4244: destroyed",
            "server: destroyed"}));
}

TEST_F(SchedulerStart, launchesFurtherWorkersBesideThoseOfAFailedStartOnPurpose)
{
    machine.server.connections = {Connection::arrives, Connection::timesOut};
    scheduler->startScheduler(2, 5000);
    forgetCalls();

    EXPECT_TRUE(scheduler->startScheduler(2, 5000));
    EXPECT_EQ(machine.count("server: listenUtf8(uuid-1)"), 1);
    EXPECT_EQ(launches().size(), 2U);

    forgetCalls();
    scheduler->processScheduler(0);
    EXPECT_EQ(
        machine.calls,
        (Lines{
            "server: processPipeServerEvents(0)",
            "pipe 1: processNamedPipeEvents(0, false)",
            "pipe 2: processNamedPipeEvents(0, false)",
            "pipe 3: processNamedPipeEvents(0, false)"}));
}

using SchedulerStop = SchedulerStart;

TEST_F(SchedulerStop, doesNothingWhenNeverStarted)
{
    scheduler->push(bytes("job"));
    forgetCalls();
    EXPECT_FALSE(scheduler->stopScheduler());
    EXPECT_EQ(machine.calls, Lines{});
    EXPECT_EQ(scheduler->jobCount(), 1U);
}

TEST_F(SchedulerStop, endsTheWorkersOneAfterTheOtherInListOrder)
{
    start(2);
    EXPECT_TRUE(scheduler->stopScheduler());
    EXPECT_EQ(
        machine.calls,
        (Lines{
            "server: closeNamedPipeServer()",
            "pipe 1: closeNamedPipe()",
            "pipe 1: destroyed",
            "process 4242: waitForFinished(30000)",
            "process 4242: waitForFinished(4294967295)",
            "process 4242: destroyed",
            "pipe 2: closeNamedPipe()",
            "pipe 2: destroyed",
            "process 4243: waitForFinished(30000)",
            "process 4243: waitForFinished(4294967295)",
            "process 4243: destroyed"}));
    EXPECT_TRUE(machine.logged.empty());
}

TEST_F(SchedulerStop, killsAWorkerThatIsStillAliveAfterThirtySeconds)
{
    start(1);
    process(0).endsWhenWaitedFor = false;
    EXPECT_TRUE(scheduler->stopScheduler());
    EXPECT_EQ(
        machine.calls,
        (Lines{
            "server: closeNamedPipeServer()",
            "pipe 1: closeNamedPipe()",
            "pipe 1: destroyed",
            "process 4242: waitForFinished(30000)",
            "process 4242: killProcess()",
            "process 4242: waitForFinished(0)",
            "process 4242: waitForFinished(4294967295)",
            "process 4242: destroyed"}));
}

TEST_F(SchedulerStop, doesNotWaitForAWorkerWhoseProcessHasEnded)
{
    start(1);
    process(0).state = nqProcess::Ended;
    EXPECT_TRUE(scheduler->stopScheduler());
    EXPECT_EQ(
        machine.calls,
        (Lines{
            "server: closeNamedPipeServer()",
            "pipe 1: closeNamedPipe()",
            "pipe 1: destroyed",
            "process 4242: waitForFinished(4294967295)",
            "process 4242: destroyed"}));
}

TEST_F(SchedulerStop, leavesTheFinalWaitToTheRecordWhenTheKillIsIgnored)
{
    start(1);
    process(0).endsWhenWaitedFor = false;
    process(0).endsWhenKilled = false;
    EXPECT_TRUE(scheduler->stopScheduler());
    EXPECT_EQ(machine.count("process 4242: killProcess()"), 1);
    EXPECT_EQ(machine.count("process 4242: waitForFinished(0)"), 1);
    EXPECT_EQ(machine.count("process 4242: waitForFinished(4294967295)"), 1);
}

TEST_F(SchedulerStop, isRefusedASecondTime)
{
    start(1);
    EXPECT_TRUE(scheduler->stopScheduler());
    forgetCalls();
    EXPECT_FALSE(scheduler->stopScheduler());
    EXPECT_EQ(machine.calls, Lines{});
}

TEST_F(SchedulerStop, processesEveryPendingJobBeforeItClosesAnything)
{
    start(1);
    scheduler->push(bytes("a"));
    scheduler->push(bytes("b"));
    Lines callsBeforeTheLastResult;
    pipe(0).onEvents = [&](scripted::Pipe& pipe) {
        if (pipe.passedOn.size() == 5)
            pipe.incoming = support::frame("A");
        if (pipe.passedOn.size() == 10) {
            pipe.incoming = support::frame("B");
            callsBeforeTheLastResult = machine.calls;
        }
    };
    EXPECT_TRUE(scheduler->stopScheduler());
    EXPECT_FALSE(callsBeforeTheLastResult.empty());
    for (const std::string& call : callsBeforeTheLastResult)
        EXPECT_EQ(call.find(": close"), std::string::npos) << call;
    EXPECT_EQ(pipe(0).passedOn, support::frame("a") + support::frame("b"));
    EXPECT_EQ(scheduler->resultCount(), 2U);
    EXPECT_EQ(scheduler->jobCount(), 0U);
    EXPECT_EQ(results(), (Lines{"A", "B"}));
}

TEST_F(SchedulerStop, keepsResultsAndFailuresForTheHost)
{
    start(2);
    scheduler->push(bytes("a"));
    scheduler->push(bytes("b"));
    scheduler->processScheduler(0);
    answer(0, "A");
    die(1);
    EXPECT_TRUE(scheduler->stopScheduler());
    EXPECT_EQ(scheduler->resultCount(), 1U);
    EXPECT_EQ(scheduler->failCount(), 1U);
    EXPECT_EQ(scheduler->jobCount(), 0U);
    EXPECT_EQ(results(), Lines{"A"});
    EXPECT_EQ(
        support::failures(*scheduler),
        (std::vector<Failure>{{"b", nqScheduler::UnexpectedCrash, "Unexpected crash"}}));
}

TEST_F(SchedulerStop, allowsAnotherStartUnderTheSameName)
{
    start(1);
    scheduler->stopScheduler();
    scheduler->push(bytes("kept for the next start"));
    scheduler->processScheduler(0);
    forgetCalls();
    EXPECT_TRUE(scheduler->startScheduler(1, 5000));
    EXPECT_EQ(machine.calls.front(), "server: listenUtf8(uuid-1)");
    EXPECT_EQ(scheduler->jobCount(), 1U);
    scheduler->processScheduler(0);
    scheduler->processScheduler(0);
    EXPECT_EQ(pipe(1).passedOn, support::frame("kept for the next start"));
    answer(1, "result");
}

using SchedulerWait = SchedulerStart;

TEST_F(SchedulerWait, returnsAtOnceWhenNotStartedEvenWithJobsPending)
{
    scheduler->push(bytes("job"));
    forgetCalls();
    scheduler->waitForFinished();
    EXPECT_EQ(machine.calls, Lines{});
    EXPECT_EQ(scheduler->jobCount(), 1U);
}

TEST_F(SchedulerWait, returnsAtOnceWhenNothingIsToBeDone)
{
    start(1);
    scheduler->waitForFinished();
    EXPECT_EQ(machine.calls, Lines{});
}

TEST_F(SchedulerWait, pumpsInStepsOfTenMilliseconds)
{
    start(1);
    scheduler->push(bytes("job"));
    machine.onSelect = [this] {
        if (machine.selects.size() == 3)
            answer(0, "result");
        return 0;
    };
    scheduler->waitForFinished();
    ASSERT_EQ(machine.selects.size(), 3U);
    for (const scripted::Select& select : machine.selects) {
        EXPECT_EQ(select.seconds, 0);
        EXPECT_EQ(select.microseconds, 10000);
    }
}

TEST_F(SchedulerWait, consumesNeitherResultsNorFailures)
{
    start(2);
    scheduler->push(bytes("a"));
    scheduler->push(bytes("b"));
    scheduler->processScheduler(0);
    answer(0, "A");
    die(1);
    scheduler->waitForFinished();
    EXPECT_EQ(scheduler->resultCount(), 1U);
    EXPECT_EQ(scheduler->failCount(), 1U);
}

TEST_F(SchedulerWait, doesNotSleepFromTheFirstUnpoppedResultOnOnPurpose)
{
    start(2);
    scheduler->push(bytes("a"));
    scheduler->push(bytes("b"));
    scheduler->processScheduler(0);
    answer(0, "A");
    for (int i = 0; i < 50; ++i)
        pipe(1).arrivals.emplace_back();
    answer(1, "B");
    scheduler->waitForFinished();
    EXPECT_EQ(scheduler->resultCount(), 2U);
    EXPECT_TRUE(machine.selects.empty());
}

TEST_F(SchedulerWait, returnsAtOnceWhenItIsCalledFromWithinItself)
{
    start(1);
    scheduler->push(bytes("job"));
    scheduler->processScheduler(0);
    die(0);
    bool wasCalled = false;
    logger.onWrite = [&] {
        const auto callsBefore = machine.calls.size();
        EXPECT_EQ(scheduler->jobCount(), 1U);
        scheduler->waitForFinished();
        EXPECT_EQ(machine.calls.size(), callsBefore);
        wasCalled = true;
    };
    scheduler->waitForFinished();
    EXPECT_TRUE(wasCalled);
}

TEST_F(SchedulerWait, worksAgainAfterAnExceptionHasLeftIt)
{
    start(1);
    scheduler->push(bytes("job"));
    pipe(0).onEvents = [](scripted::Pipe&) { throw std::runtime_error("no memory"); };
    EXPECT_THROW(scheduler->waitForFinished(), std::runtime_error);

    pipe(0).onEvents = nullptr;
    pipe(0).arrivals = {{}, support::frame("result")};
    scheduler->waitForFinished();
    EXPECT_EQ(scheduler->jobCount(), 0U);
    EXPECT_EQ(results(), Lines{"result"});
}

TEST_F(SchedulerWait, canWaitTwice)
{
    start(1);
    for (const char* job : {"a", "b"}) {
        scheduler->push(bytes(job));
        pipe(0).arrivals = {{}, support::frame("result")};
        scheduler->waitForFinished();
    }
    EXPECT_EQ(results(), (Lines{"result", "result"}));
}

TEST_F(SchedulerWait, leavesJobsPendingWhenNoWorkerIsLeftToTakeThemOnPurpose)
{
    start(1);
    die(0);
    machine.server.connections = {Connection::timesOut};
    scheduler->processScheduler(0);
    scheduler->push(bytes("job"));
    for (int i = 0; i < 10; ++i)
        scheduler->processScheduler(10);
    EXPECT_EQ(scheduler->jobCount(), 1U);
    EXPECT_EQ(machine.processes.size(), 2U);
}

using SchedulerWaitDeathTest = SchedulerStart;

// In a process of its own, since a scheduler that holds such a job cannot be destroyed either.
TEST_F(SchedulerWaitDeathTest, neverEndsOnAnEmptyJobWhichIsCountedForEverOnPurpose)
{
    constexpr int asIntended = 42;
    start(1);
    machine.onSelect = [this] {
        if (machine.selects.size() < 1000)
            return 0;
        const bool onlyCounted = scheduler->jobCount() == 1 && scheduler->resultCount() == 0 &&
                                 scheduler->failCount() == 0 && pipe(0).passedOn.empty();
        std::_Exit(onlyCounted ? asIntended : 1);
    };
    EXPECT_EXIT(
        {
            scheduler->push({});
            scheduler->waitForFinished();
        },
        testing::ExitedWithCode(asIntended),
        "");
}

using SchedulerDestruction = SchedulerStart;

TEST_F(SchedulerDestruction, processesEveryPendingJobOfAStartedScheduler)
{
    start(1);
    scheduler->push(bytes("job"));
    pipe(0).arrivals = {{}, support::frame("result")};
    scheduler.reset();
    EXPECT_EQ(pipe(0).passedOn, support::frame("job"));
    EXPECT_TRUE(process(0).isDestroyed);
    EXPECT_EQ(machine.calls.back(), "server: destroyed");
}

TEST_F(SchedulerDestruction, dropsTheQueuesOfASchedulerThatWasNeverStarted)
{
    scheduler->push(bytes("job"));
    forgetCalls();
    scheduler.reset();
    EXPECT_EQ(machine.calls, Lines{"server: destroyed"});
}

using SchedulerDestructionDeathTest = SchedulerStart;

TEST_F(SchedulerDestructionDeathTest, endsTheProcessWhenAnExceptionEscapes)
{
    start(1);
    scheduler->push(bytes("job"));
    pipe(0).onEvents = [](scripted::Pipe&) { throw std::runtime_error("no memory"); };
    EXPECT_DEATH(scheduler.reset(), "no memory");
}

} // namespace
