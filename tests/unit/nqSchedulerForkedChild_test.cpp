#include "tests/unit/schedulerFixture.h"

using namespace support;

namespace {

/// A child that the host has forked, with its copy of the host's scheduler.
class SchedulerInAForkedChild : public SchedulerFixture {
protected:
    void fork()
    {
        machine.takeCalls();
        machine.isForkedChild = true;
    }
};

TEST_F(SchedulerInAForkedChild, neitherStartsNorStopsNorPumps)
{
    start(1);
    scheduler->push(bytes("job"));
    fork();
    EXPECT_FALSE(scheduler->startScheduler(1, connectionTimeout));
    EXPECT_FALSE(scheduler->startWorker());
    EXPECT_FALSE(scheduler->stopScheduler());
    scheduler->processScheduler(1000);
    scheduler->waitForFinished();
    EXPECT_EQ(machine.takeCalls(), Lines{});
    EXPECT_EQ(machine.messages(), Lines{});
    EXPECT_EQ(scheduler->jobCount(), 1U);
}

TEST_F(SchedulerInAForkedChild, doesNotStartWhatTheParentHadNotStarted)
{
    fork();
    EXPECT_FALSE(scheduler->startScheduler(1, connectionTimeout));
    EXPECT_EQ(machine.takeCalls(), Lines{});
}

TEST_F(SchedulerInAForkedChild, isDestroyedWithoutDrainingItsJobs)
{
    start(1);
    scheduler->push(bytes("job"));
    fork();
    scheduler.reset();
    EXPECT_EQ(machine.selects.size(), 0U);
    EXPECT_TRUE(machine.pipes.at(0)->passedOn.empty());
}

} // namespace
