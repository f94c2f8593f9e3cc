#include "pool/include/nqPool.h"

#include "tests/common/refusedMemory.h"
#include "tests/pool/poolFixture.h"

#include <new>
#include <stdexcept>

namespace {

using namespace std::chrono_literals;
using nq::nqJobId;
using nq::nqJobOptions;
using nq::nqOutcome;
using nq::nqPool;
using nq::nqPoolError;
using nq::nqPoolOptions;
using support::frame;
using support::milliseconds;
using support::PoolFixture;
using support::Reason;
using support::State;

std::string text(const std::vector<char>& bytes)
{
    return {bytes.begin(), bytes.end()};
}

class Pool : public PoolFixture {};

TEST_F(Pool, launchesNobodyBeforeAJobWaits)
{
    make();
    pump(3);
    EXPECT_EQ(launches(), 0U);
}

TEST_F(Pool, launchesNoMoreWorkersThanJobsWait)
{
    options.workers = 4;
    make();
    submit("one");
    submit("two");
    pump(10);
    EXPECT_EQ(launches(), 2U);
}

TEST_F(Pool, launchesNoMoreWorkersThanItMay)
{
    options.workers = 2;
    make();
    for (int i = 0; i < 5; ++i)
        submit("job");
    pump(10);
    EXPECT_EQ(launches(), 2U);
}

TEST_F(Pool, launchesAllWorkersWhenItIsStarted)
{
    options.workers = 3;
    make();
    EXPECT_TRUE(pool->start());
    EXPECT_EQ(launches(), 3U);
    EXPECT_EQ(pool->statistics().alive, 3U);
}

TEST_F(Pool, launchesAllWorkersInThePumpsAfterItWasToldToStart)
{
    options.workers = 3;
    make();
    pool->beginStart();
    EXPECT_EQ(launches(), 0U);
    EXPECT_TRUE(pool->isStarting());
    pump(3);
    EXPECT_EQ(launches(), 3U);
    EXPECT_FALSE(pool->isStarting());
}

TEST_F(Pool, endsItsStartWithALaunchThatFails)
{
    options.workers = 3;
    machine.server.connections = {scripted::Connection::timesOut};
    make();
    pool->beginStart();
    pump();
    EXPECT_FALSE(pool->isStarting());
    EXPECT_NE(pool->statistics().launchesFailed, 0U);
    const std::size_t launched = launches();
    advance(options.longestRestartPause);
    pump(3);
    EXPECT_EQ(launches(), launched);
}

TEST_F(Pool, tellsOfEachLaunchBeforeItBlocks)
{
    options.workers = 2;
    make();
    std::vector<std::size_t> launchesBefore;
    pool->onLaunch([&] { launchesBefore.push_back(launches()); });
    EXPECT_TRUE(pool->start());
    EXPECT_EQ(launchesBefore, (std::vector<std::size_t>{0, 1}));
}

TEST_F(Pool, tellsOfTheLaunchOfAReplacement)
{
    make();
    submit("job");
    pump();
    std::vector<std::size_t> launchesBefore;
    pool->onLaunch([&] { launchesBefore.push_back(launches()); });
    crash(0);
    EXPECT_EQ(launches(), 2U);
    EXPECT_EQ(launchesBefore, (std::vector<std::size_t>{1}));
}

TEST_F(Pool, tellsOfNoLaunchWhileItStops)
{
    make();
    EXPECT_TRUE(pool->start());
    int told = 0;
    pool->onLaunch([&] { ++told; });
    pool->stop();
    EXPECT_EQ(told, 0);
}

TEST_F(Pool, doesNotSleepOnAWorkerThatHasJustBecomeReady)
{
    options.workers = 3;
    make();
    EXPECT_TRUE(pool->start());
    EXPECT_EQ(sleepsWithoutLimit(), 0) << "nothing would ever end it";
}

TEST_F(Pool, tellsTheCallbackOfAResultWithTheJobsId)
{
    make();
    const nqJobId id = submit("job");
    pump();
    advance(5ms);
    answer(0, "result");
    ASSERT_EQ(outcomes.size(), 1U);
    const nqOutcome& outcome = outcomes.front();
    EXPECT_EQ(outcome.id, id);
    EXPECT_EQ(outcome.state, State::Done);
    EXPECT_TRUE(static_cast<bool>(outcome));
    EXPECT_EQ(outcome.text(), "result");
    EXPECT_EQ(outcome.reason, Reason::None);
    EXPECT_EQ(outcome.pid, 4242);
    EXPECT_EQ(outcome.ran, 5ms);
    EXPECT_EQ(outcome.queued, 0ms);
    EXPECT_EQ(outcome.failureText(), "");
}

TEST_F(Pool, countsIdsUpFromOne)
{
    make();
    EXPECT_EQ(submit("a"), 1U);
    EXPECT_EQ(submit("b"), 2U);
}

TEST_F(Pool, givesAnOutcomeWithoutACallbackToNext)
{
    make();
    const nqJobId id = pool->submit("job");
    pump();
    answer(0, "result");
    const auto outcome = pool->next(0ms);
    ASSERT_TRUE(outcome);
    EXPECT_EQ(outcome->id, id);
    EXPECT_FALSE(pool->next()) << "no job is left that could give one";
}

TEST_F(Pool, givesNothingToNextWhenTheTimeHasPassed)
{
    make();
    pool->submit("job");
    EXPECT_FALSE(pool->next(0ms));
}

TEST_F(Pool, givesAWorkerOneJobAtATime)
{
    make();
    submit("one");
    submit("two");
    pump(3);
    EXPECT_EQ(received(0), text(frame("one")));
    answer(0, "1");
    EXPECT_EQ(received(0), text(frame("one")) + text(frame("two")));
}

TEST_F(Pool, hasCountsOfWhatWaitsAndRuns)
{
    make();
    submit("one");
    submit("two");
    pump();
    EXPECT_EQ(pool->unfinishedCount(), 2U);
    EXPECT_EQ(pool->queuedCount(), 1U);
    answer(0, "1");
    EXPECT_EQ(pool->unfinishedCount(), 1U);
    EXPECT_EQ(pool->queuedCount(), 0U);
}

TEST_F(Pool, copiesAJobThatIsNotMoved)
{
    make();
    const std::vector<char> job{'j'};
    pool->submit(job);
    EXPECT_EQ(job.size(), 1U);
}

TEST_F(Pool, takesTheMemoryOfAJobThatIsMoved)
{
    make();
    std::vector<char> job{'j'};
    pool->submit(std::move(job));
    EXPECT_TRUE(job.empty()); // NOLINT(bugprone-use-after-move): that is what is tested
}

TEST_F(Pool, leavesAMovedJobToTheCallerWhenItHasNoMemoryForIt)
{
    if (!common::RefusedMemory::isPossible())
        GTEST_SKIP() << "this tool has its own allocator";
    constexpr std::size_t entries = 400; // bytes; the queue takes memory for several at once
    make();
    std::size_t accepted = 0;
    for (;; ++accepted) {
        ASSERT_LT(accepted, 100U) << "the queue never took memory";
        std::vector<char> job{'j'};
        try {
            const common::RefusedMemory refused(entries);
            pool->submit(std::move(job));
        } catch (const std::bad_alloc&) {
            EXPECT_EQ(job.size(), 1U); // NOLINT(bugprone-use-after-move): that is what is tested
            break;
        }
    }
    EXPECT_EQ(pool->unfinishedCount(), accepted);
    EXPECT_EQ(submit("next"), accepted + 1) << "it took no id";
}

TEST_F(Pool, refusesAnEmptyJobForAPlainWorker)
{
    make();
    EXPECT_THROW(submit(""), nqPoolError);
    EXPECT_EQ(pool->unfinishedCount(), 0U);
}

// Failures.

TEST_F(Pool, reportsACrashWithTheJobAndTheSignal)
{
    make();
    submit("job");
    pump();
    advance(7ms);
    crash(0, 6);
    ASSERT_EQ(outcomes.size(), 1U);
    const nqOutcome& outcome = outcomes.front();
    EXPECT_EQ(outcome.state, State::Failed);
    EXPECT_EQ(outcome.reason, Reason::Crashed);
    EXPECT_EQ(outcome.text(), "job");
    EXPECT_EQ(outcome.signal, 6);
    EXPECT_EQ(outcome.signalName(), "SIGABRT");
    EXPECT_EQ(outcome.exitStatus, std::nullopt);
    EXPECT_EQ(outcome.ran, 7ms);
    EXPECT_NE(outcome.failureText(), "");
}

TEST_F(Pool, reportsAWorkerThatLeft)
{
    make();
    submit("job");
    pump();
    nq::nqProcess::End end;
    end.mExitStatus = 3;
    endWorker(0, end);
    pump();
    ASSERT_EQ(outcomes.size(), 1U);
    EXPECT_EQ(outcomes.front().reason, Reason::Exited);
    EXPECT_EQ(outcomes.front().exitStatus, 3);
    EXPECT_EQ(outcomes.front().signal, std::nullopt);
}

TEST_F(Pool, givesTheNextJobToTheReplacement)
{
    make();
    submit("bad");
    submit("good");
    pump();
    crash(0);
    pump();
    EXPECT_EQ(launches(), 2U);
    EXPECT_EQ(received(1), text(frame("good")));
}

TEST_F(Pool, killsAWorkerAtItsTimeOutAndNotBefore)
{
    options.jobTimeout = 500ms;
    make();
    submit("job");
    pump();
    advance(499ms);
    pump();
    EXPECT_FALSE(isKilled(0));
    advance(1ms);
    pump();
    EXPECT_TRUE(isKilled(0));
    const nqOutcome outcome = outcomeOfKilled(0);
    EXPECT_EQ(outcome.reason, Reason::Timeout);
    EXPECT_EQ(outcome.text(), "job");
}

TEST_F(Pool, prefersTheJobsOwnTimeOut)
{
    options.jobTimeout = 500ms;
    make();
    nqJobOptions own;
    own.timeout = 20ms;
    submit("job", own);
    pump();
    advance(20ms);
    pump();
    EXPECT_TRUE(isKilled(0));
}

TEST_F(Pool, takesAnOwnTimeOutOfZeroForNone)
{
    options.jobTimeout = 500ms;
    make();
    nqJobOptions own;
    own.timeout = 0ms;
    submit("job", own);
    pump();
    advance(1h);
    pump();
    EXPECT_FALSE(isKilled(0));
}

TEST_F(Pool, takesAResultThatWasSentBeforeTheKillForTheOutcome)
{
    options.jobTimeout = 500ms;
    make();
    submit("job");
    pump();
    machine.processes.at(0)->endsWhenKilled = false;
    advance(500ms);
    machine.pipes.at(0)->arrivals.push_back(frame("in time"));
    pump();
    ASSERT_EQ(outcomes.size(), 1U);
    EXPECT_EQ(outcomes.front().state, State::Done);
    EXPECT_EQ(outcomes.front().text(), "in time");
}

TEST_F(Pool, givesNoJobToAWorkerThatWasKilledAlthoughItHasAnswered)
{
    options.jobTimeout = 500ms;
    make();
    submit("one");
    submit("two");
    pump();
    machine.processes.at(0)->endsWhenKilled = false;
    advance(500ms);
    machine.pipes.at(0)->arrivals.push_back(frame("in time"));
    pump(3);
    EXPECT_EQ(received(0), text(frame("one")));
    machine.processes.at(0)->state = nq::nqProcess::Ended;
    machine.pipes.at(0)->lose();
    pump(2);
    EXPECT_EQ(received(1), text(frame("two")));
}

TEST_F(Pool, endsAJobWhoseDeadlinePassesWhileItWaits)
{
    make();
    submit("first");
    pump();
    nqJobOptions own;
    own.deadline = nq::nqPoolClock::now() + 30ms;
    submit("late", own);
    advance(29ms);
    pump();
    EXPECT_TRUE(outcomes.empty());
    advance(1ms);
    pump();
    ASSERT_EQ(outcomes.size(), 1U);
    EXPECT_EQ(outcomes.front().reason, Reason::Deadline);
    EXPECT_EQ(outcomes.front().state, State::Failed);
    EXPECT_EQ(outcomes.front().text(), "late");
    EXPECT_EQ(outcomes.front().pid, 0);
    EXPECT_EQ(outcomes.front().queued, 30ms);
}

TEST_F(Pool, endsAJobWhoseDeadlinePassesWhileItRuns)
{
    options.jobTimeout = 1s;
    make();
    nqJobOptions own;
    own.deadline = nq::nqPoolClock::now() + 30ms;
    submit("late", own);
    pump();
    advance(30ms);
    pump();
    EXPECT_TRUE(isKilled(0));
    const nqOutcome outcome = outcomeOfKilled(0);
    EXPECT_EQ(outcome.reason, Reason::Deadline);
}

TEST_F(Pool, looksAtTheMemoryOfAWorkerTenTimesASecond)
{
    options.memoryCap = 1000;
    make();
    submit("job");
    pump();
    machine.processes.at(0)->ramInUse = 1001;
    advance(99ms);
    EXPECT_FALSE(isKilled(0));
    advance(1ms);
    pump();
    EXPECT_TRUE(isKilled(0));
    const nqOutcome outcome = outcomeOfKilled(0);
    EXPECT_EQ(outcome.reason, Reason::MemoryCap);
    EXPECT_EQ(outcome.text(), "job");
}

// Cancelling.

TEST_F(Pool, cancelsAJobThatWaitsAtOnce)
{
    make();
    submit("one");
    const nqJobId second = submit("two");
    pump();
    EXPECT_TRUE(pool->cancel(second));
    EXPECT_FALSE(pool->cancel(second)) << "it has its outcome";
    EXPECT_TRUE(outcomes.empty()) << "a pump delivers it";
    pump();
    ASSERT_EQ(outcomes.size(), 1U);
    EXPECT_EQ(outcomes.front().id, second);
    EXPECT_EQ(outcomes.front().state, State::Cancelled);
    EXPECT_EQ(outcomes.front().reason, Reason::Cancelled);
    EXPECT_EQ(outcomes.front().text(), "two");
}

TEST_F(Pool, cancelsAJobThatRunsByEndingItsWorker)
{
    make();
    const nqJobId id = submit("job");
    pump();
    EXPECT_TRUE(pool->cancel(id));
    EXPECT_TRUE(isKilled(0));
    const nqOutcome outcome = outcomeOfKilled(0);
    EXPECT_EQ(outcome.state, State::Cancelled);
    EXPECT_EQ(outcome.text(), "job");
    EXPECT_FALSE(pool->cancel(id));
}

TEST_F(Pool, prefersAResultThatWasSentToCancelling)
{
    make();
    const nqJobId id = submit("job");
    pump();
    machine.pipes.at(0)->arrivals.push_back(frame("result"));
    machine.processes.at(0)->endsWhenKilled = false;
    EXPECT_TRUE(pool->cancel(id));
    pump();
    ASSERT_EQ(outcomes.size(), 1U);
    EXPECT_EQ(outcomes.front().state, State::Done);
}

TEST_F(Pool, cancelsNothingThatItDoesNotKnow)
{
    make();
    EXPECT_FALSE(pool->cancel(0));
    EXPECT_FALSE(pool->cancel(1));
    submit("job");
    pump();
    answer(0, "result");
    EXPECT_FALSE(pool->cancel(1));
}

// Retries.

TEST_F(Pool, triesAFailedJobAgainAndKeepsEachAttempt)
{
    options.retry.attempts = 3;
    make();
    submit("job");
    pump();
    crash(0, 11);
    EXPECT_TRUE(outcomes.empty());
    pump();
    crash(1, 6);
    pump();
    answer(2, "result");
    ASSERT_EQ(outcomes.size(), 1U);
    const nqOutcome& outcome = outcomes.front();
    EXPECT_EQ(outcome.text(), "result");
    ASSERT_EQ(outcome.earlierAttempts.size(), 2U);
    EXPECT_EQ(outcome.earlierAttempts[0].signal, 11);
    EXPECT_EQ(outcome.earlierAttempts[0].pid, 4242);
    EXPECT_EQ(outcome.earlierAttempts[1].signal, 6);
    EXPECT_EQ(outcome.signal, std::nullopt);
    EXPECT_EQ(pool->statistics().retried, 2U);
}

TEST_F(Pool, givesUpAfterTheLastAttempt)
{
    options.retry.attempts = 2;
    make();
    submit("job");
    pump();
    crash(0);
    pump();
    crash(1);
    ASSERT_EQ(outcomes.size(), 1U);
    EXPECT_EQ(outcomes.front().reason, Reason::Crashed);
    EXPECT_EQ(outcomes.front().text(), "job");
    EXPECT_EQ(outcomes.front().earlierAttempts.size(), 1U);
}

TEST_F(Pool, countsTheAttemptsThatItsHostMakesAsOneJob)
{
    make();
    nq::nqJobOptions own;
    own.hostAttempts = 2;
    submit("job", own);
    pump();
    crash(0);
    EXPECT_EQ(outcomes.size(), 1U);
    EXPECT_EQ(pool->statistics().failed, 0U);
    own.hostAttempt = 2;
    submit("job", own);
    pump();
    answer(1, "result");
    EXPECT_EQ(outcomes.size(), 2U);
    const nq::nqPoolStatistics statistics = pool->statistics();
    EXPECT_EQ(statistics.submitted, 1U);
    EXPECT_EQ(statistics.retried, 1U);
    EXPECT_EQ(statistics.done, 1U);
    EXPECT_EQ(statistics.failed, 0U);
    EXPECT_TRUE(pool->drain());
}

TEST_F(Pool, countsTheLastAttemptOfItsHostThatFails)
{
    make();
    nq::nqJobOptions own;
    own.hostAttempt = 2;
    own.hostAttempts = 2;
    submit("job", own);
    pump();
    crash(0);
    EXPECT_EQ(pool->statistics().failed, 1U);
    EXPECT_FALSE(pool->drain());
}

TEST_F(Pool, countsAnAttemptOfItsHostThatIsCancelledWhileItWaits)
{
    make();
    nq::nqJobOptions own;
    own.hostAttempts = 2;
    pool->cancel(submit("job", own));
    EXPECT_EQ(pool->statistics().cancelled, 1U);
}

TEST_F(Pool, triesAgainForTheSaidReasonsOnly)
{
    options.retry.attempts = 2;
    options.retry.reasons = {Reason::Timeout};
    make();
    submit("job");
    pump();
    crash(0);
    ASSERT_EQ(outcomes.size(), 1U);
    EXPECT_EQ(outcomes.front().reason, Reason::Crashed);
}

TEST_F(Pool, neverTriesACancelledJobAgain)
{
    options.retry.attempts = 9;
    options.retry.reasons = {Reason::Cancelled, Reason::Crashed};
    make();
    const nqJobId id = submit("job");
    pump();
    pool->cancel(id);
    const nqOutcome outcome = outcomeOfKilled(0);
    EXPECT_EQ(outcome.state, State::Cancelled);
}

TEST_F(Pool, makesPausesBetweenAttemptsThatGrowUpToTheLongest)
{
    options.retry.attempts = 9;
    options.retry.pause = 100ms;
    options.retry.growth = 3;
    options.retry.longestPause = 500ms;
    make();
    submit("job");
    pump();
    std::size_t worker = 0;
    for (const milliseconds pause : {100ms, 300ms, 500ms, 500ms}) {
        crash(worker);
        ++worker;
        pump();
        advance(pause - 1ms);
        pump();
        EXPECT_EQ(received(worker), "") << pause.count();
        advance(1ms);
        pump();
        EXPECT_EQ(received(worker), text(frame("job"))) << pause.count();
    }
}

TEST_F(Pool, cancelsAJobThatWaitsForAnotherAttempt)
{
    options.retry.attempts = 2;
    options.retry.pause = 100ms;
    make();
    const nqJobId id = submit("job");
    pump();
    crash(0);
    EXPECT_TRUE(pool->cancel(id));
    pump();
    ASSERT_EQ(outcomes.size(), 1U);
    EXPECT_EQ(outcomes.front().state, State::Cancelled);
    EXPECT_EQ(outcomes.front().earlierAttempts.size(), 1U);
}

// Order and bound.

TEST_F(Pool, deliversInTheOrderOfCompletion)
{
    options.workers = 2;
    make();
    submit("one");
    submit("two");
    pump(3);
    answer(1, "2");
    answer(0, "1");
    ASSERT_EQ(outcomes.size(), 2U);
    EXPECT_EQ(outcomes[0].id, 2U);
    EXPECT_EQ(outcomes[1].id, 1U);
}

TEST_F(Pool, deliversInTheOrderOfSubmissionWhenToldTo)
{
    options.workers = 2;
    options.order = nqPoolOptions::Order::Submission;
    make();
    submit("one");
    submit("two");
    pump(3);
    answer(1, "2");
    EXPECT_TRUE(outcomes.empty());
    answer(0, "1");
    ASSERT_EQ(outcomes.size(), 2U);
    EXPECT_EQ(outcomes[0].id, 1U);
    EXPECT_EQ(outcomes[1].id, 2U);
}

TEST_F(Pool, refusesWhatIsBeyondItsBoundAndLeavesItToTheCaller)
{
    options.maxPendingJobs = 2;
    options.whenFull = nqPoolOptions::WhenFull::Refuse;
    make();
    submit("one");
    submit("two");
    std::vector<char> third{'3'};
    EXPECT_EQ(pool->submit(std::move(third)), 0U);
    EXPECT_EQ(third.size(), 1U); // NOLINT(bugprone-use-after-move): that is what is tested
    pump();
    answer(0, "1");
    EXPECT_EQ(pool->submit(std::move(third)), 3U) << "a refused job takes no id";
}

TEST_F(Pool, pumpsWhenItIsFullUntilThereIsRoom)
{
    options.maxPendingJobs = 1;
    make();
    submit("one");
    machine.onSelect = [&] {
        machine.pipes.at(0)->arrivals.push_back(frame("1"));
        return 1;
    };
    EXPECT_EQ(submit("two"), 2U);
    EXPECT_EQ(outcomes.size(), 1U);
    EXPECT_EQ(pool->unfinishedCount(), 1U);
}

TEST_F(Pool, countsWhatWaitsForItsTurnInItsBound)
{
    options.workers = 2;
    options.order = nqPoolOptions::Order::Submission;
    options.maxPendingJobs = 2;
    options.whenFull = nqPoolOptions::WhenFull::Refuse;
    make();
    submit("one");
    submit("two");
    pump(3);
    answer(1, "2");
    EXPECT_EQ(submit("three"), 0U);
    answer(0, "1");
    EXPECT_EQ(submit("three"), 3U);
}

TEST_F(Pool, refusesInsideACallbackInsteadOfPumping)
{
    options.maxPendingJobs = 2;
    make();
    nqJobId second = 99;
    nqJobId third = 99;
    pool->submit("one", [&](nqOutcome&&) {
        second = pool->submit("two");
        pool->submit("three");
        third = pool->submit("four");
    });
    pump();
    answer(0, "1");
    EXPECT_EQ(second, 2U);
    EXPECT_EQ(third, 0U);
}

// Callbacks.

TEST_F(Pool, acceptsJobsFromACallback)
{
    make();
    pool->submit("one", [&](nqOutcome&&) { submit("two"); });
    pump();
    answer(0, "1");
    pump();
    answer(0, "2");
    ASSERT_EQ(outcomes.size(), 1U);
    EXPECT_EQ(outcomes.front().id, 2U);
}

TEST_F(Pool, doesNotPumpInsideACallback)
{
    make();
    int refusals = 0;
    pool->submit("one", [&](nqOutcome&&) {
        EXPECT_THROW(pool->pump(0ms), nqPoolError);
        EXPECT_THROW(pool->next(0ms), nqPoolError);
        EXPECT_THROW(pool->drain(), nqPoolError);
        EXPECT_THROW(pool->start(), nqPoolError);
        EXPECT_THROW(pool->stop(), nqPoolError);
        ++refusals;
    });
    pump();
    answer(0, "1");
    EXPECT_EQ(refusals, 1);
}

TEST_F(Pool, letsTheExceptionOfACallbackPassAndGoesOn)
{
    make();
    pool->submit("one", [](nqOutcome&&) { throw std::runtime_error("thrown"); });
    submit("two");
    pump();
    EXPECT_THROW(answer(0, "1"), std::runtime_error);
    answer(0, "2");
    ASSERT_EQ(outcomes.size(), 1U);
    EXPECT_EQ(outcomes.front().id, 2U);
}

// Workers that do not last.

TEST_F(Pool, makesGrowingPausesForWorkersThatFinishNothing)
{
    options.restartPause = 10ms;
    options.longestRestartPause = 30ms;
    make();
    for (int i = 0; i < 5; ++i)
        submit("job");
    pump();
    std::size_t worker = 0;
    for (const milliseconds pause : {10ms, 20ms, 30ms, 30ms}) {
        crash(worker);
        ++worker;
        advance(pause - 1ms);
        pump();
        EXPECT_EQ(received(worker), "") << pause.count();
        advance(1ms);
        pump();
        EXPECT_EQ(received(worker), text(frame("job"))) << pause.count();
    }
}

TEST_F(Pool, makesNoPauseForAWorkerThatHasFinishedAJob)
{
    options.restartPause = 10ms;
    make();
    for (int i = 0; i < 3; ++i)
        submit("job");
    pump();
    answer(0, "1");
    crash(0);
    pump();
    EXPECT_EQ(received(1), text(frame("job")));
}

TEST_F(Pool, tellsAllThatWaitWhenNoWorkerCanBeLaunched)
{
    options.launchAttempts = 3;
    options.restartPause = 10ms;
    make();
    submit("one");
    submit("two");
    machine.server.connections.assign(3, scripted::Connection::timesOut);
    pump();
    advance(10ms);
    pump();
    EXPECT_TRUE(outcomes.empty());
    EXPECT_NE(pool->problem(), "");
    advance(20ms);
    pump();
    ASSERT_EQ(outcomes.size(), 2U);
    EXPECT_EQ(outcomes[0].reason, Reason::NoWorker);
    EXPECT_EQ(outcomes[0].state, State::Failed);
    EXPECT_EQ(outcomes[0].text(), "one");
    EXPECT_EQ(outcomes[0].message, pool->problem());
    EXPECT_EQ(outcomes[1].text(), "two");
}

TEST_F(Pool, handsManyJobsBackInPortions)
{
    options.launchAttempts = 1;
    make();
    for (int i = 0; i < 2500; ++i)
        submit("job");
    machine.server.connections = {scripted::Connection::timesOut};
    pool->waitDescriptor();
    EXPECT_EQ(pool->pump(0ms), 1000U);
    EXPECT_EQ(scripted::poolWait()->wakeAt, nq::nqPoolClock::now());
    EXPECT_EQ(pool->pump(0ms), 1000U);
    EXPECT_EQ(pool->pump(0ms), 500U);
    EXPECT_EQ(outcomes.size(), 2500U);
}

TEST_F(Pool, goesOnHandingJobsBackBehindACallbackThatThrowsInAStop)
{
    make();
    pool->submit("one", [](nqOutcome&&) { throw std::runtime_error("thrown"); });
    for (int i = 0; i < 1500; ++i)
        submit("job");
    EXPECT_THROW(pool->stop(), std::runtime_error);
    pool->stop();
    EXPECT_EQ(outcomes.size(), 1500U);
}

TEST_F(Pool, healsWhenWorkersCanBeLaunchedAgain)
{
    options.launchAttempts = 1;
    options.longestRestartPause = 1s;
    make();
    submit("lost");
    machine.server.connections = {scripted::Connection::timesOut};
    pump();
    ASSERT_EQ(outcomes.size(), 1U);
    submit("waits");
    advance(999ms);
    pump();
    EXPECT_EQ(launches(), 1U) << "not before the pause is over";
    advance(1ms);
    pump();
    EXPECT_EQ(launches(), 2U);
    EXPECT_EQ(pool->problem(), "");
    answer(0, "result");
    ASSERT_EQ(outcomes.size(), 2U);
    EXPECT_EQ(outcomes.back().text(), "result");
}

TEST_F(Pool, keepsJobsWaitingWhileAnotherWorkerLives)
{
    options.workers = 2;
    options.launchAttempts = 1;
    options.restartPause = 1s;
    make();
    submit("one");
    pump();
    submit("two");
    machine.server.connections = {scripted::Connection::timesOut};
    pump(3);
    EXPECT_TRUE(outcomes.empty());
    answer(0, "1");
    answer(0, "2");
    EXPECT_EQ(outcomes.size(), 2U);
}

// Recycling.

TEST_F(Pool, replacesAWorkerAfterItsNumberOfJobs)
{
    options.recycleAfterJobs = 2;
    make();
    for (int i = 0; i < 3; ++i)
        submit("job");
    pump();
    answer(0, "1");
    EXPECT_FALSE(isKilled(0));
    answer(0, "2");
    EXPECT_TRUE(isKilled(0));
    machine.pipes.at(0)->lose();
    pump(2);
    EXPECT_EQ(received(1), text(frame("job")));
    EXPECT_EQ(pool->statistics().launchesFailed, 0U);
}

TEST_F(Pool, replacesAWorkerThatIsTooOldBeforeItsNextJob)
{
    options.recycleAfter = 1s;
    make();
    submit("one");
    pump();
    answer(0, "1");
    advance(999ms);
    submit("two");
    pump();
    EXPECT_FALSE(isKilled(0));
    answer(0, "2");
    advance(1ms);
    submit("three");
    pump();
    EXPECT_TRUE(isKilled(0));
    machine.pipes.at(0)->lose();
    pump(2);
    EXPECT_EQ(received(1), text(frame("three")));
}

// Stopping.

TEST_F(Pool, handsAllJobsBackWhenItStops)
{
    make();
    submit("runs");
    submit("waits");
    pump();
    pool->stop();
    ASSERT_EQ(outcomes.size(), 2U);
    for (const nqOutcome& outcome : outcomes) {
        EXPECT_EQ(outcome.state, State::Cancelled);
        EXPECT_EQ(outcome.reason, Reason::Stopped);
        EXPECT_EQ(outcome.text(), outcome.id == 1 ? "runs" : "waits");
    }
    EXPECT_TRUE(isKilled(0));
    EXPECT_EQ(pool->statistics().alive, 0U);
}

TEST_F(Pool, acceptsNothingOnceItHasStopped)
{
    make();
    pool->stop();
    EXPECT_EQ(submit("job"), 0U);
    EXPECT_FALSE(pool->start());
    pump();
    EXPECT_EQ(launches(), 0U);
}

TEST_F(Pool, drainsAtOnceWhenNothingIsLeft)
{
    make();
    EXPECT_TRUE(pool->drain());
}

TEST_F(Pool, saysFromDrainWhetherAllJobsSinceTheLastOneWereDone)
{
    make();
    submit("bad");
    pump();
    crash(0);
    EXPECT_FALSE(pool->drain());
    submit("good");
    pump();
    answer(1, "result");
    EXPECT_TRUE(pool->drain());
}

TEST_F(Pool, tellsItsProgressAtTheEndOfADrain)
{
    make();
    submit("job");
    pump();
    answer(0, "result");
    std::vector<nq::nqProgress> told;
    pool->drain([&](const nq::nqProgress& progress) {
        told.push_back(progress);
        return true;
    });
    ASSERT_EQ(told.size(), 1U);
    EXPECT_EQ(told.front().done, 1U);
    EXPECT_EQ(told.front().queued + told.front().running, 0U);
}

TEST_F(Pool, leavesADrainThatNobodyWantsAnyMore)
{
    make();
    submit("job");
    pump();
    EXPECT_FALSE(pool->drain([](const nq::nqProgress&) { return false; }));
    EXPECT_EQ(pool->unfinishedCount(), 1U);
}

// Waiting.

TEST_F(Pool, wakesALoopOfTheHostForWhatIsDueByItself)
{
    options.jobTimeout = 500ms;
    make();
    EXPECT_EQ(pool->waitDescriptor(), 3);
    EXPECT_EQ(scripted::poolWait()->wakeAt, std::nullopt);
    submit("job");
    EXPECT_EQ(scripted::poolWait()->wakeAt, nq::nqPoolClock::now()) << "a worker is to be launched";
    pump();
    EXPECT_EQ(scripted::poolWait()->wakeAt, nq::nqPoolClock::now() + 500ms) << "the time-out";
    answer(0, "result");
    EXPECT_EQ(scripted::poolWait()->wakeAt, std::nullopt);
}

TEST_F(Pool, wakesALoopOfTheHostForAnOutcomeThatWaits)
{
    make();
    pool->waitDescriptor();
    submit("one");
    const nqJobId second = submit("two");
    pump();
    EXPECT_EQ(scripted::poolWait()->wakeAt, std::nullopt);
    pool->cancel(second);
    EXPECT_EQ(scripted::poolWait()->wakeAt, nq::nqPoolClock::now());
}

TEST_F(Pool, sleepsNoLongerThanUntilTheNextThingIsDue)
{
    options.workers = 2;
    options.jobTimeout = 500ms;
    make();
    submit("one");
    submit("two");
    pump(3);
    pool->pump(10s);
    EXPECT_EQ(scripted::poolWait()->sleeps.back(), 500ms);
    pool->pump(7ms);
    EXPECT_EQ(scripted::poolWait()->sleeps.back(), 7ms);
}

// Statistics.

TEST_F(Pool, countsWhatHasHappened)
{
    options.workers = 1;
    make();
    submit("good");
    submit("bad");
    const nqJobId third = submit("third");
    submit("waits");
    pump();
    answer(0, "result");
    pool->cancel(third);
    crash(0);
    const nq::nqPoolStatistics now = pool->statistics();
    EXPECT_EQ(now.submitted, 4U);
    EXPECT_EQ(now.done, 1U);
    EXPECT_EQ(now.failed, 1U);
    EXPECT_EQ(now.cancelled, 1U);
    EXPECT_EQ(now.byReason[static_cast<std::size_t>(Reason::Crashed)], 1U);
    EXPECT_EQ(now.byReason[static_cast<std::size_t>(Reason::None)], 1U);
    EXPECT_EQ(now.byReason[static_cast<std::size_t>(Reason::Cancelled)], 1U);
    EXPECT_EQ(now.queued + now.running, 1U);
    EXPECT_EQ(now.alive, 1U);
    EXPECT_EQ(now.launched, 2U);
    EXPECT_EQ(now.jobBytes, 17U);
    EXPECT_EQ(now.resultBytes, 6U);
}

TEST_F(Pool, listsItsWorkers)
{
    make();
    EXPECT_TRUE(pool->workers().empty());
    const nqJobId id = submit("job");
    pump();
    advance(40ms);
    machine.processes.at(0)->ramInUse = 5000;
    const auto workers = pool->workers();
    ASSERT_EQ(workers.size(), 1U);
    EXPECT_EQ(workers.front().pid, 4242);
    EXPECT_EQ(workers.front().job, id);
    EXPECT_EQ(workers.front().timeInJob, 40ms);
    EXPECT_EQ(workers.front().residentMemory, 5000U);
    EXPECT_EQ(workers.front().jobsDone, 0U);
}

} // namespace
