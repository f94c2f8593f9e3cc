#include "tests/cluster/clusterFixture.h"

#include "tests/common/processes.h"

#include <csignal>
#include <filesystem>
#include <set>
#include <string>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <vector>

namespace cluster {

using nq::nqAttempt;
using nq::nqJobOptions;
using nq::nqOutcome;
using Reason = nqAttempt::Reason;

class Agent : public Cluster {
protected:
    /// A worker whose launches a test can hold and refuse.
    std::string slowWorker() const
    {
        const std::string hold = mFolder.file("hold");
        return mFolder.addScript(
            "slow",
            "[ ! -e '" + mFolder.file("refused") + "' ] || exit 1\n[ ! -e '" + hold +
                "' ] || echo > '" + mFolder.file("held") + "'\nwhile [ -e '" + hold +
                "' ]; do sleep 0.02; done\nexec '" NQ_CLUSTER_WORKER "' \"$@\"\n");
    }
    void refuseLaunches() const
    {
        mFolder.addFile("refused", "", 0600);
    }
    void holdLaunches() const
    {
        mFolder.addFile("hold", "", 0600);
        std::filesystem::remove(mFolder.file("refused"));
    }
    void letLaunchesGo() const
    {
        std::filesystem::remove(mFolder.file("hold"));
    }
    bool isHeld(nq::nqClusterPool& pool) const
    {
        return pumpUntil(pool, [&] { return std::filesystem::exists(mFolder.file("held")); });
    }

    /// As Redis has them after `time`, in which the host looks after them.
    std::string nameOfAgents(nq::nqClusterPool& pool, std::chrono::seconds time) const
    {
        const auto end = std::chrono::steady_clock::now() + time;
        pumpUntil(pool, [&] { return std::chrono::steady_clock::now() > end; });
        return mRedis->ask({"HKEYS", "nq:{tests}:agents"});
    }
};

/// The first thread of a process stands still, and the others go on.
class HeldThread {
public:
    explicit HeldThread(pid_t thread)
        : mThread(thread),
          mIsHeld(
              ::ptrace(PTRACE_SEIZE, thread, nullptr, nullptr) == 0 &&
              ::ptrace(PTRACE_INTERRUPT, thread, nullptr, nullptr) == 0 &&
              ::waitpid(thread, nullptr, __WALL) == thread)
    {
    }
    ~HeldThread()
    {
        if (mIsHeld)
            ::ptrace(PTRACE_DETACH, mThread, nullptr, nullptr);
    }
    HeldThread(const HeldThread&) = delete;
    HeldThread& operator=(const HeldThread&) = delete;

    bool isHeld() const
    {
        return mIsHeld;
    }

private:
    pid_t mThread;
    bool mIsHeld;
};

std::set<std::string> socketsOf(const std::string& process)
{
    std::set<std::string> sockets;
    for (const auto& each : std::filesystem::directory_iterator("/proc/" + process + "/fd")) {
        std::error_code gone;
        const std::string target = std::filesystem::read_symlink(each.path(), gone).string();
        if (target.find("socket:") == 0)
            sockets.insert(target);
    }
    return sockets;
}

TEST_F(Agent, losesItsJobsWhenItIsKilled)
{
    const auto agent = startAgent("host7");
    const auto pool = makePool();
    const std::string job = waiting("long");
    pool->submit(job);
    ASSERT_TRUE(runs(*pool, "long"));
    agent->signal(SIGKILL);
    const nqOutcome outcome = nextOf(*pool);
    EXPECT_EQ(outcome.reason, Reason::Lost);
    EXPECT_EQ(outcome.text(), job);
    EXPECT_EQ(outcome.message.find("agent host7 was lost, "), 0U) << outcome.message;
    EXPECT_NE(outcome.message.find(" s after its last sign of life"), std::string::npos);
}

TEST_F(Agent, leavesItsJobsToAnotherOneWhenItIsKilled)
{
    const auto first = startAgent("first");
    const auto pool = makePool();
    nqJobOptions options;
    options.retry = attempts(2);
    pool->submit(waiting("long"), options);
    ASSERT_TRUE(runs(*pool, "long"));
    first->signal(SIGKILL);
    const auto second = startAgent("second");
    end("long");
    const nqOutcome outcome = nextOf(*pool);
    EXPECT_TRUE(outcome) << outcome.failureText();
    ASSERT_EQ(outcome.earlierAttempts.size(), 1U);
    EXPECT_EQ(outcome.earlierAttempts.front().reason, Reason::Lost);
}

TEST_F(Agent, isFoundLostByOtherAgentsWhileNobodySubmits)
{
    nq::nqClusterOptions cluster;
    cluster.client = "reports";
    const auto first = startAgent("first");
    {
        const auto before = makePool({}, cluster);
        before->submit(waiting("long"));
        ASSERT_TRUE(runs(*before, "long"));
    }
    const auto second = startAgent("second");
    first->signal(SIGKILL);
    const auto end = std::chrono::steady_clock::now() + common::generousLimit;
    while (mRedis->ask({"XLEN", "nq:{tests}:out:reports"}) != "1")
        ASSERT_LT(std::chrono::steady_clock::now(), end);
    const auto pool = makePool({}, cluster);
    EXPECT_EQ(nextOf(*pool).reason, Reason::Lost);
}

TEST_F(Agent, isFoundLostByAHostThatPumpsLessOftenThanTheLease)
{
    const auto agent = startAgent("agent", {"--lease", "0.5"});
    const auto pool = makePool();
    pool->submit(waiting("long"));
    ASSERT_TRUE(runs(*pool, "long"));
    agent->signal(SIGKILL);
    nq::nqClusterPool elsewhere(mRedis->url(), "elsewhere");
    std::optional<nqOutcome> outcome;
    for (int i = 0; i < 20 && !outcome; ++i) {
        const auto next = std::chrono::steady_clock::now() + std::chrono::milliseconds(600);
        pumpUntil(elsewhere, [&] { return std::chrono::steady_clock::now() > next; });
        outcome = pool->next(std::chrono::milliseconds(0));
    }
    ASSERT_TRUE(outcome);
    EXPECT_EQ(outcome->reason, Reason::Lost);
}

TEST_F(Agent, findsOneThatIsLostAmongManyThatLive)
{
    const auto agent = startAgent("agent", {"--lease", "0.5"});
    std::uint64_t beats = 0;
    const auto beat = [&](const std::string& first) {
        mRedis->ask(
            {"EVAL",
             "for i = ARGV[1], 100 do redis.call('HSET', KEYS[1], 'other' .. i, '500 ' .. ARGV[2]) "
             "end",
             "1",
             "nq:{tests}:agents",
             first,
             std::to_string(++beats)});
    };
    beat("1");
    const auto end = std::chrono::steady_clock::now() + common::generousLimit;
    while (mRedis->ask({"HEXISTS", "nq:{tests}:agents", "other1"}) == "1") {
        beat("2");
        ASSERT_LT(std::chrono::steady_clock::now(), end);
    }
    EXPECT_EQ(mRedis->ask({"HLEN", "nq:{tests}:agents"}), "100");
}

TEST_F(Agent, findsManyThatAreLostAtOnce)
{
    std::vector<std::string> command{"HSET", "nq:{tests}:agents"};
    for (int i = 0; i < 500; ++i)
        command.insert(command.end(), {"other" + std::to_string(i), "500 1"});
    mRedis->ask(command);
    const auto agent = startAgent("agent", {"--lease", "0.5"});
    const auto end = std::chrono::steady_clock::now() + common::generousLimit;
    while (mRedis->ask({"HLEN", "nq:{tests}:agents"}) != "1")
        ASSERT_LT(std::chrono::steady_clock::now(), end);
    EXPECT_EQ(mRedis->ask({"HKEYS", "nq:{tests}:agents"}), "agent\n");
}

TEST_F(Agent, losesItsLeaseWhileItIsStoppedAndStartsAnewAfterwards)
{
    const auto agent = startAgent("agent");
    const auto pool = makePool();
    pool->submit(waiting("long"));
    ASSERT_TRUE(runs(*pool, "long"));
    agent->signal(SIGSTOP);
    EXPECT_EQ(nextOf(*pool).reason, Reason::Lost);
    agent->signal(SIGCONT);
    EXPECT_TRUE(agent->says("was cut off for longer than its lease"));
    pool->submit("echo again");
    EXPECT_EQ(nextOf(*pool).text(), "again");
}

TEST_F(Agent, keepsItsLeaseThroughAJobThatTakesSeveral)
{
    const auto agent = startAgent("agent", {"--lease", "0.5"});
    const auto pool = makePool();
    pool->submit(waiting("long"));
    ASSERT_TRUE(runs(*pool, "long"));
    const auto leases = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    pumpUntil(*pool, [&] { return std::chrono::steady_clock::now() > leases; });
    end("long");
    EXPECT_EQ(nextOf(*pool).text(), "waited");
}

TEST_F(Agent, keepsItsLeaseWhileAWorkerIsReplacedForLongerThanSeveral)
{
    const auto agent = startAgent("agent", {"--lease", "0.5"}, slowWorker());
    const auto pool = makePool();
    pool->submit(waiting("long"));
    ASSERT_TRUE(runs(*pool, "long"));
    holdLaunches();
    pool->submit("crash");
    ASSERT_TRUE(isHeld(*pool));
    EXPECT_EQ(nameOfAgents(*pool, std::chrono::seconds(2)), "agent\n");
    letLaunchesGo();
    EXPECT_EQ(nextOf(*pool).reason, Reason::Crashed);
    end("long");
    EXPECT_EQ(nextOf(*pool).text(), "waited");
}

TEST_F(Agent, keepsItsLeaseWhileItsWorkersAreLaunchedAgainForLongerThanSeveral)
{
    const auto agent = startAgent("agent", {"--lease", "0.5", "--workers", "1"}, slowWorker());
    const auto pool = makePool();
    refuseLaunches();
    pool->submit("crash");
    EXPECT_EQ(nextOf(*pool).reason, Reason::Crashed);
    pool->submit("echo again");
    ASSERT_TRUE(pumpUntil(
        *pool, [&] { return agent->printed().find("takes no jobs: ") != std::string::npos; }));
    holdLaunches();
    ASSERT_TRUE(isHeld(*pool));
    EXPECT_EQ(nameOfAgents(*pool, std::chrono::seconds(2)), "agent\n");
    letLaunchesGo();
    EXPECT_EQ(nextOf(*pool).text(), "again");
}

TEST_F(Agent, losesItsLeaseWhenItIsStoppedDuringALaunch)
{
    const auto agent = startAgent("agent", {"--lease", "0.5"}, slowWorker());
    const auto pool = makePool();
    pool->submit(waiting("long"));
    ASSERT_TRUE(runs(*pool, "long"));
    holdLaunches();
    pool->submit("crash");
    ASSERT_TRUE(isHeld(*pool));
    agent->signal(SIGSTOP);
    EXPECT_EQ(nextOf(*pool).reason, Reason::Lost);
    EXPECT_EQ(nextOf(*pool).reason, Reason::Lost);
    agent->signal(SIGCONT);
    letLaunchesGo();
}

TEST_F(Agent, losesItsLeaseWhenItHangs)
{
    const auto agent = startAgent("agent", {"--lease", "0.5"});
    const auto pool = makePool();
    pool->submit(waiting("long"));
    ASSERT_TRUE(runs(*pool, "long"));
    const HeldThread mainThread(agent->pid());
    if (!mainThread.isHeld())
        GTEST_SKIP() << "no process may be traced here";
    EXPECT_EQ(nextOf(*pool).reason, Reason::Lost);
    end("long");
}

TEST_F(Agent, losesItsLeaseWhenItHangsInALaunch)
{
    const auto agent =
        startAgent("agent", {"--lease", "0.5", "--start-timeout", "1"}, slowWorker());
    const auto pool = makePool();
    pool->submit(waiting("long"));
    ASSERT_TRUE(runs(*pool, "long"));
    holdLaunches();
    pool->submit("crash");
    ASSERT_TRUE(isHeld(*pool));
    const HeldThread mainThread(agent->pid());
    if (!mainThread.isHeld())
        GTEST_SKIP() << "no process may be traced here";
    EXPECT_EQ(nextOf(*pool).reason, Reason::Lost);
    letLaunchesGo();
    end("long");
}

TEST_F(Agent, leavesWhenItIsAskedToWhileItsFirstWorkersStart)
{
    holdLaunches();
    const auto agent = launchAgent("agent", {"--workers", "4"}, slowWorker());
    const auto pool = makePool();
    ASSERT_TRUE(isHeld(*pool));
    agent->signal(SIGTERM);
    letLaunchesGo();
    EXPECT_EQ(agent->wait(), 0);
    EXPECT_EQ(agent->printed().find("takes jobs"), std::string::npos) << agent->printed();
    EXPECT_EQ(mRedis->ask({"KEYS", "nq:{tests}:*agent*"}), "");
}

TEST_F(Agent, finishesWhatRunsAndHandsBackTheRestWhenAskedToLeave)
{
    const auto first = startAgent("first", {"--workers", "1", "--prefetch", "1"});
    const auto pool = makePool();
    std::string results;
    const auto note = [&results](nqOutcome&& outcome) { results += outcome.text(); };
    pool->submit(waiting("long"), note);
    ASSERT_TRUE(runs(*pool, "long"));
    pool->submit("echo ed", note);
    ASSERT_TRUE(pumpUntil(*pool, [&] {
        return mRedis->ask({"XPENDING", jobsKey, "agents"}).substr(0, 1) == "2";
    }));
    first->signal(SIGTERM);
    ASSERT_TRUE(first->says("finishes 1 jobs and hands back 1"));
    const auto second = startAgent("second");
    ASSERT_TRUE(pumpUntil(*pool, [&] { return results == "ed"; }));
    end("long");
    EXPECT_TRUE(pumpUntil(*pool, [&] { return results == "edwaited"; }));
    EXPECT_EQ(first->wait(), 0);
}

TEST_F(Agent, endsAtOnceWhenAskedTwiceAndLeavesItsJobsToOthers)
{
    const auto first = startAgent("first");
    const auto pool = makePool();
    pool->submit(waiting("long"));
    ASSERT_TRUE(runs(*pool, "long"));
    first->signal(SIGTERM);
    ASSERT_TRUE(first->says("finishes 1"));
    first->signal(SIGTERM);
    EXPECT_EQ(first->wait(), 1);
    end("long");
    const auto second = startAgent("second");
    const nqOutcome outcome = nextOf(*pool);
    EXPECT_EQ(outcome.text(), "waited");
    EXPECT_TRUE(outcome.earlierAttempts.empty());
}

TEST_F(Agent, leavesNothingOfItselfInRedis)
{
    const auto agent = startAgent("agent");
    const auto pool = makePool();
    pool->submit("echo");
    nextOf(*pool);
    agent->signal(SIGTERM);
    EXPECT_EQ(agent->wait(), 0);
    EXPECT_EQ(mRedis->ask({"KEYS", "nq:{tests}:*agent*"}), "");
    EXPECT_EQ(mRedis->ask({"XINFO", "CONSUMERS", jobsKey, "agents"}), "");
}

TEST_F(Agent, takesUpItsWorkWhenRedisComesBackEmpty)
{
    const auto agent = startAgent("agent");
    const auto pool = makePool();
    pool->submit("echo before");
    EXPECT_EQ(nextOf(*pool).text(), "before");
    mRedis->kill();
    mRedis->start();
    pool->submit("echo after");
    EXPECT_EQ(nextOf(*pool).text(), "after");
}

TEST_F(Agent, makesTheQueueAnewWhenItIsDeletedWhileItWaits)
{
    const auto agent = startAgent("agent");
    const auto pool = makePool();
    pool->submit("echo before");
    EXPECT_EQ(nextOf(*pool).text(), "before");
    mRedis->ask({"DEL", jobsKey});
    EXPECT_TRUE(agent->says("finds that the queue was deleted"));
    pool->submit("echo after");
    EXPECT_EQ(nextOf(*pool).text(), "after");
    EXPECT_EQ(pool->statistics().sentAgain, 0U);
}

TEST_F(Agent, runsAJobAgainThatIsDeletedWhileItRuns)
{
    const auto agent = startAgent("agent", {"--lease", "5"});
    const auto pool = makePool();
    pool->submit(waiting("long"));
    ASSERT_TRUE(runs(*pool, "long"));
    const std::string first = common::contentOf(mFolder.file("long") + ".started");
    mRedis->ask({"DEL", jobsKey});
    ASSERT_TRUE(pumpUntil(*pool, [&] {
        const std::string now = common::contentOf(mFolder.file("long") + ".started");
        return !now.empty() && now != first;
    }));
    end("long");
    const nqOutcome outcome = nextOf(*pool);
    EXPECT_EQ(outcome.text(), "waited");
    EXPECT_TRUE(outcome.earlierAttempts.empty());
    EXPECT_EQ(pool->statistics().sentAgain, 1U);
}

TEST_F(Agent, bringsItsOutcomeAfterRedisWasAway)
{
    startRedis({"--appendonly", "yes", "--appendfsync", "always"});
    const auto agent = startAgent("agent", {"--lease", "5"});
    const auto pool = makePool();
    pool->submit(waiting("long"));
    ASSERT_TRUE(runs(*pool, "long"));
    mRedis->kill();
    end("long");
    mRedis->start();
    EXPECT_EQ(nextOf(*pool).text(), "waited");
}

TEST_F(Agent, takesNoMoreThanItsWorkersAndWhatItMayHoldBesides)
{
    const auto agent = startAgent("agent", {"--workers", "1", "--prefetch", "2"});
    const auto pool = makePool();
    for (int i = 0; i < 10; ++i)
        pool->submit(waiting("long"));
    ASSERT_TRUE(runs(*pool, "long"));
    EXPECT_TRUE(pumpUntil(*pool, [&] {
        return mRedis->ask({"XPENDING", jobsKey, "agents"}).substr(0, 1) == "3";
    }));
    end("long");
    EXPECT_TRUE(pool->drain());
}

TEST_F(Agent, holdsOnlyWhatFitsIntoSixteenMegabytesBesidesWhatRuns)
{
    const auto pool = makePool();
    for (const char* const name : {"one", "two"})
        pool->submit(waiting(name));
    for (int i = 0; i < 40; ++i)
        pool->submit("echo " + std::string(1 << 20, 'a'));
    ASSERT_TRUE(pumpUntil(*pool, [&] { return mRedis->ask({"XLEN", jobsKey}) == "42"; }));
    const auto agent = startAgent("host7", {"--prefetch", "1000"});
    const auto held = [&] { return mRedis->ask({"XPENDING", jobsKey, "agents"}); };
    const auto sign = [&] { return mRedis->ask({"HGET", "nq:{tests}:agents", "host7"}); };
    ASSERT_TRUE(pumpUntil(*pool, [&] { return held().substr(0, 3) == "17\n"; })) << held();
    for (int i = 0; i < 2; ++i) { // it comes round between two signs of life
        const std::string before = sign();
        ASSERT_TRUE(pumpUntil(*pool, [&] { return sign() != before; }));
    }
    EXPECT_EQ(held().substr(0, 3), "17\n");
    end("one");
    end("two");
    EXPECT_TRUE(pool->drain());
}

TEST_F(Agent, leavesJobsOfANewerVersionToOthersAndSaysSo)
{
    const auto pool = makePool();
    const auto agent = startAgent("agent");
    mRedis->ask(
        {"XADD", jobsKey, "*", "v", "2", "client", "x", "id", "1", "attempt", "1", "job", ""});
    EXPECT_TRUE(agent->says("leaves jobs of a newer version (2) to others"));
    pool->submit("echo mine");
    EXPECT_EQ(nextOf(*pool).text(), "mine");
    EXPECT_EQ(mRedis->ask({"XLEN", jobsKey}), "1");
}

TEST_F(Agent, takesOutOfTheQueueWhatIsNoJob)
{
    const auto pool = makePool();
    mRedis->ask({"XADD", jobsKey, "*", "some", "thing"});
    const auto agent = startAgent("agent");
    EXPECT_TRUE(agent->says("something in the queue that is no job"));
    pool->submit("echo mine");
    EXPECT_EQ(nextOf(*pool).text(), "mine");
}

TEST_F(Agent, runsWhatWasGivenToANameThatNobodyHas)
{
    const auto pool = makePool();
    pool->submit("echo");
    ASSERT_TRUE(pumpUntil(*pool, [&] { return mRedis->ask({"XLEN", jobsKey}) == "1"; }));
    mRedis->ask({"XREADGROUP", "GROUP", "agents", "ghost", "STREAMS", jobsKey, ">"});
    const auto agent = startAgent("agent");
    const nqOutcome outcome = nextOf(*pool);
    EXPECT_TRUE(outcome) << outcome.failureText();
    EXPECT_TRUE(outcome.earlierAttempts.empty());
}

TEST_F(Agent, findsAJobWhoseDeliveryItHasNotReceived)
{
    const auto agent = startAgent("agent", {"--workers", "1", "--prefetch", "0"});
    const auto pool = makePool();
    pool->submit(waiting("long"));
    ASSERT_TRUE(runs(*pool, "long")); // so it reads no more
    pool->submit("echo found");
    ASSERT_TRUE(pumpUntil(*pool, [&] { return mRedis->ask({"XLEN", jobsKey}) == "2"; }));
    // As over a connection that broke before the answer came.
    mRedis->ask({"XREADGROUP", "GROUP", "agents", "agent", "STREAMS", jobsKey, ">"});
    end("long");
    EXPECT_TRUE(pool->drain());
    EXPECT_EQ(pool->statistics().done, 2U);
}

TEST_F(Agent, refusesToServeWithAWorkerThatCannotBeStarted)
{
    const auto agent = launchAgent("agent", {}, "/bin/false");
    EXPECT_EQ(agent->wait(), 1);
    EXPECT_NE(agent->printed().find("nq-agent: "), std::string::npos);
}

TEST_F(Agent, showsTheQueueAndItsAgents)
{
    const auto agent = startAgent("agent");
    const auto pool = makePool();
    pool->submit(waiting("long"));
    ASSERT_TRUE(runs(*pool, "long"));
    Program status({NQ_AGENT, "status", "--redis", mRedis->url(), "--queue", queue});
    EXPECT_EQ(status.wait(), 0);
    EXPECT_NE(
        status.printed().find("queue tests: 0 jobs wait, 1 are with agents"), std::string::npos)
        << status.printed();
    EXPECT_NE(status.printed().find("\nagent  "), std::string::npos);
    end("long");
    EXPECT_TRUE(pool->drain());
}

TEST_F(Agent, writesItsCountsIntoAFile)
{
    const std::string path = mFolder.file("metrics");
    const auto agent = startAgent("agent", {"--metrics", path});
    const auto pool = makePool();
    pool->submit("echo");
    nextOf(*pool);
    EXPECT_TRUE(pumpUntil(*pool, [&] {
        return common::contentOf(path).find(
                   "nq_agent_jobs_done_total{queue=\"tests\",agent=\"agent\"} 1\n") !=
               std::string::npos;
    }));
}

TEST_F(Agent, saysThatItCannotWriteItsCounts)
{
    const std::string path = mFolder.file("missing") + "/metrics";
    const auto agent = startAgent("agent", {"--metrics", path});
    EXPECT_TRUE(agent->says("cannot write its counts into " + path));
}

TEST_F(Agent, countsWhatAKilledOneOfItsNameHadAsLost)
{
    const auto first = startAgent("host7", {"--lease", "1000"});
    const auto pool = makePool();
    pool->submit(waiting("long"));
    ASSERT_TRUE(runs(*pool, "long"));
    first->signal(SIGKILL);
    const auto second = startAgent("host7", {"--lease", "1000"});
    const nqOutcome outcome = nextOf(*pool);
    EXPECT_EQ(outcome.reason, Reason::Lost);
    EXPECT_EQ(outcome.message, "agent host7 was lost, and is started anew");
}

TEST_F(Agent, givesWayToALaterOneOfItsNameAndGoesOnUnderAnother)
{
    const auto first = startAgent("host7", {"--workers", "1", "--prefetch", "0"});
    const auto pool = makePool();
    pool->submit(waiting("long"));
    ASSERT_TRUE(runs(*pool, "long"));
    const auto second = startAgent("host7", {"--workers", "1", "--prefetch", "0"});
    EXPECT_EQ(nextOf(*pool).reason, Reason::Lost);
    EXPECT_TRUE(first->says("another agent has come with its name"));
    pool->submit(waiting("one"));
    pool->submit(waiting("other"));
    EXPECT_TRUE(runs(*pool, "one"));
    EXPECT_TRUE(runs(*pool, "other"));
    end("one");
    end("other");
    EXPECT_EQ(nextOf(*pool).text(), "waited");
    EXPECT_EQ(nextOf(*pool).text(), "waited");
}

TEST_F(Agent, keepsItsPasswordAndItsConnectionsFromItsWorkers)
{
    startRedis({"--requirepass", "secret"});
    const auto agent = launchAgent("agent", {}, NQ_CLUSTER_WORKER, {"NQ_REDIS_PASSWORD=secret"});
    ASSERT_TRUE(agent->says("takes jobs")) << agent->printed();
    const std::string password = mFolder.file("password");
    mFolder.addFile("password", "secret", 0600);
    nq::nqClusterOptions cluster;
    cluster.passwordFile = password;
    const auto pool = makePool({}, cluster);
    pool->submit("variable NQ_REDIS_PASSWORD");
    EXPECT_EQ(nextOf(*pool).text(), "none");
    pool->submit(waiting("long"));
    ASSERT_TRUE(runs(*pool, "long"));
    const std::string worker = common::contentOf(mFolder.file("long") + ".started");
    const std::set<std::string> sockets = socketsOf(std::to_string(agent->pid()));
    EXPECT_FALSE(sockets.empty());
    for (const std::string& socket : socketsOf(worker))
        EXPECT_EQ(sockets.count(socket), 0U) << socket;
    end("long");
    EXPECT_TRUE(pool->drain());
}

TEST_F(Agent, knowsInAnAuditAllThatItHolds)
{
    const std::string metrics = mFolder.file("metrics");
    const auto agent = startAgent(
        "agent", {"--workers", "1", "--prefetch", "20000", "--lease", "2", "--metrics", metrics});
    const auto pool = makePool();
    pool->submit(waiting("long"));
    for (int i = 0; i < 12'000; ++i)
        pool->submit("echo");
    ASSERT_TRUE(pumpUntil(*pool, [&] {
        return mRedis->ask({"XPENDING", jobsKey, "agents"}).substr(0, 5) == "12001";
    }));
    const auto audits = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    pumpUntil(*pool, [&] { return std::chrono::steady_clock::now() > audits; });
    end("long");
    EXPECT_TRUE(pool->drain());
    EXPECT_TRUE(pumpUntil(*pool, [&] {
        return common::contentOf(metrics).find(
                   "jobs_done_total{queue=\"tests\",agent=\"agent\"} 12001\n") != std::string::npos;
    }));
    EXPECT_NE(
        common::contentOf(metrics).find(
            "jobs_handed_back_total{queue=\"tests\",agent=\"agent\"} 0\n"),
        std::string::npos);
}

TEST_F(Agent, bringsItsOutcomeWhenRedisHasForgottenTheScripts)
{
    const auto agent = startAgent("agent");
    const auto pool = makePool();
    pool->submit(waiting("long"));
    ASSERT_TRUE(runs(*pool, "long"));
    mRedis->ask({"SCRIPT", "FLUSH"});
    end("long");
    pool->submit("echo");
    EXPECT_TRUE(pool->drain());
    EXPECT_EQ(pool->statistics().done, 2U);
}

} // namespace cluster
