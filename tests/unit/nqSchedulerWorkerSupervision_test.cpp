#include "tests/unit/workerRecordFixture.h"

#include <limits>

namespace {

using namespace std::chrono_literals;

using nq::nqProcess;
using nq::nqScheduler;
using support::bytes;
using support::Failure;
using support::failures;
using support::frame;
using support::Lines;

class WorkerSupervision : public support::WorkerRecordFixture {
protected:
    static constexpr std::uint64_t cap = 100'000;

    /// What the job in flight is handed back as when the killed worker is found dead.
    Failure failureOfTheKilled()
    {
        EXPECT_EQ(kills(), 1);
        die();
        step();
        const auto all = failures(queues);
        return all.size() == 1 ? all.front() : Failure{};
    }
};

TEST_F(WorkerSupervision, movesThePipesBytesBeforeItLooksAtMemoryAndTime)
{
    worker->setMaxCapMemory(cap);
    pipe->onEvents = [this](scripted::Pipe&) { process->ramInUse = cap + 1; };
    step();
    EXPECT_EQ(kills(), 1);
}

TEST_F(WorkerSupervision, looksForTheEndOnceMoreAfterTheLastBytesWereReceived)
{
    dispatch();
    answer("result");
    pipe->endsWhenDrained = true;
    process->state = nqProcess::Ended;
    step();
    EXPECT_EQ(results(), Lines{"result"});
    EXPECT_TRUE(worker->hasFinished());
}

TEST_F(WorkerSupervision, onlyFinishesARecordWithoutAPipe)
{
    worker->closePipe();
    forgetCalls();
    step();
    EXPECT_TRUE(worker->hasFinished());
    EXPECT_EQ(machine.calls, Lines{});
}

TEST_F(WorkerSupervision, doesNothingToARecordThatHasFinished)
{
    die();
    step();
    ASSERT_TRUE(worker->hasFinished());
    forgetCalls();
    step();
    EXPECT_TRUE(worker->hasFinished());
    EXPECT_EQ(machine.calls, Lines{});
}

TEST_F(WorkerSupervision, neverReadsTheMemoryWithoutACap)
{
    process->ramInUse = std::numeric_limits<std::uint64_t>::max();
    step();
    dispatch();
    step();
    EXPECT_EQ(process->ramReads, 0);
    EXPECT_EQ(kills(), 0);
}

TEST_F(WorkerSupervision, neverKillsForItsAgeWithoutATimeout)
{
    dispatch();
    stepAfter(1000h);
    EXPECT_EQ(kills(), 0);
}

TEST_F(WorkerSupervision, readsTheMemoryAtEveryStepWithACapIdleOrNot)
{
    worker->setMaxCapMemory(cap);
    step();
    EXPECT_EQ(process->ramReads, 1);
    dispatch();
    EXPECT_EQ(process->ramReads, 2);
    step();
    EXPECT_EQ(process->ramReads, 3);
}

TEST_F(WorkerSupervision, allowsMemoryThatEqualsTheCap)
{
    worker->setMaxCapMemory(cap);
    process->ramInUse = cap;
    dispatch();
    step();
    EXPECT_EQ(kills(), 0);
}

TEST_F(WorkerSupervision, killsAWorkerThatIsOneByteAboveTheCap)
{
    worker->setMaxCapMemory(cap);
    dispatch();
    process->ramInUse = cap + 1;
    step();
    EXPECT_EQ(kills(), 1);
    EXPECT_EQ(queues.failCount(), 0U);
    EXPECT_FALSE(worker->hasFinished());
    EXPECT_EQ(
        failureOfTheKilled(),
        (Failure{"job", nqScheduler::TooMuchRam, "using too much RAM (97.7kB)"}));
    EXPECT_TRUE(worker->hasFinished());
}

TEST_F(WorkerSupervision, reportsTooMuchMemoryWithItsReasonAndFigure)
{
    worker->setMaxCapMemory(cap);
    dispatch();
    process->ramInUse = 1610612736;
    step();
    EXPECT_TRUE(machine.logged.empty());
    EXPECT_EQ(failureOfTheKilled().message, "using too much RAM (1.5GB)");
    EXPECT_EQ(
        machine.messages(), Lines{"Job failed error (2) using too much RAM (1.5GB) (PID 4242)"});
}

TEST_F(WorkerSupervision, writesTheFigureOfTheMemoryWithThreeDigits)
{
    worker->setMaxCapMemory(cap);
    dispatch();
    process->ramInUse = 123 * 1048576 + 471859; // 123.45 times 2^20
    step();
    EXPECT_EQ(failureOfTheKilled().message, "using too much RAM (123MB)");
}

TEST_F(WorkerSupervision, writesTheFigureOfTheMemoryWithOneDecimalAtMost)
{
    worker->setMaxCapMemory(cap);
    dispatch();
    process->ramInUse = 1048576 + 492831; // 1.47 times 2^20
    step();
    EXPECT_EQ(failureOfTheKilled().message, "using too much RAM (1.5MB)");
}

TEST_F(WorkerSupervision, killsAnIdleWorkerAboveTheCapWithoutAFailureOrALogEntry)
{
    worker->setMaxCapMemory(cap);
    process->ramInUse = cap + 1;
    step();
    EXPECT_EQ(kills(), 1);
    die();
    step();
    EXPECT_TRUE(worker->hasFinished());
    EXPECT_EQ(queues.failCount(), 0U);
    EXPECT_TRUE(machine.logged.empty());
}

TEST_F(WorkerSupervision, killsAtMostOnce)
{
    worker->setMaxCapMemory(cap);
    worker->setJobProcessTimeout(10);
    process->endsWhenKilled = false;
    dispatch();
    process->ramInUse = cap + 1;
    step();
    step();
    stepAfter(1h);
    step();
    EXPECT_EQ(kills(), 1);
}

TEST_F(WorkerSupervision, looksNoFurtherInTheStepOfTheKillNorWaitsForTheDeath)
{
    worker->setMaxCapMemory(cap);
    dispatch();
    forgetCalls();
    process->ramInUse = cap + 1;
    answer("result");
    step();
    EXPECT_EQ(
        machine.calls,
        (Lines{"pipe 1: processNamedPipeEvents(0, false)", "process 4242: killProcess()"}));
    EXPECT_EQ(queues.resultCount(), 0U);
}

TEST_F(WorkerSupervision, goesOnReadingTheMemoryAfterTheKillWithoutAnotherOne)
{
    worker->setMaxCapMemory(cap);
    worker->setJobProcessTimeout(10);
    process->endsWhenKilled = false;
    dispatch();
    process->ramInUse = cap + 1;
    step();
    ASSERT_EQ(kills(), 1);
    const int readsBefore = process->ramReads;
    stepAfter(1h);
    EXPECT_EQ(process->ramReads, readsBefore + 1);
    EXPECT_EQ(kills(), 1);
}

TEST_F(WorkerSupervision, killsAnIdleWorkerForItsMemoryThoughItHasATimeout)
{
    worker->setMaxCapMemory(cap);
    worker->setJobProcessTimeout(10);
    process->ramInUse = cap + 1;
    step();
    EXPECT_EQ(kills(), 1);
}

TEST_F(WorkerSupervision, deliversTheResultOfAKilledWorkerThatWasReceivedBeforeItsEnd)
{
    worker->setMaxCapMemory(cap);
    dispatch();
    process->ramInUse = cap + 1;
    answer("just in time");
    pipe->endsWhenDrained = true;
    step();
    EXPECT_EQ(queues.resultCount(), 0U);
    step();
    EXPECT_EQ(results(), Lines{"just in time"});
    EXPECT_EQ(queues.failCount(), 0U);
    EXPECT_TRUE(worker->hasFinished());
}

TEST_F(WorkerSupervision, letsAJobLiveAt10Point9SecondsWithATimeoutOfTen)
{
    worker->setJobProcessTimeout(10);
    dispatch();
    stepAfter(10s);
    stepAfter(900ms);
    EXPECT_EQ(kills(), 0);
    stepAfter(99'999'999ns);
    EXPECT_EQ(kills(), 0);
}

TEST_F(WorkerSupervision, killsAJobFrom11SecondsOnWithATimeoutOfTen)
{
    worker->setJobProcessTimeout(10);
    dispatch();
    stepAfter(11s);
    EXPECT_EQ(
        failureOfTheKilled(),
        (Failure{"job", nqScheduler::Timeout, "killing scheduler worker : timeout (11s)"}));
    EXPECT_EQ(
        machine.messages(),
        Lines{"Job failed error (3) killing scheduler worker : timeout (11s) (PID 4242)"});
}

TEST_F(WorkerSupervision, countsWithATimeoutOfOneSecondToo)
{
    worker->setJobProcessTimeout(1);
    dispatch();
    stepAfter(1999ms);
    EXPECT_EQ(kills(), 0);
    stepAfter(1ms);
    EXPECT_EQ(kills(), 1);
}

TEST_F(WorkerSupervision, writesTheElapsedTimeAsWholeSecondsInMinutesAndSeconds)
{
    worker->setJobProcessTimeout(120);
    dispatch();
    stepAfter(125s + 900ms);
    EXPECT_EQ(failureOfTheKilled().message, "killing scheduler worker : timeout (2m 5s)");
}

TEST_F(WorkerSupervision, writesTheElapsedTimeWithoutSecondsFromAnHourOn)
{
    worker->setJobProcessTimeout(1);
    dispatch();
    stepAfter(1h + 2min + 3s);
    EXPECT_EQ(failureOfTheKilled().message, "killing scheduler worker : timeout (1h 2m)");
}

TEST_F(WorkerSupervision, countsTheTimeFromTheDispatchOfEachJob)
{
    worker->setJobProcessTimeout(10);
    stepAfter(1h);
    dispatch("a");
    stepAfter(9s);
    answer("A");
    step();
    stepAfter(9s);
    dispatch("b");
    stepAfter(10s);
    EXPECT_EQ(kills(), 0);
    stepAfter(1s);
    EXPECT_EQ(kills(), 1);
}

TEST_F(WorkerSupervision, countsOnWhileAJobIsStillBeingSent)
{
    worker->setJobProcessTimeout(10);
    pipe->passedOnPerCall = 0;
    dispatch();
    stepAfter(11s);
    EXPECT_EQ(kills(), 1);
}

TEST_F(WorkerSupervision, neverTimesAnIdleWorkerOut)
{
    worker->setJobProcessTimeout(10);
    stepAfter(1h);
    dispatch();
    answer("result");
    step();
    stepAfter(1h);
    EXPECT_EQ(kills(), 0);
    EXPECT_FALSE(worker->hasFinished());
}

TEST_F(WorkerSupervision, killsAJobWhoseResultArrivesOnlyWithTheTimeout)
{
    worker->setJobProcessTimeout(10);
    dispatch();
    answer("too late");
    stepAfter(11s);
    EXPECT_EQ(kills(), 1);
    EXPECT_EQ(queues.resultCount(), 0U);
}

TEST_F(WorkerSupervision, servesTheLargestTimeout)
{
    worker->setJobProcessTimeout(std::numeric_limits<std::uint64_t>::max());
    dispatch();
    stepAfter(1000h);
    EXPECT_EQ(kills(), 0);
}

TEST_F(WorkerSupervision, reportsTheTimeoutWhenMemoryAndTimeAreBothExceeded)
{
    worker->setMaxCapMemory(cap);
    worker->setJobProcessTimeout(10);
    dispatch();
    process->ramInUse = cap + 1;
    stepAfter(11s);
    EXPECT_EQ(
        failureOfTheKilled(),
        (Failure{"job", nqScheduler::Timeout, "killing scheduler worker : timeout (11s)"}));
}

TEST_F(WorkerSupervision, reportsTheMemoryWhenTheTimeoutIsNotYetExceeded)
{
    worker->setMaxCapMemory(cap);
    worker->setJobProcessTimeout(10);
    dispatch();
    process->ramInUse = cap + 1;
    stepAfter(10s + 999ms);
    EXPECT_EQ(failureOfTheKilled().reason, nqScheduler::TooMuchRam);
}

TEST_F(WorkerSupervision, keepsTheMemoryReasonWhenTheTimeoutPassesAfterTheKill)
{
    worker->setMaxCapMemory(cap);
    worker->setJobProcessTimeout(10);
    process->endsWhenKilled = false;
    dispatch();
    process->ramInUse = cap + 1;
    step();
    stepAfter(1h);
    EXPECT_EQ(
        failureOfTheKilled(),
        (Failure{"job", nqScheduler::TooMuchRam, "using too much RAM (97.7kB)"}));
}

TEST_F(WorkerSupervision, keepsTheTimeoutReasonWhenTheMemoryGrowsAfterTheKill)
{
    worker->setMaxCapMemory(cap);
    worker->setJobProcessTimeout(10);
    process->endsWhenKilled = false;
    dispatch();
    stepAfter(11s);
    process->ramInUse = cap + 1;
    stepAfter(10s);
    EXPECT_EQ(
        failureOfTheKilled(),
        (Failure{"job", nqScheduler::Timeout, "killing scheduler worker : timeout (11s)"}));
}

TEST_F(WorkerSupervision, goesOnReceivingFromAWorkerThatSurvivesItsKill)
{
    worker->setJobProcessTimeout(10);
    process->endsWhenKilled = false;
    dispatch();
    stepAfter(11s);
    answer("after all");
    step();
    EXPECT_EQ(results(), Lines{"after all"});
    EXPECT_FALSE(worker->hasFinished());
}

TEST_F(WorkerSupervision, keepsAWorkerWhoseProcessHasEndedWhileItsReadChannelIsOpen)
{
    dispatch();
    process->state = nqProcess::Ended;
    step();
    EXPECT_FALSE(worker->hasFinished());
    EXPECT_FALSE(worker->isReadyForJob());
}

TEST_F(WorkerSupervision, losesAWorkerWhoseReadChannelIsClosedAndWhoseProcessHasEnded)
{
    dispatch();
    pipe->isReadChannelClosed = true; // still counts as connected
    process->state = nqProcess::Ended;
    step();
    EXPECT_TRUE(worker->hasFinished());
    EXPECT_EQ(queues.failCount(), 1U);
}

TEST_F(WorkerSupervision, losesAWorkerThatWasNeverRunningLikeOneThatHasEnded)
{
    pipe->isReadChannelClosed = true;
    process->state = nqProcess::NotStarted;
    step();
    EXPECT_TRUE(worker->hasFinished());
}

TEST_F(WorkerSupervision, dispatchesToARunningWorkerWhoseReadChannelIsClosedWhileConnected)
{
    pipe->isReadChannelClosed = true;
    dispatch();
    EXPECT_EQ(pipe->outgoing, frame("job"));
    EXPECT_FALSE(worker->hasFinished());
}

TEST_F(WorkerSupervision, losesAWorkerThatIsNotConnectedThoughItsProcessRuns)
{
    dispatch();
    pipe->isConnected = false;
    step();
    EXPECT_TRUE(worker->hasFinished());
    EXPECT_EQ(queues.failCount(), 1U);
    EXPECT_EQ(kills(), 0);
}

TEST_F(WorkerSupervision, losesAWorkerWhosePipeIsGoneThoughItsProcessRuns)
{
    dispatch();
    pipe->lose();
    step();
    EXPECT_TRUE(worker->hasFinished());
    EXPECT_EQ(failures(queues).at(0).reason, nqScheduler::UnexpectedCrash);
}

TEST_F(WorkerSupervision, writesNoLogEntryItself)
{
    worker->setMaxCapMemory(cap);
    worker->setJobProcessTimeout(10);
    dispatch();
    process->ramInUse = cap + 1;
    stepAfter(11s);
    step();
    EXPECT_TRUE(machine.logged.empty());
}

} // namespace
