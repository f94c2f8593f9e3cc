#include "tests/common/observer.h"
#include "tests/unit/schedulerFixture.h"

#include <chrono>

using namespace support;
using nq::nqScheduler;

namespace {

constexpr std::int64_t firstPid = 4242;

class KillWorker : public SchedulerFixture {
protected:
    /// Starts `count` workers, the first of which gets a job.
    void startWithAJob(unsigned long count)
    {
        start(count);
        scheduler->push(bytes("job"));
        scheduler->processScheduler(0);
        forgetCalls();
    }

    bool kill(const std::string& message = "took the wrong turn")
    {
        return scheduler->killWorker(firstPid, nqScheduler::Timeout, message);
    }

    std::ptrdiff_t kills() const
    {
        return machine.count("process 4242: killProcess()");
    }
};

TEST_F(KillWorker, failsTheJobWithTheReasonAndTheMessage)
{
    startWithAJob(2);
    EXPECT_TRUE(kill());
    EXPECT_EQ(machine.calls, Lines{"process 4242: killProcess()"});
    pipe(0).lose();
    scheduler->processScheduler(0);
    EXPECT_EQ(
        failures(*scheduler),
        std::vector<Failure>({{"job", nqScheduler::Timeout, "took the wrong turn"}}));
    EXPECT_EQ(machine.messages(), Lines{"Job failed error (3) took the wrong turn (PID 4242)"});
    EXPECT_EQ(scheduler->workerCount(), 2U) << "one is the replacement";
}

TEST_F(KillWorker, losesToAResultThatHasBeenSent)
{
    startWithAJob(1);
    EXPECT_TRUE(kill());
    answer(0, "result");
    pipe(0).endsWhenDrained = true;
    scheduler->processScheduler(0);
    EXPECT_EQ(results(), Lines{"result"});
    EXPECT_EQ(scheduler->failCount(), 0U);
    EXPECT_EQ(machine.processes.size(), 2U);
}

TEST_F(KillWorker, replacesAnIdleWorkerInSilence)
{
    start(1);
    EXPECT_TRUE(kill());
    pipe(0).lose();
    scheduler->processScheduler(0);
    EXPECT_EQ(scheduler->failCount(), 0U);
    EXPECT_EQ(machine.messages(), Lines{});
    EXPECT_EQ(machine.processes.size(), 2U);
}

TEST_F(KillWorker, leavesAPendingJobToTheOthers)
{
    start(1);
    EXPECT_TRUE(kill());
    scheduler->push(bytes("job"));
    scheduler->processScheduler(0);
    EXPECT_EQ(scheduler->pendingJobCount(), 1U);
}

TEST_F(KillWorker, keepsTheReasonOfAnEarlierKill)
{
    startWithAJob(1);
    EXPECT_TRUE(kill("first"));
    EXPECT_FALSE(scheduler->killWorker(firstPid, nqScheduler::TooMuchRam, "second"));
    EXPECT_EQ(kills(), 1);
    pipe(0).lose();
    scheduler->processScheduler(0);
    EXPECT_EQ(failures(*scheduler), std::vector<Failure>({{"job", nqScheduler::Timeout, "first"}}));
}

TEST_F(KillWorker, isNotOvertakenByALimit)
{
    scheduler->setJobProcessTimeout(1);
    startWithAJob(1);
    EXPECT_TRUE(kill());
    machine.advance(std::chrono::hours{1});
    scheduler->processScheduler(0);
    EXPECT_EQ(kills(), 1);
    pipe(0).lose();
    scheduler->processScheduler(0);
    EXPECT_EQ(failures(*scheduler).at(0).message, "took the wrong turn");
}

TEST_F(KillWorker, refusesAWorkerThatALimitHasKilled)
{
    scheduler->setMaxCapMemory(100);
    startWithAJob(1);
    process(0).ramInUse = 101;
    scheduler->processScheduler(0);
    EXPECT_FALSE(kill());
    EXPECT_EQ(kills(), 1);
}

TEST_F(KillWorker, refusesWhatIsNoWorker)
{
    startWithAJob(1);
    EXPECT_FALSE(scheduler->killWorker(4711, nqScheduler::Timeout, "text"));
    EXPECT_FALSE(scheduler->killWorker(0, nqScheduler::Timeout, "text"));
    EXPECT_FALSE(scheduler->killWorker(-1, nqScheduler::Timeout, "text"));
    EXPECT_EQ(machine.calls, Lines{});
}

TEST_F(KillWorker, refusesAWorkerThatIsGone)
{
    start(1);
    die(0);
    scheduler->processScheduler(0);
    EXPECT_FALSE(kill());
    scheduler->stopScheduler();
    EXPECT_FALSE(scheduler->killWorker(firstPid + 1, nqScheduler::Timeout, "text"));
    EXPECT_EQ(kills(), 0);
}

TEST_F(KillWorker, refusesWhatNoJobFailsWith)
{
    startWithAJob(1);
    EXPECT_FALSE(scheduler->killWorker(firstPid, nqScheduler::NoFailure, "text"));
    for (const int number : {-1, 4, 99})
        EXPECT_FALSE(
            scheduler->killWorker(firstPid, static_cast<nqScheduler::FailReason>(number), "text"));
    EXPECT_EQ(kills(), 0);
}

TEST_F(KillWorker, takesEveryReasonThatAJobFailsWith)
{
    start(3);
    EXPECT_TRUE(scheduler->killWorker(firstPid, nqScheduler::UnexpectedCrash, "text"));
    EXPECT_TRUE(scheduler->killWorker(firstPid + 1, nqScheduler::TooMuchRam, "text"));
    EXPECT_TRUE(scheduler->killWorker(firstPid + 2, nqScheduler::Timeout, ""));
}

TEST_F(KillWorker, endsAWorkerThatAFailedStartHasLeft)
{
    machine.server.connections = {scripted::Connection::arrives, scripted::Connection::timesOut};
    ASSERT_FALSE(scheduler->startScheduler(2, connectionTimeout));
    EXPECT_TRUE(kill());
    EXPECT_EQ(kills(), 1);
}

TEST_F(KillWorker, doesNothingInsideALogger)
{
    startWithAJob(2);
    die(0);
    bool isRefused = false;
    logger.onWrite = [&] {
        isRefused = !scheduler->killWorker(firstPid + 1, nqScheduler::Timeout, "text");
    };
    scheduler->processScheduler(0);
    EXPECT_TRUE(isRefused);
    EXPECT_EQ(machine.count("process 4243: killProcess()"), 0);
}

TEST_F(KillWorker, doesNothingInAForkedChild)
{
    start(1);
    machine.isForkedChild = true;
    EXPECT_FALSE(kill());
    EXPECT_EQ(kills(), 0);
}

TEST_F(KillWorker, isTheReasonOfTheEndAlsoWhenTheLastResultComesWithTooMuchMemory)
{
    common::KeepingObserver observer;
    ASSERT_TRUE(scheduler->setObserver(&observer));
    scheduler->setMaxCapMemoryAfterProcessingAJob(100);
    startWithAJob(1);
    ASSERT_TRUE(kill());
    process(0).ramInUse = 101;
    answer(0, "result");
    scheduler->processScheduler(0);
    using Event = nq::nqSchedulerEvent;
    const auto ended = observer.of(Event::Kind::WorkerEnded);
    ASSERT_EQ(ended.size(), 1U);
    EXPECT_EQ(ended[0].mEndReason, Event::EndReason::KilledByTheHost);
    scheduler.reset();
}

TEST_F(KillWorker, isToldAsTheReasonOfTheEnd)
{
    common::KeepingObserver observer;
    ASSERT_TRUE(scheduler->setObserver(&observer));
    startWithAJob(1);
    EXPECT_TRUE(kill());
    pipe(0).lose();
    scheduler->processScheduler(0);
    using Event = nq::nqSchedulerEvent;
    const auto failed = observer.of(Event::Kind::JobFailed);
    ASSERT_EQ(failed.size(), 1U);
    EXPECT_EQ(failed[0].mText, "took the wrong turn");
    const auto ended = observer.of(Event::Kind::WorkerEnded);
    ASSERT_EQ(ended.size(), 1U);
    EXPECT_EQ(ended[0].mEndReason, Event::EndReason::KilledByTheHost);
    scheduler.reset();
}

} // namespace
