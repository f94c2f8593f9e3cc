#include "fixture.h"

#include "nqSystemUtils.h"

#include <algorithm>
#include <string>
#include <vector>

namespace {

using end_to_end::EndToEnd;
using end_to_end::Pool;

class StartStop : public EndToEnd {};

unsigned long workerLimit()
{
    return static_cast<unsigned long>(std::max(2 * nq::nqSystemUtils::GetIdealThreadCount(), 4));
}

TEST_F(StartStop, aSchedulerStartsAgainUnderTheSameName)
{
    Pool pool;
    std::string firstArguments;
    for (int round = 0; round < 5; ++round) {
        ASSERT_TRUE(pool.start(2));
        const std::string arguments = pool.ask("arguments");
        EXPECT_EQ(arguments, round == 0 ? arguments : firstArguments);
        firstArguments = arguments;
        EXPECT_TRUE(pool.scheduler().stopScheduler());
        EXPECT_TRUE(end_to_end::children().empty());
    }
    EXPECT_EQ(pool.answers().size(), 5U);
}

TEST_F(StartStop, theQueuesOutliveAStop)
{
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    pool.push("echo gathered by the stop");
    pool.push("crash");
    EXPECT_TRUE(pool.scheduler().stopScheduler());
    EXPECT_EQ(pool.scheduler().jobCount(), 0U);
    EXPECT_EQ(pool.scheduler().resultCount(), 1U);
    EXPECT_EQ(pool.scheduler().failCount(), 1U);

    pool.push("echo pushed between");
    EXPECT_EQ(pool.scheduler().jobCount(), 1U);
    ASSERT_TRUE(pool.start(1));
    ASSERT_TRUE(pool.collect(3));
    EXPECT_EQ(pool.answers(), (std::vector<std::string>{"gathered by the stop", "pushed between"}));
}

TEST_F(StartStop, aSecondStopIsRefused)
{
    Pool pool;
    EXPECT_FALSE(pool.scheduler().stopScheduler());
    ASSERT_TRUE(pool.start(1));
    EXPECT_TRUE(pool.scheduler().stopScheduler());
    EXPECT_FALSE(pool.scheduler().stopScheduler());
}

TEST_F(StartStop, aSecondStartIsRefusedAndReported)
{
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    EXPECT_FALSE(pool.start(1));
    ASSERT_EQ(mLog.messages(), std::vector<std::string>{"Cannot startScheduler - already started"});
    EXPECT_EQ(mLog.lines()[0].level, 2);
    EXPECT_TRUE(mLog.lines()[0].flush);
    EXPECT_EQ(end_to_end::children().size(), 1U);
    EXPECT_EQ(pool.ask("echo still serving"), "still serving");
}

TEST_F(StartStop, tooManyWorkersAreRefusedAndTheNextStartWorks)
{
    const unsigned long tooMany = workerLimit() + 1;
    Pool pool;
    EXPECT_FALSE(pool.start(tooMany));
    ASSERT_EQ(
        mLog.messages(),
        std::vector<std::string>{
            "Too many workers (" + std::to_string(tooMany) + "), limit to ideal thread count"});
    EXPECT_EQ(mLog.lines()[0].level, 2);
    EXPECT_TRUE(mLog.lines()[0].flush);
    EXPECT_TRUE(end_to_end::children().empty());
    EXPECT_FALSE(pool.scheduler().stopScheduler());

    // Intended: the refused start left the scheduler listening, which is no obstacle.
    ASSERT_TRUE(pool.start(1));
    EXPECT_EQ(pool.ask("echo started"), "started");
}

TEST_F(StartStop, asManyWorkersAsTheLimitAreAccepted)
{
    Pool pool;
    ASSERT_TRUE(pool.start(workerLimit()));
    EXPECT_EQ(end_to_end::children().size(), workerLimit());
    EXPECT_EQ(pool.ask("echo served"), "served");
}

TEST_F(StartStop, aStartWithoutWorkersLeavesJobsPending)
{
    Pool pool;
    ASSERT_TRUE(pool.start(0));
    EXPECT_TRUE(end_to_end::children().empty());
    pool.push("echo pending");
    for (int pass = 0; pass < 10; ++pass)
        pool.pump(10);
    EXPECT_EQ(pool.scheduler().jobCount(), 1U);
    pool.scheduler().clearPendingJobs(); // the stop would wait for it for ever
    EXPECT_TRUE(pool.scheduler().stopScheduler());
}

TEST_F(StartStop, aSchedulerThatIsNotStartedDoesNotPump)
{
    Pool pool;
    pool.push("echo pending");
    pool.scheduler().waitForFinished();
    pool.pump(1000);
    EXPECT_EQ(pool.scheduler().jobCount(), 1U);
    EXPECT_TRUE(end_to_end::children().empty());
}

TEST_F(StartStop, theConfigurationIsFrozenWhileStarted)
{
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    EXPECT_FALSE(pool.scheduler().setJobProcessTimeout(1));
    EXPECT_FALSE(pool.scheduler().setMaxCapMemory(1));
    EXPECT_FALSE(pool.scheduler().setMaxCapMemoryAfterProcessingAJob(1));
    EXPECT_FALSE(pool.scheduler().setMaxPhysicalMemory(1));
    pool.scheduler().setExePathUtf8("/nowhere/worker");
    pool.scheduler().setArgumentsUtf8({"--never-connect"}, false);
    EXPECT_EQ(pool.ask("crash"), "(Unexpected crash)");
    EXPECT_EQ(pool.ask("echo replaced as before"), "replaced as before");

    ASSERT_TRUE(pool.scheduler().stopScheduler());
    EXPECT_TRUE(pool.scheduler().setJobProcessTimeout(1));
}

TEST_F(StartStop, theDestructorFirstProcessesEveryPendingJob)
{
    const end_to_end::TemporaryFolder folder;
    {
        // The answers are dropped with the scheduler; the failures' log lines tell what it did.
        Pool pool;
        ASSERT_TRUE(pool.start(2));
        for (int id = 0; id < 5; ++id)
            pool.push("exit 1");
    }
    EXPECT_EQ(mLog.lines().size(), 5U);
    EXPECT_TRUE(end_to_end::children().empty());
}

} // namespace
