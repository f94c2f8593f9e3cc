// What a host sees of a real pool through its windows: observer, counts, kills, healing.
#include "fixture.h"
#include "tests/common/observer.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>
#include <sys/wait.h>
#include <vector>

namespace {

using common::KeepingObserver;
using end_to_end::EndToEnd;
using end_to_end::Pool;
using end_to_end::ProcessWatch;
using end_to_end::TemporaryFolder;
using end_to_end::workerPath;
using nq::nqScheduler;
using nq::nqWorkerStatus;
using Event = nq::nqSchedulerEvent;
using Kind = Event::Kind;
using EndReason = Event::EndReason;
using Told = KeepingObserver::Told;

class Observing : public EndToEnd {
protected:
    KeepingObserver mObserver;

    bool start(Pool& pool, unsigned long nbWorkers)
    {
        return pool.scheduler().setObserver(&mObserver) && pool.start(nbWorkers);
    }

    /// What was told once of that kind, and last if more than once.
    Told last(Kind kind) const
    {
        const auto all = mObserver.of(kind);
        EXPECT_FALSE(all.empty());
        return all.empty() ? Told{} : all.back();
    }
};

TEST_F(Observing, aJobAndItsResultAreTold)
{
    Pool pool;
    ASSERT_TRUE(start(pool, 1));
    const std::string pid = pool.ask("pid");
    const Told launched = last(Kind::WorkerLaunched);
    EXPECT_EQ(std::to_string(launched.mPid), pid);
    EXPECT_GT(launched.mDuration.value().count(), 0);
    EXPECT_EQ(std::to_string(last(Kind::JobHandedOut).mPid), pid);
    EXPECT_EQ(last(Kind::JobHandedOut).mBytes, 3U);
    EXPECT_EQ(last(Kind::ResultComplete).mBytes, pid.size());
    EXPECT_TRUE(pool.scheduler().stopScheduler());
    const Told ended = last(Kind::WorkerEnded);
    EXPECT_EQ(ended.mEndReason, EndReason::Stopped);
    EXPECT_EQ(ended.mExitStatus, 0);
    EXPECT_FALSE(ended.mSignal.has_value());
    EXPECT_TRUE(ended.mUserTime.has_value());
}

TEST_F(Observing, aCrashIsToldWithItsSignal)
{
    Pool pool;
    ASSERT_TRUE(start(pool, 1));
    EXPECT_EQ(pool.ask("crash"), "(Unexpected crash)");
    EXPECT_EQ(last(Kind::JobFailed).mText, "Unexpected crash");
    EXPECT_EQ(last(Kind::WorkerEnded).mEndReason, EndReason::Lost);
    EXPECT_EQ(last(Kind::WorkerEnded).mSignal, SIGSEGV);
    EXPECT_EQ(last(Kind::WorkerEnded).mPid, last(Kind::JobFailed).mPid);
    EXPECT_EQ(mObserver.of(Kind::WorkerLaunched).size(), 2U);
}

TEST_F(Observing, anExitIsToldWithItsStatus)
{
    Pool pool;
    ASSERT_TRUE(start(pool, 1));
    pool.ask("exit 3");
    EXPECT_EQ(last(Kind::WorkerEnded).mEndReason, EndReason::Lost);
    EXPECT_EQ(last(Kind::WorkerEnded).mExitStatus, 3);
}

TEST_F(Observing, aTimeoutIsTold)
{
    Pool pool;
    ASSERT_TRUE(pool.scheduler().setJobProcessTimeout(1));
    ASSERT_TRUE(start(pool, 1));
    const std::string message = pool.ask("hang");
    EXPECT_EQ('(' + last(Kind::JobFailed).mText + ')', message);
    EXPECT_EQ(last(Kind::WorkerEnded).mEndReason, EndReason::Timeout);
    EXPECT_EQ(last(Kind::WorkerEnded).mSignal, SIGKILL);
    EXPECT_GE(last(Kind::WorkerEnded).mDuration.value(), std::chrono::seconds{2});
}

TEST_F(Observing, aWorkerOverItsMemoryCapIsToldWithWhatWasRead)
{
    constexpr unsigned long cap = 64UL << 20;
    Pool pool;
    ASSERT_TRUE(pool.scheduler().setMaxCapMemory(cap));
    ASSERT_TRUE(start(pool, 1));
    pool.ask("grow-and-hang " + std::to_string(2 * cap));
    const Told ended = last(Kind::WorkerEnded);
    EXPECT_EQ(ended.mEndReason, EndReason::TooMuchMemory);
    EXPECT_GT(ended.mLargestReading.value(), cap);
}

TEST_F(Observing, bytesThatNobodyAskedForShowAtTheNextJob)
{
    Pool pool;
    ASSERT_TRUE(start(pool, 1));
    EXPECT_EQ(pool.ask("flood answer"), "answer");
    ASSERT_TRUE(pool.pumpUntil([&] {
        // The flood fills the host's buffer while the worker is idle.
        pool.push("echo next");
        pool.pump(0);
        return last(Kind::JobHandedOut).mUnreadBytes != 0;
    }));
    for (const nqWorkerStatus& worker : pool.scheduler().workers())
        pool.scheduler().killWorker(worker.mPid, nqScheduler::Timeout, "floods");
}

TEST_F(Observing, aProgramThatIsNotThereIsToldWithItsErrorNumber)
{
    Pool pool("/no/such/worker", {});
    EXPECT_FALSE(start(pool, 1));
    EXPECT_EQ(last(Kind::LaunchFailed).mErrorNumber, ENOENT);
    EXPECT_EQ(last(Kind::LaunchFailed).mText, "Process state is not 'running'");
}

TEST_F(Observing, aWorkerThatLeavesBeforeItConnectsIsToldWithItsStatus)
{
    Pool pool({"--exit-at-once"});
    EXPECT_FALSE(start(pool, 1));
    EXPECT_EQ(last(Kind::LaunchFailed).mExitStatus, EXIT_FAILURE);
}

TEST_F(Observing, nothingIsKnownOfTheEndsInAHostThatIgnoresItsChildren)
{
    const auto before = std::signal(SIGCHLD, SIG_IGN);
    {
        Pool pool;
        ASSERT_TRUE(start(pool, 1));
        pool.ask("exit 3");
    }
    std::signal(SIGCHLD, before);
    const Told ended = last(Kind::WorkerEnded);
    EXPECT_EQ(ended.mEndReason, EndReason::Lost);
    EXPECT_FALSE(ended.mExitStatus.has_value());
    EXPECT_FALSE(ended.mSignal.has_value());
    EXPECT_FALSE(ended.mUserTime.has_value());
}

TEST_F(Observing, countsFollowAJob)
{
    Pool pool;
    ASSERT_TRUE(pool.start(2));
    pool.push("hang");
    pool.pump(0);
    const nqScheduler& scheduler = pool.scheduler();
    EXPECT_EQ(scheduler.workerCount(), 2U);
    EXPECT_EQ(scheduler.busyWorkerCount(), 1U);
    const auto workers = scheduler.workers();
    ASSERT_EQ(workers.size(), 2U);
    EXPECT_EQ(workers[0].mState, nqWorkerStatus::State::Busy);
    EXPECT_EQ(workers[1].mState, nqWorkerStatus::State::Idle);
    EXPECT_GT(workers[1].mResidentMemory, 0U);
    EXPECT_TRUE(
        pool.scheduler().killWorker(workers[0].mPid, nqScheduler::Timeout, "enough of this"));
    EXPECT_EQ(scheduler.workers().at(0).mState, nqWorkerStatus::State::Leaving);
    ASSERT_TRUE(pool.collect(1));
}

TEST_F(Observing, aKillFailsTheJobWithTheHostsOwnWords)
{
    Pool pool;
    ASSERT_TRUE(start(pool, 1));
    const pid_t pid = std::stoi(pool.ask("pid"));
    const ProcessWatch watch(pid);
    pool.push("hang");
    pool.pump(0);
    EXPECT_TRUE(pool.scheduler().killWorker(pid, nqScheduler::TooMuchRam, "enough of this"));
    ASSERT_TRUE(pool.collect(2));
    ASSERT_EQ(pool.failures().size(), 1U);
    EXPECT_EQ(pool.failures()[0].job, "hang");
    EXPECT_EQ(pool.failures()[0].reason, nqScheduler::TooMuchRam);
    EXPECT_EQ(pool.failures()[0].message, "enough of this");
    EXPECT_FALSE(watch.lives());
    EXPECT_EQ(last(Kind::WorkerEnded).mEndReason, EndReason::KilledByTheHost);
    EXPECT_EQ(last(Kind::WorkerEnded).mSignal, SIGKILL);
    EXPECT_NE(pool.ask("pid"), std::to_string(pid));
}

TEST_F(Observing, aPoolThatHasRunEmptyHealsOnceItsProgramIsBack)
{
    const TemporaryFolder folder;
    const std::string program = folder.file("worker");
    std::filesystem::copy_file(workerPath(), program);
    Pool pool(program, {});
    ASSERT_TRUE(pool.start(2));
    std::filesystem::rename(program, folder.file("elsewhere"));
    pool.push("exit 0");
    pool.push("exit 0");
    ASSERT_TRUE(pool.pumpUntil([&] { return pool.scheduler().workerCount() == 0; }));
    pool.push("echo still here");
    EXPECT_FALSE(pool.scheduler().healWorkers());
    std::filesystem::rename(folder.file("elsewhere"), program);
    EXPECT_TRUE(pool.scheduler().healWorkers());
    EXPECT_EQ(pool.scheduler().workerCount(), 2U);
    ASSERT_TRUE(pool.collect(3));
    EXPECT_EQ(pool.answers().back(), "still here");
}

} // namespace
