#include "support/nqLogObject.h"
#include "tests/unit/schedulerFixture.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <string>

using namespace support;

namespace {

/// Where a thread that works with a scheduler can be cancelled.
class Cancellation : public SchedulerFixture {
protected:
    /// Starts `count` workers and forgets what this took.
    void startWatched(unsigned long count)
    {
        start(count);
        machine.cancellable.emplace();
    }

    /// The calls that a cancellation may strike, without those that wait for nothing and can be
    /// left at any moment: their objects are whole, and their owners are on the stack or in a list.
    Lines strikes() const
    {
        Lines all;
        for (const std::string& call : machine.cancellable.value()) {
            const auto isIn = [&call](const char* text) {
                return call.find(text) != std::string::npos;
            };
            if (std::none_of(std::begin(withoutHarm), std::end(withoutHarm), isIn))
                all.push_back(call);
        }
        return all;
    }

private:
    static constexpr const char* withoutHarm[] = {
        ": created",
        ": listenUtf8(",
        ": setWorkingDirectory(",
        ": takePendingConnection()",
        ": killProcess()",
        ": waitForFinished(0)",
    };
};

TEST_F(Cancellation, ofAStartStrikesWhileItWaitsForAWorkerToConnect)
{
    machine.cancellable.emplace();
    scheduler->startScheduler(2, connectionTimeout);
    EXPECT_EQ(
        strikes(),
        (Lines{
            "server: waitForNewConnection(5000, null)",
            "server: waitForNewConnection(5000, null)"}));
}

TEST_F(Cancellation, ofThePumpStrikesBeforeItsStepsAndWhileItSleeps)
{
    startWatched(2);
    scheduler->processScheduler(1000);
    EXPECT_EQ(strikes(), (Lines{"thread: EndIfCancelled()", "select()"}));
}

TEST_F(Cancellation, ofThePumpStrikesWhileItWaitsForAReplacement)
{
    startWatched(1);
    scheduler->push(bytes("job"));
    die(0);
    scheduler->processScheduler(1000);
    EXPECT_EQ(
        strikes(), (Lines{"thread: EndIfCancelled()", "server: waitForNewConnection(5000, null)"}));
}

TEST_F(Cancellation, ofAStopStrikesWhileItWaitsForAWorkerToLeave)
{
    startWatched(1);
    process(0).endsWhenWaitedFor = false;
    scheduler->stopScheduler();
    EXPECT_EQ(strikes(), Lines{"process 4242: waitForFinished(30000)"});
}

TEST_F(Cancellation, isHeldOffByTheDestructor)
{
    startWatched(1);
    scheduler->push(bytes("job"));
    answer(0, "result");
    scheduler.reset();
    EXPECT_EQ(strikes(), Lines{});
    EXPECT_TRUE(machine.isCancellable) << "as it was before";
}

TEST_F(Cancellation, isHeldOffByTheDestructorOfASchedulerWhoseStartHasFailed)
{
    machine.server.connections = {scripted::Connection::arrives, scripted::Connection::timesOut};
    scheduler->startScheduler(2, connectionTimeout);
    machine.cancellable.emplace();
    scheduler.reset();
    EXPECT_EQ(strikes(), Lines{});
}

TEST_F(Cancellation, isHeldOffWhileALineOfTheLogIsWritten)
{
    bool couldBeCancelled = true;
    logger.onWrite = [&] { couldBeCancelled = machine.isCancellable; };
    nq::nqLogObject(nq::nqLog::Error, true) << "text";
    EXPECT_FALSE(couldBeCancelled);
    EXPECT_TRUE(machine.isCancellable);
}

TEST_F(Cancellation, staysImpossibleForAHostThatForbidsIt)
{
    startWatched(1);
    machine.isCancellable = false;
    scheduler->processScheduler(1000);
    EXPECT_EQ(strikes(), Lines{});
    EXPECT_FALSE(machine.isCancellable);
}

// An exception of the wait stands for what unwinds the stack of a cancelled thread.
TEST_F(Cancellation, ofTheSleepLeavesTheReplacementToTheNextPass)
{
    start(2);
    die(0);
    machine.onSelect = []() -> int { throw std::runtime_error("unwinds"); };
    EXPECT_THROW(scheduler->processScheduler(1000), std::runtime_error);
    ASSERT_EQ(machine.processes.size(), 2U);
    machine.onSelect = nullptr;
    scheduler->processScheduler(0);
    EXPECT_EQ(machine.processes.size(), 3U);
    scheduler->processScheduler(0);
    EXPECT_EQ(machine.processes.size(), 3U);
}

TEST_F(Cancellation, ofTheSleepLeavesNoReplacementToAPoolThatIsStoppedFirst)
{
    start(2);
    die(0);
    machine.onSelect = []() -> int { throw std::runtime_error("unwinds"); };
    EXPECT_THROW(scheduler->processScheduler(1000), std::runtime_error);
    machine.onSelect = nullptr;
    EXPECT_TRUE(scheduler->stopScheduler());
    start(1);
    scheduler->processScheduler(0);
    EXPECT_EQ(machine.processes.size(), 3U) << "two at the first start and one at the second";
}

} // namespace
