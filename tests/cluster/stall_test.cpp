#include "tests/cluster/clusterFixture.h"
#include "tests/cluster/stallingProxy.h"

#include <chrono>
#include <string>

namespace cluster {

using nq::nqAttempt;
using nq::nqClusterOptions;
using nq::nqClusterPool;

class StalledConnection : public Cluster {
protected:
    void SetUp() override
    {
        Cluster::SetUp();
        if (mRedis != nullptr)
            mProxy = std::make_unique<StallingProxy>(path(), mRedis->socket());
    }
    void TearDown() override
    {
        mProxy.reset();
    }

    std::string path() const
    {
        return mFolder.file("proxy.sock");
    }

    static nqClusterOptions impatient()
    {
        nqClusterOptions options;
        options.stallTimeout = std::chrono::milliseconds(300);
        return options;
    }

    std::unique_ptr<StallingProxy> mProxy;
};

TEST_F(StalledConnection, ofASubmitterIsReplaced)
{
    const auto agent = startAgent("agent");
    nqClusterPool pool("unix:" + path(), queue, {}, impatient());
    pool.submit("echo before");
    EXPECT_EQ(nextOf(pool).text(), "before");
    mProxy->stallThoseThereAre();
    pool.submit("echo after");
    EXPECT_EQ(nextOf(pool).text(), "after");
    EXPECT_NE(pool.statistics().connectionsLost, 0U);
    EXPECT_EQ(pool.statistics().outcomesDropped, 0U);
}

TEST_F(StalledConnection, ofAnAgentIsReplacedBeforeItsLeaseRunsOut)
{
    const auto agent = startAgent("agent", {"--redis", "unix:" + path(), "--lease", "4"});
    const auto pool = makePool();
    pool->submit(waiting("long"));
    ASSERT_TRUE(runs(*pool, "long"));
    mProxy->stallThoseThereAre();
    end("long");
    EXPECT_EQ(nextOf(*pool).text(), "waited");
}

TEST_F(StalledConnection, costsAnAgentItsLeaseWhenItLasts)
{
    const auto agent = startAgent("agent", {"--redis", "unix:" + path()});
    const auto pool = makePool();
    pool->submit(waiting("long"));
    ASSERT_TRUE(runs(*pool, "long"));
    mProxy->cut(true);
    EXPECT_EQ(nextOf(*pool).reason, nqAttempt::Reason::Lost);
    end("long");
    mProxy->cut(false);
    EXPECT_TRUE(agent->says("was cut off for longer than its lease"));
    pool->submit("echo again");
    EXPECT_EQ(nextOf(*pool).text(), "again");
    EXPECT_FALSE(pool->next(std::chrono::milliseconds(0)));
}

TEST_F(StalledConnection, doesNotCostAFailedAttemptItsOutcomeBeforeTheNextOneIsAccepted)
{
    const auto agent = startAgent("agent");
    nq::nqPoolOptions options;
    options.retry = attempts(2);
    options.retry.pause = options.retry.longestPause = std::chrono::hours(1);
    nqClusterOptions cluster;
    cluster.client = "reports";
    nqClusterPool pool("unix:" + path(), queue, options, cluster);
    mProxy->holdFirst(true); // so that the outcome overtakes the acceptance
    pool.submit("crash");
    ASSERT_TRUE(pumpUntil(pool, [&] { return pool.statistics().retried == 1; }));
    mProxy->holdFirst(false);
    pool.submit("echo");
    nextOf(pool);
    const std::string outcomes = "nq:{tests}:out:reports";
    ASSERT_TRUE(pumpUntil(pool, [&] {
        return mRedis->ask({"XRANGE", outcomes, "-", "+"}).find("done") == std::string::npos;
    }));
    EXPECT_EQ(mRedis->ask({"XLEN", outcomes}), "1");
}

} // namespace cluster
