#include "tests/cluster/clusterFixture.h"

#include <csignal>
#include <map>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace cluster {

using nq::nqAttempt;
using nq::nqClusterOptions;
using nq::nqJobId;
using nq::nqJobOptions;
using nq::nqOutcome;
using nq::nqPoolError;
using nq::nqPoolOptions;
using Reason = nqAttempt::Reason;
using State = nqOutcome::State;

class ClusterPool : public Cluster {};

TEST_F(ClusterPool, endsEachOfAThousandJobsInItsOwnOutcome)
{
    const auto first = startAgent("first");
    const auto second = startAgent("second");
    const auto pool = makePool();
    std::map<int, std::string> results;
    for (int i = 0; i < 1'000; ++i)
        pool->submit("echo " + std::to_string(i), [&results, i](nqOutcome&& outcome) {
            EXPECT_TRUE(results.emplace(i, outcome.text()).second);
        });
    EXPECT_TRUE(pool->drain());
    ASSERT_EQ(results.size(), 1'000U);
    for (const auto& [number, result] : results)
        EXPECT_EQ(result, std::to_string(number));
}

TEST_F(ClusterPool, deliversOutcomesInTheOrderOfSubmission)
{
    const auto agent = startAgent("agent");
    nqPoolOptions options;
    options.order = nqPoolOptions::Order::Submission;
    const auto pool = makePool(options);
    const nqJobId first = pool->submit(waiting("first"));
    const nqJobId second = pool->submit("echo second");
    ASSERT_TRUE(runs(*pool, "first"));
    end("first");
    EXPECT_EQ(nextOf(*pool).id, first);
    EXPECT_EQ(nextOf(*pool).id, second);
}

TEST_F(ClusterPool, carriesEmptyAndBinaryJobsAndResults)
{
    const auto agent = startAgent("agent");
    const auto pool = makePool();
    pool->submit("");
    EXPECT_EQ(nextOf(*pool).text(), "");
    const std::string bytes("\0\r\n$5\xFF", 6);
    pool->submit(bytes);
    EXPECT_EQ(nextOf(*pool).text(), std::string(bytes.rbegin(), bytes.rend()));
}

TEST_F(ClusterPool, carriesLargeJobsAndResults)
{
    const auto agent = startAgent("agent", {"--lease", "30"}); // a busy machine takes its time
    const auto pool = makePool();
    const std::string text = "echo " + std::string(20U << 20, 'a');
    pool->submit(text);
    EXPECT_TRUE(nextOf(*pool).text() == std::string_view(text).substr(5));
}

TEST_F(ClusterPool, refusesAJobThatNoQueueCarriesAndSaysWhatToDo)
{
    const auto pool = makePool();
    try {
        pool->submit(std::vector<char>((64U << 20) + 1));
        FAIL();
    } catch (const nqPoolError& error) {
        EXPECT_NE(
            std::string(error.what()).find("put its data where all agents"), std::string::npos);
    }
    EXPECT_EQ(pool->unfinishedCount(), 0U);
}

TEST_F(ClusterPool, failsAJobWhoseResultNoQueueCarries)
{
    const auto agent = startAgent("agent", {"--lease", "30"}); // a busy machine takes its time
    const auto pool = makePool();
    pool->submit("large " + std::to_string((64U << 20) + 1));
    const nqOutcome outcome = nextOf(*pool);
    EXPECT_EQ(outcome.reason, Reason::ResultLost);
    EXPECT_EQ(outcome.message, "its 67108865 bytes are more than the 64 MB that a queue carries");
}

TEST_F(ClusterPool, handsBackAFailedJobWithItsBytesAndWhatIsKnown)
{
    const auto agent = startAgent("agent");
    const auto pool = makePool();
    pool->submit("crash");
    const nqOutcome outcome = nextOf(*pool);
    EXPECT_EQ(outcome.state, State::Failed);
    EXPECT_EQ(outcome.reason, Reason::Crashed);
    EXPECT_EQ(outcome.text(), "crash");
    EXPECT_EQ(outcome.signal, SIGKILL);
    EXPECT_NE(outcome.pid, 0);
}

TEST_F(ClusterPool, tellsWhatAWorkerReportsOfAFailure)
{
    const auto agent = startAgent("agent");
    const auto pool = makePool();
    pool->submit("report the converter crashed");
    const nqOutcome outcome = nextOf(*pool);
    EXPECT_EQ(outcome.reason, Reason::Crashed);
    EXPECT_TRUE(outcome.toldByWorker);
    EXPECT_EQ(outcome.message, "the converter crashed");
    EXPECT_EQ(outcome.signal, SIGSEGV);
}

TEST_F(ClusterPool, triesAFailedJobAgainAsOftenAsItsPolicySays)
{
    const auto first = startAgent("first");
    const auto second = startAgent("second");
    const auto pool = makePool();
    nqJobOptions options;
    options.retry = attempts(3);
    pool->submit("crash", options);
    const nqOutcome outcome = nextOf(*pool);
    EXPECT_EQ(outcome.reason, Reason::Crashed);
    EXPECT_EQ(outcome.earlierAttempts.size(), 2U);
    EXPECT_EQ(pool->statistics().retried, 2U);
}

TEST_F(ClusterPool, givesAJobItsOwnTimeout)
{
    const auto agent = startAgent("agent");
    const auto pool = makePool();
    nqJobOptions options;
    options.timeout = std::chrono::milliseconds(50);
    pool->submit(waiting("never"), options);
    EXPECT_EQ(nextOf(*pool).reason, Reason::Timeout);
}

TEST_F(ClusterPool, endsAJobAtItsDeadlineThoughNoAgentIsThere)
{
    const auto pool = makePool();
    nqJobOptions options;
    options.deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(50);
    pool->submit("echo", options);
    EXPECT_EQ(nextOf(*pool).reason, Reason::Deadline);
    EXPECT_TRUE(pumpUntil(*pool, [&] { return mRedis->ask({"XLEN", jobsKey}) == "0"; }));
}

TEST_F(ClusterPool, saysThatNoAgentIsThere)
{
    const auto pool = makePool();
    pool->submit("echo");
    EXPECT_TRUE(pumpUntil(
        *pool, [&] { return pool->problem().find("No agent takes jobs") != std::string::npos; }));
}

TEST_F(ClusterPool, cancelsAJobThatWaits)
{
    const auto pool = makePool();
    const nqJobId id = pool->submit("echo");
    ASSERT_TRUE(pumpUntil(*pool, [&] { return mRedis->ask({"XLEN", jobsKey}) == "1"; }));
    EXPECT_TRUE(pool->cancel(id));
    const nqOutcome outcome = nextOf(*pool);
    EXPECT_EQ(outcome.reason, Reason::Cancelled);
    EXPECT_EQ(outcome.state, State::Cancelled);
    EXPECT_EQ(outcome.text(), "echo");
    EXPECT_EQ(mRedis->ask({"XLEN", jobsKey}), "0");
}

TEST_F(ClusterPool, cancelsAJobThatRunsAndFreesItsWorker)
{
    const auto agent = startAgent("agent", {"--workers", "1"});
    const auto pool = makePool();
    const nqJobId id = pool->submit(waiting("long"));
    ASSERT_TRUE(runs(*pool, "long"));
    EXPECT_TRUE(pool->cancel(id));
    EXPECT_EQ(nextOf(*pool).reason, Reason::Cancelled);
    pool->submit("echo next");
    EXPECT_EQ(nextOf(*pool).text(), "next");
}

TEST_F(ClusterPool, cancelsAJobWhenRedisTakesCommandsAgain)
{
    const auto pool = makePool();
    const nqJobId id = pool->submit("echo");
    ASSERT_TRUE(pumpUntil(*pool, [&] { return mRedis->ask({"XLEN", jobsKey}) == "1"; }));
    mRedis->ask({"CONFIG", "SET", "min-replicas-to-write", "1"});
    EXPECT_TRUE(pool->cancel(id));
    ASSERT_TRUE(
        pumpUntil(*pool, [&] { return pool->problem().find("NOREPLICAS") != std::string::npos; }));
    mRedis->ask({"CONFIG", "SET", "min-replicas-to-write", "0"});
    const nqOutcome outcome = nextOf(*pool);
    EXPECT_EQ(outcome.id, id);
    EXPECT_EQ(outcome.reason, Reason::Cancelled);
}

TEST_F(ClusterPool, cancelsAJobThatHasBeenHandedBack)
{
    const auto pool = makePool();
    const auto first = startAgent("first", {"--workers", "1", "--prefetch", "1"});
    pool->submit(waiting("long"));
    ASSERT_TRUE(runs(*pool, "long"));
    const nqJobId id = pool->submit("echo");
    ASSERT_TRUE(pumpUntil(*pool, [&] {
        return mRedis->ask({"XPENDING", jobsKey, "agents"}).substr(0, 1) == "2";
    }));
    first->signal(SIGTERM);
    ASSERT_TRUE(first->says("hands back 1"));
    ASSERT_TRUE(pumpUntil(*pool, [&] {
        return mRedis->ask({"XPENDING", jobsKey, "agents"}).substr(0, 1) == "1";
    }));
    EXPECT_TRUE(pool->cancel(id));
    const nqOutcome outcome = nextOf(*pool);
    EXPECT_EQ(outcome.id, id);
    EXPECT_EQ(outcome.reason, Reason::Cancelled);
}

TEST_F(ClusterPool, cancelsWhatWaitsAndLeavesWhatAnAgentHas)
{
    const auto agent = startAgent("agent", {"--workers", "1", "--prefetch", "0"});
    const auto pool = makePool();
    const nqJobId running = pool->submit(waiting("long"));
    ASSERT_TRUE(runs(*pool, "long"));
    const nqJobId queued = pool->submit("echo");
    EXPECT_TRUE(pool->cancelWaiting(running));
    EXPECT_TRUE(pool->cancelWaiting(queued));
    const nqOutcome first = nextOf(*pool);
    EXPECT_EQ(first.id, queued);
    EXPECT_EQ(first.reason, Reason::Cancelled);
    end("long");
    const nqOutcome second = nextOf(*pool);
    EXPECT_EQ(second.id, running);
    EXPECT_EQ(second.text(), "waited");
}

TEST_F(ClusterPool, cancelsAfterAllWhatItHasLeftToAnAgent)
{
    const auto agent = startAgent("agent", {"--workers", "1"});
    const auto pool = makePool();
    const nqJobId id = pool->submit(waiting("long"));
    ASSERT_TRUE(runs(*pool, "long"));
    EXPECT_TRUE(pool->cancelWaiting(id));
    EXPECT_TRUE(pool->cancel(id));
    EXPECT_EQ(nextOf(*pool).reason, Reason::Cancelled);
}

TEST_F(ClusterPool, doesNotCancelWhatHasAnOutcome)
{
    const auto agent = startAgent("agent");
    const auto pool = makePool();
    const nqJobId id = pool->submit("echo");
    nextOf(*pool);
    EXPECT_FALSE(pool->cancel(id));
    EXPECT_FALSE(pool->cancel(id + 1));
}

TEST_F(ClusterPool, takesItsJobsOutOfTheQueueWhenItIsStopped)
{
    const auto agent = startAgent("agent", {"--workers", "1", "--prefetch", "0"});
    const auto pool = makePool();
    pool->submit(waiting("long"));
    ASSERT_TRUE(runs(*pool, "long"));
    for (int i = 0; i < 10; ++i)
        pool->submit("echo");
    pool->stop();
    EXPECT_EQ(pool->unfinishedCount(), 0U);
    EXPECT_EQ(pool->statistics().byReason[static_cast<std::size_t>(Reason::Stopped)], 11U);
    EXPECT_EQ(mRedis->ask({"XLEN", jobsKey}), "0");
    EXPECT_EQ(pool->submit("echo"), 0U);
}

TEST_F(ClusterPool, isFullAtItsHighWaterMarkOfBytes)
{
    nqPoolOptions options;
    options.whenFull = nqPoolOptions::WhenFull::Refuse;
    nqClusterOptions cluster;
    cluster.maxPendingBytes = 100;
    const auto pool = makePool(options, cluster);
    EXPECT_NE(pool->submit(std::string(60, 'a')), 0U);
    EXPECT_EQ(pool->submit(std::string(60, 'a')), 0U);
    EXPECT_NE(pool->submit(std::string(40, 'a')), 0U);
}

TEST_F(ClusterPool, wakesALoopThroughItsDescriptor)
{
    const auto agent = startAgent("agent");
    const auto pool = makePool();
    bool isDone = false;
    pool->submit("echo", [&isDone](nqOutcome&&) { isDone = true; });
    pollfd source{pool->waitDescriptor(), POLLIN, 0};
    while (!isDone) {
        ASSERT_EQ(::poll(&source, 1, 60'000), 1);
        pool->pump(std::chrono::milliseconds(0));
    }
}

TEST_F(ClusterPool, takesUpWhatWaitsForTheProgramBeforeIt)
{
    nqClusterOptions cluster;
    cluster.client = "reports";
    std::vector<nqJobId> ids;
    {
        const auto before = makePool({}, cluster);
        ids = {before->submit("echo one"), before->submit("echo two")};
        ASSERT_TRUE(pumpUntil(*before, [&] { return mRedis->ask({"XLEN", jobsKey}) == "2"; }));
    }
    const auto agent = startAgent("agent", {"--workers", "1"});
    const auto pool = makePool({}, cluster);
    EXPECT_EQ(pool->statistics().takenUp, 2U);
    EXPECT_EQ(nextOf(*pool).id, ids[0]);
    const nqOutcome second = nextOf(*pool);
    EXPECT_EQ(second.id, ids[1]);
    EXPECT_EQ(second.text(), "two");
    EXPECT_FALSE(pool->next());
}

TEST_F(ClusterPool, doesNotTakeUpAnOutcomeThatWasDelivered)
{
    const auto agent = startAgent("agent");
    nqClusterOptions cluster;
    cluster.client = "reports";
    {
        const auto before = makePool({}, cluster);
        before->submit("echo");
        nextOf(*before);
    }
    const auto pool = makePool({}, cluster);
    EXPECT_EQ(pool->statistics().takenUp, 0U);
    EXPECT_FALSE(pool->next());
}

TEST_F(ClusterPool, tellsAProgramThatAnotherOneHasItsName)
{
    nqClusterOptions cluster;
    cluster.client = "reports";
    const auto before = makePool({}, cluster);
    const auto pool = makePool({}, cluster);
    before->submit("echo");
    const auto pumpTwice = [&] {
        for (;;)
            before->pump(common::generousLimit);
    };
    EXPECT_THROW(pumpTwice(), nqPoolError);
}

TEST_F(ClusterPool, sendsItsJobsAgainToAServerThatHasLostEverything)
{
    const auto pool = makePool();
    for (int i = 0; i < 100; ++i)
        pool->submit("echo " + std::to_string(i));
    ASSERT_TRUE(pumpUntil(*pool, [&] { return mRedis->ask({"XLEN", jobsKey}) == "100"; }));
    mRedis->kill();
    mRedis->start();
    const auto agent = startAgent("agent");
    EXPECT_TRUE(pool->drain());
    EXPECT_EQ(pool->statistics().done, 100U);
    EXPECT_EQ(pool->statistics().sentAgain, 100U);
}

TEST_F(ClusterPool, noticesThatItsQueueWasDeleted)
{
    const auto pool = makePool();
    pool->submit("echo");
    ASSERT_TRUE(pumpUntil(*pool, [&] { return mRedis->ask({"XLEN", jobsKey}) == "1"; }));
    mRedis->ask({"FLUSHALL"});
    EXPECT_TRUE(pumpUntil(*pool, [&] { return mRedis->ask({"XLEN", jobsKey}) == "1"; }));
    EXPECT_EQ(pool->statistics().sentAgain, 1U);
}

TEST_F(ClusterPool, noticesThatOnlyItsJobsWereDeleted)
{
    const auto pool = makePool();
    pool->submit("echo again");
    ASSERT_TRUE(pumpUntil(*pool, [&] { return mRedis->ask({"XLEN", jobsKey}) == "1"; }));
    mRedis->ask({"DEL", jobsKey});
    EXPECT_TRUE(pumpUntil(*pool, [&] { return mRedis->ask({"XLEN", jobsKey}) == "1"; }));
    EXPECT_EQ(pool->statistics().sentAgain, 1U);
    const auto agent = startAgent("agent");
    EXPECT_EQ(nextOf(*pool).text(), "again");
}

TEST_F(ClusterPool, noticesThatItsJobsWereDeletedAndAnotherOneMadeTheQueueAnew)
{
    const auto pool = makePool();
    pool->submit("echo first");
    ASSERT_TRUE(pumpUntil(*pool, [&] { return mRedis->ask({"XLEN", jobsKey}) == "1"; }));
    mRedis->ask({"DEL", jobsKey});
    const auto other = makePool();
    pool->submit("echo second");
    EXPECT_TRUE(pumpUntil(*pool, [&] { return mRedis->ask({"XLEN", jobsKey}) == "2"; }));
    EXPECT_EQ(pool->statistics().sentAgain, 1U);
    const auto agent = startAgent("agent");
    EXPECT_TRUE(pool->drain());
    EXPECT_EQ(pool->statistics().outcomesDropped, 0U);
}

TEST_F(ClusterPool, waitsForNoJobThatWasDeletedTogetherWithTheProgramBefore)
{
    nqClusterOptions cluster;
    cluster.client = "reports";
    {
        const auto before = makePool({}, cluster);
        before->submit("echo");
        ASSERT_TRUE(pumpUntil(*before, [&] { return mRedis->ask({"XLEN", jobsKey}) == "1"; }));
    }
    mRedis->ask({"DEL", jobsKey});
    const auto pool = makePool({}, cluster);
    EXPECT_TRUE(pool->drain());
}

TEST_F(ClusterPool, losesNothingWhenAServerWithAJournalIsRestarted)
{
    startRedis({"--appendonly", "yes", "--appendfsync", "always"});
    const auto pool = makePool();
    for (int i = 0; i < 100; ++i)
        pool->submit("echo " + std::to_string(i));
    ASSERT_TRUE(pumpUntil(*pool, [&] { return mRedis->ask({"XLEN", jobsKey}) == "100"; }));
    mRedis->kill();
    mRedis->start();
    const auto agent = startAgent("agent");
    EXPECT_TRUE(pool->drain());
    EXPECT_EQ(pool->statistics().done, 100U);
    EXPECT_EQ(pool->statistics().sentAgain, 0U);
}

TEST_F(ClusterPool, waitsWhileRedisHasNoMemoryAndSaysSo)
{
    startRedis({"--maxmemory", "3mb"});
    const auto pool = makePool();
    std::size_t done = 0;
    for (int i = 0; i < 100; ++i)
        pool->submit("echo " + std::string(100'000, 'a'), [&done](const nqOutcome& outcome) {
            done += outcome ? 1 : 0;
        });
    EXPECT_TRUE(pumpUntil(*pool, [&] { return pool->problem().find("OOM") != std::string::npos; }));
    const auto agent = startAgent("agent");
    EXPECT_TRUE(pool->drain());
    EXPECT_EQ(done, 100U);
    EXPECT_EQ(pool->problem(), "");
}

TEST_F(ClusterPool, leavesOutcomesInRedisWhileTheHostHasManyThatItHasNotFetched)
{
    nqClusterOptions cluster;
    cluster.client = "reports";
    const std::string outcomes = "nq:{tests}:out:reports";
    {
        const auto before = makePool({}, cluster);
        for (int i = 0; i < 8; ++i)
            before->submit("large " + std::to_string(16 << 20));
        ASSERT_TRUE(pumpUntil(*before, [&] { return mRedis->ask({"XLEN", jobsKey}) == "8"; }));
    }
    const auto agent = startAgent("agent");
    const auto pool = makePool({}, cluster);
    ASSERT_TRUE(pumpUntil(*pool, [&] { return mRedis->ask({"XLEN", outcomes}) == "8"; }));
    bool isDone = false;
    pool->submit("echo", [&isDone](const nqOutcome&) { isDone = true; });
    EXPECT_TRUE(pumpUntil(*pool, [&] { return isDone; }));
    EXPECT_NE(pool->statistics().takenUp, 0U); // more than 64 MiB are here
    std::size_t fetched = 0;
    while (const auto outcome = pool->next())
        fetched += outcome->bytes.size();
    EXPECT_EQ(fetched, std::size_t{8} * (16 << 20));
    EXPECT_EQ(pool->statistics().outcomesDropped, 0U);
}

TEST_F(ClusterPool, dropsASecondOutcomeAndCountsIt)
{
    const auto agent = startAgent("agent");
    nqClusterOptions cluster;
    cluster.client = "reports";
    const auto pool = makePool({}, cluster);
    const nqJobId id = pool->submit("echo");
    nextOf(*pool);
    mRedis->ask(
        {"XADD",
         "nq:{tests}:out:reports",
         "*",
         "v",
         "1",
         "id",
         std::to_string(id),
         "attempt",
         "1",
         "state",
         "done"});
    EXPECT_TRUE(pumpUntil(*pool, [&] { return pool->statistics().outcomesDropped == 1; }));
    EXPECT_FALSE(pool->next());
}

TEST_F(ClusterPool, failsAJobWhoseOutcomeIsOfANewerVersionAndSaysSo)
{
    nqClusterOptions cluster;
    cluster.client = "reports";
    const auto pool = makePool({}, cluster);
    const nqJobId id = pool->submit("echo");
    const std::string outcomes = "nq:{tests}:out:reports";
    mRedis->ask({"XADD", outcomes, "*", "v", "2", "id", std::to_string(id), "attempt", "1"});
    const nqOutcome outcome = nextOf(*pool);
    EXPECT_EQ(outcome.reason, Reason::ResultLost);
    EXPECT_EQ(outcome.text(), "echo");
    EXPECT_NE(outcome.failureText().find("of a newer version (2)"), std::string::npos)
        << outcome.failureText();
    EXPECT_NE(pool->problem().find("newer version (2)"), std::string::npos);
    EXPECT_FALSE(pool->drain());
    EXPECT_TRUE(pumpUntil(*pool, [&] { return mRedis->ask({"XLEN", outcomes}) == "0"; }));
}

TEST_F(ClusterPool, leavesAnOutcomeOfANewerVersionThatIsOfTheProgramBeforeToAnUpdatedOne)
{
    nqClusterOptions cluster;
    cluster.client = "reports";
    nqJobId id = 0;
    {
        const auto before = makePool({}, cluster);
        id = before->submit("echo");
        ASSERT_TRUE(pumpUntil(*before, [&] { return mRedis->ask({"XLEN", jobsKey}) == "1"; }));
    }
    const std::string outcomes = "nq:{tests}:out:reports";
    mRedis->ask({"XADD", outcomes, "*", "v", "2", "id", std::to_string(id), "attempt", "1"});
    mRedis->ask({"HSET", "nq:{tests}:client:reports", "open", "0"});
    const auto pool = makePool({}, cluster);
    EXPECT_TRUE(pool->drain());
    EXPECT_NE(pool->problem().find("newer version (2)"), std::string::npos);
    EXPECT_EQ(mRedis->ask({"XLEN", outcomes}), "1");
}

TEST_F(ClusterPool, tellsItsJobsFromThoseOfAProgramThatRedisHasForgotten)
{
    nqClusterOptions cluster;
    cluster.client = "reports";
    {
        const auto before = makePool({}, cluster);
        mRedis->ask({"FLUSHALL"});
        before->submit("echo before");
        ASSERT_TRUE(pumpUntil(*before, [&] { return mRedis->ask({"XLEN", jobsKey}) == "1"; }));
    }
    mRedis->ask({"DEL", "nq:{tests}:client:reports"}); // as when it has expired
    const auto pool = makePool({}, cluster);
    const nqJobId id = pool->submit("echo mine");
    const auto agent = startAgent("agent");
    std::map<nqJobId, std::string> results;
    EXPECT_TRUE(pumpUntil(*pool, [&] { // of the one before it knows nothing, and waits for none
        while (const std::optional<nqOutcome> outcome = pool->next(std::chrono::milliseconds(0)))
            results[outcome->id] = outcome->text();
        return results.size() == 2;
    }));
    EXPECT_EQ(results[id], "mine");
}

TEST_F(ClusterPool, doesNotTakeItsNameBackFromALaterProgramWhenItsConnectionIsLost)
{
    nqClusterOptions cluster;
    cluster.client = "reports";
    const auto before = makePool({}, cluster);
    const auto pool = makePool({}, cluster);
    mRedis->ask({"CLIENT", "KILL", "TYPE", "normal"});
    EXPECT_THROW(pumpUntil(*before, [] { return false; }), nqPoolError);
    const auto agent = startAgent("agent");
    pool->submit("echo mine");
    EXPECT_EQ(nextOf(*pool).text(), "mine");
}

TEST_F(ClusterPool, waitsForNothingThatRedisHasLostTogetherWithTheProgramBefore)
{
    nqClusterOptions cluster;
    cluster.client = "reports";
    {
        const auto before = makePool({}, cluster);
        before->submit("echo");
        ASSERT_TRUE(pumpUntil(*before, [&] { return mRedis->ask({"XLEN", jobsKey}) == "1"; }));
    }
    const auto pool = makePool({}, cluster);
    ASSERT_EQ(pool->statistics().takenUp, 1U);
    mRedis->kill();
    mRedis->start();
    EXPECT_FALSE(pool->next(common::generousLimit));
    EXPECT_EQ(pool->statistics().takenUp, 0U);
}

TEST_F(ClusterPool, goesOnWhenAForkedChildHasDestroyedItsCopy)
{
    const auto agent = startAgent("agent");
    auto pool = makePool();
    pool->submit("echo before");
    EXPECT_EQ(nextOf(*pool).text(), "before");
    const pid_t child = ::fork();
    if (child == 0) {
        pool.reset();
        ::_exit(0);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    pool->submit("echo after");
    EXPECT_EQ(nextOf(*pool).text(), "after");
    EXPECT_EQ(pool->statistics().connectionsLost, 0U);
}

TEST_F(ClusterPool, tellsAnOutcomeAgainThatAProgramDeletesTooLate)
{
    const auto agent = startAgent("agent");
    nqClusterOptions cluster;
    cluster.client = "reports";
    const auto before = makePool({}, cluster);
    std::unique_ptr<nq::nqClusterPool> pool;
    before->submit("echo twice", [&](const nqOutcome&) { pool = makePool({}, cluster); });
    try {
        pumpUntil(*before, [&] { return pool != nullptr; });
    } catch (const nqPoolError&) { // it has heard already that another one has its name
    }
    ASSERT_NE(pool, nullptr);
    EXPECT_EQ(nextOf(*pool).text(), "twice");
    EXPECT_EQ(pool->statistics().takenUp, 0U);
}

TEST_F(ClusterPool, keepsOutcomesForASecondAtLeastAndForAsLongAsRedisCanCount)
{
    nqClusterOptions cluster;
    cluster.outcomesKept = std::chrono::milliseconds(999);
    EXPECT_THROW(makePool({}, cluster), nqPoolError);
    cluster.outcomesKept = std::chrono::milliseconds::max();
    const auto pool = makePool({}, cluster);
    pool->submit("echo");
    EXPECT_TRUE(pumpUntil(*pool, [&] { return mRedis->ask({"XLEN", jobsKey}) == "1"; }));
}

TEST_F(ClusterPool, doesNotWaitForWhatIsNoOutcome)
{
    mRedis->ask({"XADD", "nq:{tests}:out:reports", "*", "some", "thing"});
    nqClusterOptions cluster;
    cluster.client = "reports";
    const auto pool = makePool({}, cluster);
    EXPECT_EQ(pool->statistics().takenUp, 1U);
    EXPECT_FALSE(pool->next(common::generousLimit));
    EXPECT_EQ(pool->statistics().takenUp, 0U);
}

} // namespace cluster
