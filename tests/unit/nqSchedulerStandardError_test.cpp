#include "tests/unit/schedulerFixture.h"

#include <algorithm>
#include <cstdint>
#include <utility>

using namespace support;

namespace {

using Taken = std::vector<std::pair<std::int64_t, int>>;

class SchedulerStandardError : public SchedulerFixture {
protected:
    /// The next worker has this reading end.
    void planEnd(int descriptor)
    {
        machine.planProcess().standardError = descriptor;
    }

    void startCaptured(unsigned long count)
    {
        ASSERT_TRUE(scheduler->setCaptureStandardError(true));
        start(count);
    }

    Taken takeAll()
    {
        Taken all;
        std::int64_t pid = 0;
        int descriptor = -1;
        while (scheduler->takeStandardError(pid, descriptor))
            all.emplace_back(pid, descriptor);
        return all;
    }

    bool isClosed(int descriptor) const
    {
        const std::string line = "descriptor " + std::to_string(descriptor) + ": closed";
        return std::count(machine.calls.begin(), machine.calls.end(), line) != 0;
    }

    void pump()
    {
        scheduler->processScheduler(0);
    }
};

TEST_F(SchedulerStandardError, isNotCapturedUnlessToldSo)
{
    start(1);
    EXPECT_FALSE(process(0).capturesStandardError);
    EXPECT_EQ(takeAll(), Taken{});
}

TEST_F(SchedulerStandardError, isChosenWhileStoppedOnly)
{
    start(1);
    EXPECT_FALSE(scheduler->setCaptureStandardError(true));
    die(0);
    pump();
    EXPECT_FALSE(process(1).capturesStandardError);
    ASSERT_TRUE(scheduler->stopScheduler());
    EXPECT_TRUE(scheduler->setCaptureStandardError(true));
}

TEST_F(SchedulerStandardError, isHandedOverOnceForEachLaunchInTheirOrder)
{
    planEnd(100);
    planEnd(101);
    startCaptured(2);
    EXPECT_EQ(takeAll(), (Taken{{4242, 100}, {4243, 101}}));
    EXPECT_EQ(takeAll(), Taken{});
}

TEST_F(SchedulerStandardError, leavesTheArgumentsAloneWhenThereIsNone)
{
    std::int64_t pid = 7;
    int descriptor = 8;
    EXPECT_FALSE(scheduler->takeStandardError(pid, descriptor));
    EXPECT_EQ(pid, 7);
    EXPECT_EQ(descriptor, 8);
}

TEST_F(SchedulerStandardError, ofAReplacementFollows)
{
    planEnd(100);
    planEnd(101);
    startCaptured(1);
    EXPECT_EQ(takeAll(), (Taken{{4242, 100}}));
    die(0);
    pump();
    EXPECT_EQ(takeAll(), (Taken{{4243, 101}}));
    EXPECT_FALSE(isClosed(100)) << "it is the host's";
}

TEST_F(SchedulerStandardError, staysOpenWhileTheWorkerLives)
{
    planEnd(100);
    startCaptured(1);
    for (int pass = 0; pass < 3; ++pass)
        pump();
    EXPECT_FALSE(isClosed(100)) << "the worker would get SIGPIPE";
}

TEST_F(SchedulerStandardError, ofAWorkerThatEndedIsThereUntilTheNextPump)
{
    planEnd(100);
    startCaptured(1);
    die(0);
    pump();
    EXPECT_FALSE(isClosed(100));
    pump();
    EXPECT_TRUE(isClosed(100));
    EXPECT_EQ(takeAll().size(), 1U) << "that of the replacement";
}

TEST_F(SchedulerStandardError, ofALaunchThatFailedIsThereUntilTheNextPump)
{
    planEnd(100);
    planEnd(101);
    startCaptured(1);
    takeAll();
    die(0);
    machine.server.connections = {scripted::Connection::timesOut};
    pump();
    EXPECT_EQ(takeAll(), (Taken{{4243, 101}}));
}

TEST_F(SchedulerStandardError, ofAStartThatFailedIsClosedByTheNextStart)
{
    planEnd(100);
    ASSERT_TRUE(scheduler->setCaptureStandardError(true));
    machine.server.connections = {scripted::Connection::timesOut};
    ASSERT_FALSE(scheduler->startScheduler(1, connectionTimeout));
    EXPECT_FALSE(isClosed(100));
    ASSERT_TRUE(scheduler->startScheduler(0, connectionTimeout));
    EXPECT_TRUE(isClosed(100));
}

TEST_F(SchedulerStandardError, ofAStoppedWorkerIsThereUntilTheNextStart)
{
    planEnd(100);
    startCaptured(1);
    ASSERT_TRUE(scheduler->stopScheduler());
    EXPECT_FALSE(isClosed(100));
    start(0);
    EXPECT_EQ(takeAll(), Taken{});
}

TEST_F(SchedulerStandardError, ofAWorkerThatDoesNotLeaveEndsTheWaitForIt)
{
    planEnd(11);
    startCaptured(1);
    process(0).endsWhenWaitedFor = false;
    pipe(0).lose();
    pump();
    EXPECT_EQ(machine.count("process 4242: killProcess()"), 1);
}

TEST_F(SchedulerStandardError, isClosedWithTheScheduler)
{
    planEnd(100);
    startCaptured(1);
    scheduler.reset();
    EXPECT_TRUE(isClosed(100));
}

TEST_F(SchedulerStandardError, ofAProcessThatDidNotStartIsNone)
{
    ASSERT_TRUE(scheduler->setCaptureStandardError(true));
    machine.planProcess().stateAfterStart = nq::nqProcess::NotStarted;
    ASSERT_FALSE(scheduler->startScheduler(1, connectionTimeout));
    EXPECT_EQ(takeAll(), Taken{});
}

} // namespace
