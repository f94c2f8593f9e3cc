#include "nqSchedulerObserver.h"

#include "supervision/nqEventLog.h"
#include "tests/common/observer.h"
#include "tests/common/refusedMemory.h"
#include "tests/unit/schedulerFixture.h"
#include "tests/unit/workerRecordFixture.h"

#include <chrono>
#include <initializer_list>
#include <new>
#include <optional>

using namespace support;
using common::KeepingObserver;
using common::RefusedMemory;
using nq::nqScheduler;
using nq::nqSchedulerEvent;
using std::chrono::microseconds;
using Kind = nqSchedulerEvent::Kind;
using EndReason = nqSchedulerEvent::EndReason;

namespace {

/// Kind and pid in words, for one comparison of everything that was told.
std::string lineOf(const nqSchedulerEvent& event)
{
    static constexpr const char* names[] = {
        "launched", "launch failed", "handed out", "result", "result lost", "failed", "ended"};
    return std::string(names[static_cast<int>(event.mKind)]) + " " + std::to_string(event.mPid);
}

class Observed : public SchedulerFixture {
protected:
    KeepingObserver observer;

    Observed()
    {
        EXPECT_TRUE(scheduler->setObserver(&observer));
    }

    /// What was told since the last time.
    Lines told()
    {
        Lines lines;
        for (const auto& event : observer.mTold)
            lines.push_back(lineOf(event));
        observer.mTold.clear();
        return lines;
    }

    void startAndForget(unsigned long count)
    {
        start(count);
        observer.mTold.clear();
    }

    void push(std::initializer_list<const char*> jobs)
    {
        for (const char* job : jobs)
            scheduler->push(bytes(job));
    }

    KeepingObserver::Told only(Kind kind)
    {
        const auto all = observer.of(kind);
        EXPECT_EQ(all.size(), 1U);
        return all.empty() ? KeepingObserver::Told{} : all.front();
    }
};

TEST_F(Observed, tellsOfEachLaunchOfAStart)
{
    start(2);
    EXPECT_EQ(told(), (Lines{"launched 4242", "launched 4243"}));
}

TEST_F(Observed, tellsOfALaunchBeforeTheNextBegins)
{
    std::vector<std::size_t> processes;
    observer.mOnEvent = [&](const auto&) { processes.push_back(machine.processes.size()); };
    start(2);
    EXPECT_EQ(processes, (std::vector<std::size_t>{1, 2}));
}

TEST_F(Observed, tellsHowLongAWorkerTookToConnect)
{
    machine.onQuery = [this](const std::string& question) {
        if (question == "process 4242: getState()")
            machine.advance(std::chrono::milliseconds{7});
    };
    start(1);
    EXPECT_EQ(only(Kind::WorkerLaunched).mDuration, microseconds{7000});
}

TEST_F(Observed, tellsOfALaunchThatFoundNoProgramWithItsErrorNumber)
{
    scripted::Process& missing = machine.planProcess();
    missing.stateAfterStart = nq::nqProcess::NotStarted;
    missing.startError = 2;
    EXPECT_FALSE(scheduler->startScheduler(1, connectionTimeout));
    const auto event = only(Kind::LaunchFailed);
    EXPECT_EQ(event.mText, "Process state is not 'running'");
    EXPECT_EQ(event.mErrorNumber, 2);
    EXPECT_FALSE(event.mExitStatus.has_value());
}

TEST_F(Observed, tellsHowAWorkerEndedThatNeverConnected)
{
    scripted::Process& plan = machine.planProcess();
    plan.end.emplace().mExitStatus = 127;
    machine.server.connections = {scripted::Connection::timesOut};
    EXPECT_FALSE(scheduler->startScheduler(1, connectionTimeout));
    const auto event = only(Kind::LaunchFailed);
    EXPECT_EQ(event.mText, "Timeout while waiting for worker connection");
    EXPECT_EQ(event.mPid, 4242);
    EXPECT_EQ(event.mErrorNumber, 0);
    EXPECT_EQ(event.mExitStatus, 127);
}

TEST_F(Observed, knowsNothingOfTheEndOfAWorkerThatStillRanWhenItsLaunchFailed)
{
    scripted::Process& plan = machine.planProcess();
    plan.endsWhenKilled = false;
    plan.end.emplace().mExitStatus = 127;
    machine.server.connections = {scripted::Connection::timesOut};
    EXPECT_FALSE(scheduler->startScheduler(1, connectionTimeout));
    EXPECT_FALSE(only(Kind::LaunchFailed).mExitStatus.has_value());
}

TEST_F(Observed, tellsOfAJobAndItsResult)
{
    startAndForget(1);
    push({"a job"});
    scheduler->processScheduler(0);
    const auto handedOut = only(Kind::JobHandedOut);
    EXPECT_EQ(handedOut.mPid, 4242);
    EXPECT_EQ(handedOut.mBytes, 5U);
    EXPECT_EQ(handedOut.mUnreadBytes, 0U);
    answer(0, "the result");
    scheduler->processScheduler(0);
    const auto complete = only(Kind::ResultComplete);
    EXPECT_EQ(complete.mPid, 4242);
    EXPECT_EQ(complete.mBytes, 10U);
}

TEST_F(Observed, tellsOfAResultBeforeTheNextJobOfItsWorker)
{
    startAndForget(1);
    push({"a", "b"});
    scheduler->processScheduler(0);
    scheduler->processScheduler(0);
    answer(0, "result");
    scheduler->processScheduler(0);
    EXPECT_EQ(told(), (Lines{"handed out 4242", "result 4242", "handed out 4242"}));
}

TEST_F(Observed, tellsHowManyBytesAWorkerHadSentUnasked)
{
    startAndForget(1);
    pipe(0).arrivals.push_back(frame("unasked"));
    scheduler->processScheduler(0);
    push({"job"});
    scheduler->processScheduler(0);
    EXPECT_EQ(only(Kind::JobHandedOut).mUnreadBytes, frame("unasked").size());
}

TEST_F(Observed, tellsOfAFailureAndTheEndInThatPumpCallBeforeTheReplacement)
{
    startAndForget(1);
    push({"a job"});
    scheduler->processScheduler(0);
    observer.mTold.clear();
    die(0);
    scheduler->processScheduler(0);
    const auto failed = only(Kind::JobFailed);
    EXPECT_EQ(failed.mFailReason, nqScheduler::UnexpectedCrash);
    EXPECT_EQ(failed.mText, "Unexpected crash");
    EXPECT_EQ(failed.mBytes, 5U);
    EXPECT_EQ(told(), (Lines{"failed 4242", "ended 4242", "launched 4243"}));
}

TEST_F(Observed, tellsOfAReplacementThatFails)
{
    startAndForget(1);
    die(0);
    machine.server.connections = {scripted::Connection::timesOut};
    scheduler->processScheduler(0);
    EXPECT_EQ(told(), (Lines{"ended 4242", "launch failed 4243"}));
}

TEST_F(Observed, tellsWhatIsKnownOfAnEnd)
{
    auto& end = machine.planProcess().end.emplace();
    end.mSignal = 11;
    end.mDumpedCore = true;
    end.mUserTime = microseconds{1};
    end.mSystemTime = microseconds{2};
    end.mPeakMemory = 3;
    startAndForget(1);
    machine.advance(std::chrono::seconds{4});
    die(0);
    scheduler->processScheduler(0);
    const auto ended = only(Kind::WorkerEnded);
    EXPECT_EQ(ended.mEndReason, EndReason::Lost);
    EXPECT_EQ(ended.mDuration, std::chrono::seconds{4});
    EXPECT_FALSE(ended.mExitStatus.has_value());
    EXPECT_EQ(ended.mSignal, 11);
    EXPECT_TRUE(ended.mDumpedCore);
    EXPECT_EQ(ended.mUserTime, microseconds{1});
    EXPECT_EQ(ended.mSystemTime, microseconds{2});
    EXPECT_EQ(ended.mPeakMemory, 3U);
    EXPECT_FALSE(ended.mLargestReading.has_value()) << "no cap asked for one";
}

TEST_F(Observed, leavesEmptyWhatIsUnknownOfAnEnd)
{
    startAndForget(1);
    die(0);
    scheduler->processScheduler(0);
    const auto ended = only(Kind::WorkerEnded);
    EXPECT_FALSE(ended.mExitStatus.has_value());
    EXPECT_FALSE(ended.mSignal.has_value());
    EXPECT_FALSE(ended.mUserTime.has_value());
    EXPECT_FALSE(ended.mSystemTime.has_value());
    EXPECT_FALSE(ended.mPeakMemory.has_value());
}

TEST_F(Observed, takesAnExitStatusOfZeroForKnown)
{
    machine.planProcess().end.emplace();
    startAndForget(1);
    die(0);
    scheduler->processScheduler(0);
    EXPECT_EQ(only(Kind::WorkerEnded).mExitStatus, 0);
}

TEST_F(Observed, tellsOfATimeout)
{
    scheduler->setJobProcessTimeout(1);
    startAndForget(1);
    push({"job"});
    scheduler->processScheduler(0);
    machine.advance(std::chrono::seconds{2});
    scheduler->processScheduler(0);
    pipe(0).lose();
    scheduler->processScheduler(0);
    EXPECT_EQ(only(Kind::JobFailed).mFailReason, nqScheduler::Timeout);
    EXPECT_EQ(only(Kind::JobFailed).mText, "killing scheduler worker : timeout (2s)");
    EXPECT_EQ(only(Kind::WorkerEnded).mEndReason, EndReason::Timeout);
}

TEST_F(Observed, tellsOfTooMuchMemoryAndTheLargestReading)
{
    scheduler->setMaxCapMemory(100);
    startAndForget(1);
    process(0).ramInUse = 101;
    scheduler->processScheduler(0);
    process(0).ramInUse = 50;
    scheduler->processScheduler(0);
    pipe(0).lose();
    scheduler->processScheduler(0);
    const auto ended = only(Kind::WorkerEnded);
    EXPECT_EQ(ended.mEndReason, EndReason::TooMuchMemory);
    EXPECT_EQ(ended.mLargestReading, 101U);
    EXPECT_TRUE(observer.of(Kind::JobFailed).empty()) << "it was idle";
}

TEST_F(Observed, tellsOfAWorkerThatIsReplacedAfterAJob)
{
    scheduler->setMaxCapMemoryAfterProcessingAJob(100);
    startAndForget(1);
    push({"job"});
    scheduler->processScheduler(0);
    process(0).ramInUse = 101;
    answer(0, "result");
    scheduler->processScheduler(0);
    EXPECT_EQ(only(Kind::WorkerEnded).mEndReason, EndReason::MemoryAfterJob);
    EXPECT_EQ(only(Kind::WorkerEnded).mLargestReading, 101U);
    EXPECT_EQ(told(), (Lines{"handed out 4242", "result 4242", "ended 4242", "launched 4243"}));
}

TEST_F(Observed, tellsOfAResultThatCameAfterItsWorkerWasKilled)
{
    scheduler->setJobProcessTimeout(1);
    startAndForget(1);
    push({"job"});
    scheduler->processScheduler(0);
    machine.advance(std::chrono::seconds{2});
    scheduler->processScheduler(0);
    answer(0, "result");
    pipe(0).endsWhenDrained = true;
    scheduler->processScheduler(0);
    EXPECT_EQ(told(), (Lines{"handed out 4242", "result 4242", "ended 4242", "launched 4243"}));
}

TEST_F(Observed, tellsOfEachWorkerThatAStopEndsBeforeItReturns)
{
    startAndForget(2);
    std::vector<bool> otherIsDestroyed;
    observer.mOnEvent = [&](const nqSchedulerEvent& event) {
        EXPECT_EQ(event.mEndReason, EndReason::Stopped);
        otherIsDestroyed.push_back(process(1).isDestroyed);
    };
    scheduler->stopScheduler();
    EXPECT_EQ(told(), (Lines{"ended 4242", "ended 4243"}));
    EXPECT_EQ(otherIsDestroyed, (std::vector<bool>{false, true}));
}

TEST_F(Observed, isToldOfOutcomesOfTheJobsThatAStopWaitsFor)
{
    startAndForget(1);
    push({"job"});
    answer(0, "result");
    scheduler->stopScheduler();
    EXPECT_EQ(told(), (Lines{"handed out 4242", "result 4242", "ended 4242"}));
}

TEST_F(Observed, isToldAfterThePassAndBeforeTheWait)
{
    startAndForget(2);
    push({"job"});
    scheduler->processScheduler(0);
    std::vector<Lines> callsBefore;
    observer.mOnEvent = [&](const auto&) { callsBefore.push_back(machine.takeCalls()); };
    scheduler->processScheduler(0);
    answer(0, "result");
    machine.takeCalls();
    scheduler->processScheduler(1000);
    EXPECT_EQ(
        callsBefore,
        (std::vector<Lines>{
            {"server: processPipeServerEvents(0)",
             "pipe 1: processNamedPipeEvents(0, false)",
             "pipe 2: processNamedPipeEvents(0, false)"}}));
}

TEST_F(Observed, mayPopBeforeThePumpDecidesWhetherToSleep)
{
    startAndForget(1);
    push({"job"});
    scheduler->processScheduler(0);
    scheduler->processScheduler(0);
    answer(0, "result");
    Lines popped;
    observer.mOnEvent = [&](const auto&) { popped = results(); };
    scheduler->processScheduler(1000);
    EXPECT_EQ(popped, Lines{"result"});
    EXPECT_EQ(machine.selects.size(), 1U);
}

TEST_F(Observed, mayPushBeforeThePumpDecidesWhetherToSleep)
{
    startAndForget(1);
    push({"job"});
    scheduler->processScheduler(0);
    scheduler->processScheduler(0);
    answer(0, "result");
    observer.mOnEvent = [&](const auto&) {
        observer.mOnEvent = nullptr;
        results();
        push({"next"});
    };
    scheduler->processScheduler(1000);
    EXPECT_TRUE(machine.selects.empty());
    EXPECT_EQ(scheduler->jobCount(), 1U);
}

TEST_F(Observed, cannotStartStopOrPumpInsideAnEvent)
{
    observer.mOnEvent = [this](const auto&) {
        const Lines before = machine.calls;
        EXPECT_FALSE(scheduler->startScheduler(1, connectionTimeout));
        EXPECT_FALSE(scheduler->startWorker());
        EXPECT_FALSE(scheduler->stopScheduler());
        EXPECT_FALSE(scheduler->setObserver(nullptr));
        scheduler->processScheduler(0);
        scheduler->waitForFinished();
        EXPECT_EQ(machine.calls, before);
    };
    start(1);
    push({"job"});
    answer(0, "result");
    EXPECT_TRUE(scheduler->stopScheduler());
    EXPECT_EQ(told().size(), 4U);
}

TEST_F(Observed, isNotCancelledWhileItIsTold)
{
    std::vector<bool> couldBeCancelled;
    observer.mOnEvent = [&](const auto&) { couldBeCancelled.push_back(machine.isCancellable); };
    start(1);
    scheduler->stopScheduler();
    EXPECT_EQ(couldBeCancelled, (std::vector<bool>{false, false}));
    EXPECT_TRUE(machine.isCancellable);
}

TEST_F(Observed, canBeSetOnlyWhileStopped)
{
    KeepingObserver other;
    start(1);
    EXPECT_FALSE(scheduler->setObserver(&other));
    scheduler->stopScheduler();
    EXPECT_TRUE(other.mTold.empty());
    EXPECT_TRUE(scheduler->setObserver(&other));
    observer.mTold.clear();
    start(1);
    EXPECT_EQ(other.mTold.size(), 1U);
    EXPECT_TRUE(observer.mTold.empty());
    scheduler->stopScheduler();
    EXPECT_TRUE(scheduler->setObserver(nullptr));
}

TEST_F(Observed, isLeftAloneByTheDestructor)
{
    startAndForget(1);
    scheduler.reset();
    EXPECT_EQ(told(), Lines{});
    EXPECT_TRUE(process(0).isDestroyed);
}

TEST_F(Observed, hearsNothingInAForkedChild)
{
    startAndForget(1);
    machine.isForkedChild = true;
    EXPECT_FALSE(scheduler->setObserver(nullptr));
    scheduler->processScheduler(0);
    scheduler.reset();
    EXPECT_EQ(told(), Lines{});
}

TEST_F(Observed, hearsOfWorkersThatWereLaunchedBeforeItWasSetWithoutTheirLifetime)
{
    ASSERT_TRUE(scheduler->setObserver(nullptr));
    machine.server.connections = {scripted::Connection::arrives, scripted::Connection::timesOut};
    ASSERT_FALSE(scheduler->startScheduler(2, connectionTimeout));
    ASSERT_TRUE(scheduler->setObserver(&observer));
    startAndForget(1);
    die(0);
    scheduler->processScheduler(0);
    EXPECT_EQ(only(Kind::WorkerEnded).mPid, 4242);
    EXPECT_FALSE(only(Kind::WorkerEnded).mDuration.has_value());
}

TEST_F(Observed, isToldOfAWorkerThatEndedInAPassWhoseSleepUnwinds)
{
    startAndForget(2);
    die(0);
    machine.onSelect = []() -> int { throw std::bad_alloc(); };
    EXPECT_THROW(scheduler->processScheduler(1000), std::bad_alloc);
    EXPECT_EQ(told(), Lines{"ended 4242"});
}

/// A record alone, since a scheduler that has counted an empty job cannot be stopped.
struct ObservedRecord : WorkerRecordFixture {
    nq::nqEventLog events;
    KeepingObserver observer;

    ObservedRecord()
    {
        events.setObserver(&observer);
        worker->setEvents(events, std::nullopt);
    }
    ~ObservedRecord() override
    {
        worker.reset(); // it borrows the log
    }
};

TEST_F(ObservedRecord, saysNothingOfAnEmptyJob)
{
    queues.push({});
    step();
    ASSERT_EQ(queues.pendingJobCount(), 0U);
    events.deliver();
    EXPECT_TRUE(observer.mTold.empty());
}

/// A scheduler while memory is short.
struct ObservedWithoutMemory : Observed {
    void SetUp() override
    {
        if (!RefusedMemory::isPossible())
            GTEST_SKIP() << "this tool has its own allocator";
    }

    /// A job fails while there is no memory to keep its failure.
    void failUnkept()
    {
        startAndForget(1);
        push({"job"});
        scheduler->processScheduler(0);
        observer.mTold.clear();
        die(0);
        std::optional<RefusedMemory> refused;
        logger.onWrite = [&] { refused.emplace(1); };
        EXPECT_THROW(scheduler->processScheduler(0), std::bad_alloc);
    }
};

TEST_F(ObservedWithoutMemory, hearsThatAResultIsLost)
{
    startAndForget(1);
    push({"job"});
    scheduler->processScheduler(0);
    scheduler->processScheduler(0);
    // The queue takes its memory in blocks, and only the first entry of a block needs some.
    constexpr std::size_t blockBytes = 500;
    std::size_t lost = 0;
    for (int i = 0; i < 100 && lost == 0; ++i) {
        answer(0, "result");
        {
            const RefusedMemory refused(blockBytes);
            try {
                scheduler->processScheduler(0);
            } catch (const std::bad_alloc&) {
                lost = observer.of(Kind::ResultLost).size();
            }
        }
        push({"job"});
        scheduler->processScheduler(0);
        scheduler->processScheduler(0);
    }
    EXPECT_EQ(lost, 1U);
    EXPECT_EQ(results().size(), observer.of(Kind::ResultComplete).size());
}

TEST_F(ObservedWithoutMemory, hearsOfAFailureWhenItIsStored)
{
    failUnkept();
    EXPECT_EQ(told(), Lines{});
    scheduler->processScheduler(0);
    EXPECT_EQ(told(), (Lines{"failed 4242", "ended 4242", "launched 4243"}));
}

TEST_F(ObservedWithoutMemory, hearsOfAFailureThatAWaitStoresAndOfTheEndInTheNextPump)
{
    failUnkept();
    scheduler->waitForFinished();
    EXPECT_EQ(told(), Lines{"failed 4242"});
    scheduler->processScheduler(0);
    EXPECT_EQ(told(), (Lines{"ended 4242", "launched 4243"}));
}

TEST(UnobservedScheduler, readsNoClockAndNoEndForNobody)
{
    scripted::Machine machine;
    const auto scheduler =
        std::make_unique<nqScheduler>("/opt/w/worker", true, std::vector<std::string>{}, true);
    ASSERT_TRUE(scheduler->startScheduler(1, 1));
    scheduler->stopScheduler();
    EXPECT_EQ(machine.count("timer: start()"), 0);
    EXPECT_EQ(machine.count("process 4242: end()"), 0);
}

} // namespace
