// What happens at a bad moment.
#include "pool/include/nqPool.h"

#include "pool/nqEnvelope.h"
#include "pool/nqWorkerStart.h"
#include "tests/pool/poolFixture.h"

#include <filesystem>
#include <stdexcept>

namespace {

using namespace std::chrono_literals;
using nq::nqJobId;
using nq::nqOutcome;
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

class TroubledPool : public PoolFixture {
protected:
    /// Of a host that waits for nothing but the descriptor.
    void makeForALoop()
    {
        make();
        pool->waitDescriptor();
    }

    /// Whether the descriptor would be readable by itself.
    static bool isAwake()
    {
        const auto& time = scripted::poolWait()->wakeAt;
        return time && *time <= nq::nqPoolClock::now();
    }

    /// What the pool and the worker of that launch say to each other.
    nq::nqEnvelope envelope(std::size_t process) const
    {
        std::vector<std::string> texts = machine.processes.at(process)->arguments;
        texts.insert(texts.begin(), "worker");
        std::vector<char*> arguments;
        for (std::string& each : texts)
            arguments.push_back(each.data());
        const auto start =
            nq::nqWorkerStart::read(static_cast<int>(arguments.size()), arguments.data());
        return nq::nqEnvelope(start.value().tag);
    }

    /// For all of its workers.
    std::string initialisation() const
    {
        return text(frame(envelope(0).initialise()));
    }

    void initialise(std::size_t worker)
    {
        answer(worker, text(envelope(0).initialised()));
    }

    /// The worker is gone, and nobody has noticed yet.
    void dieUnnoticed(std::size_t worker)
    {
        nq::nqProcess::End end;
        end.mSignal = 9;
        endWorker(worker, end);
    }
};

// A host with a loop of its own.

TEST_F(TroubledPool, doesNotWakeForAnotherAttemptWhileAllWorkersAreBusy)
{
    options.retry.attempts = 2;
    options.retry.pause = 10ms;
    makeForALoop();
    submit("bad");
    submit("long");
    pump();
    crash(0);
    pump();
    EXPECT_EQ(received(1), text(frame("long")));
    advance(10ms);
    pump(2);
    EXPECT_FALSE(isAwake());
    answer(1, "result");
    EXPECT_EQ(received(1), text(frame("long")) + text(frame("bad")));
}

TEST_F(TroubledPool, doesNotWakeForALaunchWhileAnotherWorkerTries)
{
    options.plainWorker = false;
    options.workers = 2;
    options.restartPause = 10ms;
    makeForALoop();
    machine.server.connections = {scripted::Connection::timesOut};
    for (int i = 0; i < 3; ++i)
        submit("job");
    pump();
    advance(10ms);
    pump(2);
    EXPECT_EQ(received(0), initialisation());
    advance(10ms);
    pump(2);
    EXPECT_FALSE(isAwake());
}

TEST_F(TroubledPool, doesNotWakeForThePauseOfAWorkerOnceItHasStopped)
{
    options.restartPause = 10ms;
    makeForALoop();
    submit("bad");
    pump();
    crash(0);
    pool->stop();
    advance(10ms);
    pump();
    EXPECT_FALSE(isAwake());
}

TEST_F(TroubledPool, wakesForTheOutcomesBehindACallbackThatThrows)
{
    makeForALoop();
    submit("runs");
    pump();
    const nqJobId second = pool->submit("two", [](nqOutcome&&) { throw std::runtime_error("no"); });
    const nqJobId third = submit("three");
    pool->cancel(second);
    pool->cancel(third);
    machine.steadyTime += 1ms; // nothing is due any more by what was noted for cancel()
    scripted::poolWait()->wakeAt.reset();
    EXPECT_THROW(pump(), std::runtime_error);
    EXPECT_TRUE(isAwake());
}

TEST_F(TroubledPool, watchesAWorkerThatWasLaunchedAtTheEndOfAPump)
{
    options.workers = 2;
    options.standardError = nqPoolOptions::StandardError::NullDevice;
    makeForALoop();
    submit("one");
    submit("two");
    pump();
    EXPECT_EQ(launches(), 2U);
    EXPECT_EQ(scripted::poolWait()->watched.size(), 2U);
}

TEST_F(TroubledPool, watchesWorkersThatWereBusyBeforeTheDescriptorWasAskedFor)
{
    options.standardError = nqPoolOptions::StandardError::NullDevice;
    make();
    submit("one");
    pump();
    pool->waitDescriptor();
    EXPECT_EQ(scripted::poolWait()->watched.size(), 1U);
}

// Workers that end at the wrong moment.

TEST_F(TroubledPool, runsAJobOnAnotherWorkerWhenItsOwnIsGoneBeforeItGetsIt)
{
    make();
    submit("one");
    pump();
    answer(0, "1");
    dieUnnoticed(0);
    submit("two");
    pump(3);
    EXPECT_EQ(received(1), text(frame("two")));
    answer(1, "2");
    ASSERT_EQ(outcomes.size(), 2U);
    EXPECT_EQ(outcomes.back().text(), "2");
    EXPECT_TRUE(outcomes.back().earlierAttempts.empty());
    EXPECT_EQ(pool->unfinishedCount(), 0U);
}

TEST_F(TroubledPool, initialisesTheReplacementBeforeItGetsAJobThatNobodyHadYet)
{
    options.plainWorker = false;
    make();
    submit("one");
    pump();
    initialise(0);
    answer(0, "1");
    dieUnnoticed(0);
    submit("two");
    pump(3);
    EXPECT_EQ(received(1), initialisation());
    initialise(1);
    EXPECT_EQ(received(1), initialisation() + text(frame("two")));
    answer(1, "2");
    ASSERT_EQ(outcomes.size(), 2U);
    EXPECT_EQ(outcomes.back().text(), "2");
}

TEST_F(TroubledPool, handsAJobBackThatNoWorkerCouldBeGiven)
{
    options.launchAttempts = 1;
    make();
    submit("one");
    pump();
    answer(0, "1");
    dieUnnoticed(0);
    machine.server.connections = {scripted::Connection::timesOut};
    submit("two");
    pump(2);
    ASSERT_EQ(outcomes.size(), 2U);
    EXPECT_EQ(outcomes.back().reason, Reason::NoWorker);
    EXPECT_EQ(outcomes.back().text(), "two");
}

TEST_F(TroubledPool, asksNobodyElseToLeaveInTheNameOfAWorkerThatIsGone)
{
    options.plainWorker = false;
    options.recycleAfterJobs = 1;
    make();
    submit("one");
    pump();
    initialise(0);
    answer(0, "1");
    dieUnnoticed(0);
    submit("two");
    pump(3);
    EXPECT_EQ(received(1), initialisation());
}

TEST_F(TroubledPool, initialisesAReplacementOnce)
{
    options.plainWorker = false;
    options.launchAttempts = 9;
    make();
    submit("one");
    machine.planPipe().onEvents = [](scripted::Pipe& pipe) { pipe.lose(); };
    pump(3);
    initialise(1);
    EXPECT_EQ(received(1), initialisation() + text(frame("one")));
}

TEST_F(TroubledPool, givesUpOnPlainWorkersThatEndBeforeTheyGetAJob)
{
    options.launchAttempts = 3;
    make();
    for (int i = 0; i < 10; ++i)
        machine.planPipe().onEvents = [](scripted::Pipe& pipe) { pipe.lose(); };
    submit("job");
    for (int i = 0; i < 10 && outcomes.empty(); ++i) {
        pump();
        advance(1s);
    }
    ASSERT_EQ(outcomes.size(), 1U);
    EXPECT_EQ(outcomes.back().reason, Reason::NoWorker);
    EXPECT_EQ(outcomes.back().text(), "job");
}

TEST_F(TroubledPool, wakesForAJobAfterItHasGivenUpOnWorkersThatCannotBeInitialised)
{
    options.plainWorker = false;
    options.launchAttempts = 3;
    options.restartPause = 10ms;
    makeForALoop();
    submit("lost");
    pump();
    for (std::size_t worker = 0; worker < 3; ++worker) {
        advance(100ms); // longer than each of the pauses
        pump();
        EXPECT_EQ(received(worker), initialisation());
        crash(worker);
    }
    ASSERT_EQ(outcomes.size(), 1U);
    EXPECT_EQ(outcomes.front().reason, Reason::NoWorker);
    advance(100ms);
    pump();
    submit("waits");
    pump();
    const auto& wakeAt = scripted::poolWait()->wakeAt;
    ASSERT_NE(wakeAt, std::nullopt);
    EXPECT_EQ(*wakeAt, nq::nqPoolClock::now() + options.longestRestartPause - 100ms);
}

TEST_F(TroubledPool, doesNotTakeAnAnswerOfTheJobBeforeForThatOfTheNextOne)
{
    make();
    submit("one");
    pump();
    answer(0, "1");
    machine.pipes.at(0)->incoming = frame("1 again");
    submit("two");
    pump(2);
    ASSERT_EQ(outcomes.size(), 2U);
    EXPECT_EQ(outcomes.back().reason, Reason::ResultLost);
    EXPECT_TRUE(isKilled(0));
}

// The end of the pool.

TEST_F(TroubledPool, keepsNoJobThatFailsOnlyBecauseThePoolIsDestroyed)
{
    const std::string folder = testing::TempDir() + "nqPoolTrouble_kept";
    std::filesystem::remove_all(folder);
    options.keepFailedJobs = folder;
    make();
    submit("job");
    pump();
    pool.reset();
    EXPECT_TRUE(std::filesystem::is_empty(folder));
    std::filesystem::remove_all(folder);
}

// Waits.

TEST_F(TroubledPool, waitsForNothingMoreOnceAPlainWorkerIsStarted)
{
    make();
    pool->start();
    EXPECT_TRUE(scripted::poolWait()->sleeps.empty());
}

// Extreme options.

TEST_F(TroubledPool, takesTheLongestTimeForNoLimit)
{
    options.jobTimeout = milliseconds::max();
    options.recycleAfter = milliseconds::max();
    make();
    submit("job");
    submit("next");
    pump(2);
    EXPECT_FALSE(isKilled(0));
    answer(0, "1");
    EXPECT_FALSE(isKilled(0));
}

TEST_F(TroubledPool, waitsTheLongestTimeForAnOutcome)
{
    make();
    pool->submit("job");
    pump();
    machine.onSelect = [&] {
        machine.pipes.at(0)->arrivals.push_back(frame("1"));
        return 1;
    };
    EXPECT_TRUE(pool->next(milliseconds::max()));
}

} // namespace
