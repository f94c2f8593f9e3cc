#include "fixture.h"

#include <algorithm>
#include <csignal>
#include <functional>
#include <poll.h>
#include <string>

namespace {

using end_to_end::EndToEnd;
using end_to_end::generousLimit;
using end_to_end::Pool;
using end_to_end::ProcessWatch;

/// A host that sleeps until the scheduler's descriptor is readable, and pumps for no other reason.
class WaitingHost : public EndToEnd {
protected:
    void startPool(unsigned long nbWorkers)
    {
        mDescriptor = mPool.scheduler().waitDescriptor();
        ASSERT_GE(mDescriptor, 0);
        ASSERT_TRUE(mPool.start(nbWorkers));
    }

    bool isReadable() const
    {
        pollfd watched{mDescriptor, POLLIN, 0};
        return ::poll(&watched, 1, 0) == 1;
    }

    /// Sleeps until the next wake-up, and does what there is to do. False when none comes.
    bool wakeUp()
    {
        if (!common::becomesReadable(mDescriptor))
            return false;
        ++mWakeUps;
        pumpTwice();
        return true;
    }

    /// The second call sends the bytes of a job that the first has handed out.
    void pumpTwice()
    {
        mPool.pump(0);
        if (mPool.scheduler().hasImmediateWork())
            mPool.pump(0);
    }

    bool wakeUpUntil(const std::function<bool()>& done)
    {
        while (!done()) {
            if (!wakeUp())
                return false;
        }
        return true;
    }

    bool collect(std::size_t count)
    {
        return wakeUpUntil(
            [&] { return mPool.answers().size() + mPool.failures().size() >= count; });
    }

    /// Works until nothing is left to do; false when there always is.
    bool comesToRest()
    {
        constexpr int ampleWakeUps = 1'000;
        for (int wakeUps = 0; wakeUps < ampleWakeUps; ++wakeUps) {
            if (!isReadable())
                return true;
            pumpTwice();
        }
        return false;
    }

    std::string ask(const std::string& job)
    {
        const std::size_t before = mPool.answers().size();
        mPool.push(job);
        return wakeUpUntil([&] { return mPool.answers().size() > before; }) ? mPool.answers().back()
                                                                            : "(no answer)";
    }

    Pool mPool;
    int mDescriptor = -1;
    int mWakeUps = 0;
};

} // namespace

TEST_F(WaitingHost, isNotWokenUpByAPoolThatHasNothingToDo)
{
    startPool(2);
    EXPECT_FALSE(isReadable());
    mPool.pump(0);
    EXPECT_FALSE(isReadable());
    EXPECT_EQ(ask("echo x"), "x");
    EXPECT_TRUE(comesToRest());
    for (int look = 0; look < 100; ++look)
        ASSERT_FALSE(isReadable());
}

TEST_F(WaitingHost, isWokenUpOnceForEachJobThatIsAskedForAlone)
{
    constexpr int jobs = 100;
    startPool(1);
    for (int job = 0; job < jobs; ++job) {
        mPool.push("echo " + std::to_string(job));
        pumpTwice();
        ASSERT_TRUE(collect(static_cast<std::size_t>(job) + 1));
        EXPECT_EQ(mPool.answers().back(), std::to_string(job));
    }
    EXPECT_EQ(mWakeUps, jobs);
    EXPECT_FALSE(isReadable());
}

TEST_F(WaitingHost, getsTheResultsOfManyJobsWithoutATick)
{
    constexpr std::size_t jobs = 500;
    startPool(2);
    for (std::size_t job = 0; job < jobs; ++job)
        mPool.push("echo " + std::to_string(job));
    EXPECT_TRUE(collect(jobs));
    EXPECT_TRUE(mPool.failures().empty());
    EXPECT_FALSE(isReadable());
}

TEST_F(WaitingHost, isWokenUpForTheRestOfALargeJobAndOfItsResult)
{
    const std::string large(std::size_t{32} << 20, 'x');
    startPool(1);
    EXPECT_EQ(ask("echo " + large), large);
    EXPECT_TRUE(comesToRest());
}

TEST_F(WaitingHost, isQuietWhileAWorkerDoesNotReadItsLargeJob)
{
    startPool(1);
    const std::string pid = ask("pid");
    const ProcessWatch worker(std::stoi(pid));
    ASSERT_TRUE(comesToRest());
    ASSERT_TRUE(worker.kill(SIGSTOP));
    mPool.push("echo " + std::string(std::size_t{32} << 20, 'x'));
    ASSERT_TRUE(comesToRest());
    EXPECT_EQ(mPool.scheduler().jobCount(), 1U);
    EXPECT_FALSE(mPool.scheduler().hasImmediateWork());
    ASSERT_TRUE(worker.kill(SIGCONT));
    EXPECT_TRUE(collect(2));
}

TEST_F(WaitingHost, isWokenUpByAWorkerThatCrashesAndHandsTheNextJobToItsReplacement)
{
    startPool(1);
    mPool.push("crash");
    mPool.push("echo next");
    EXPECT_TRUE(collect(2));
    EXPECT_EQ(mPool.failures().size(), 1U);
    EXPECT_EQ(mPool.answers(), std::vector<std::string>{"next"});
    EXPECT_TRUE(comesToRest());
}

TEST_F(WaitingHost, isWokenUpByTheDeathOfAnIdleWorker)
{
    startPool(1);
    const std::string pid = ask("pid");
    ASSERT_TRUE(comesToRest());
    ASSERT_TRUE(ProcessWatch(std::stoi(pid)).kill(SIGKILL));
    EXPECT_TRUE(wakeUp());
    EXPECT_TRUE(comesToRest());
    EXPECT_NE(ask("pid"), pid);
}

TEST_F(WaitingHost, isWokenUpByADeathThoughAHelperHoldsTheWorkersSocket)
{
    startPool(1);
    const std::string pid = ask("pid");
    const ProcessWatch helper(std::stoi(ask("fork-helper")));
    ASSERT_TRUE(comesToRest());
    ASSERT_TRUE(ProcessWatch(std::stoi(pid)).kill(SIGKILL));
    EXPECT_TRUE(wakeUp());
    EXPECT_TRUE(comesToRest());
    EXPECT_NE(ask("pid"), pid);
    EXPECT_TRUE(helper.endsWithin(generousLimit));
}

TEST_F(WaitingHost, isWokenUpByAPushWhileAWorkerIsReady)
{
    startPool(1);
    ASSERT_FALSE(isReadable());
    mPool.push("echo x");
    EXPECT_TRUE(isReadable());
    mPool.scheduler().clearPendingJobs();
    EXPECT_FALSE(isReadable());
}

TEST_F(WaitingHost, waitsForTheSameDescriptorAfterAStopAndAStart)
{
    startPool(1);
    EXPECT_EQ(ask("echo x"), "x");
    ASSERT_TRUE(mPool.scheduler().stopScheduler());
    EXPECT_FALSE(isReadable());
    EXPECT_EQ(mPool.scheduler().waitDescriptor(), mDescriptor);
    ASSERT_TRUE(mPool.start(1));
    EXPECT_FALSE(isReadable());
    EXPECT_EQ(ask("echo y"), "y");
}

TEST_F(WaitingHost, isNotDisturbedByAChildThatItForks)
{
    startPool(1);
    common::Child child([this] {
        const bool hasNone = mPool.scheduler().waitDescriptor() == -1;
        mPool.push("echo of the child");
        mPool.scheduler().clearPendingJobs();
        return hasNone && !mPool.scheduler().hasImmediateWork() ? 0 : 1;
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_FALSE(isReadable());
    EXPECT_EQ(ask("echo x"), "x");
}
