#include "tests/cluster/clusterFixture.h"

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace cluster {

/// Programs whose wall clock goes wrong by as much as a file says.
class WallClock : public Cluster {
protected:
    void SetUp() override
    {
        setOffset(0);
        Cluster::SetUp();
    }

    void setOffset(std::int64_t seconds) const
    {
        std::fstream file(clockFile(), std::ios::in | std::ios::out | std::ios::binary);
        if (!file) // for the first time; later it stays the same file, which a program has mapped
            file.open(clockFile(), std::ios::out | std::ios::binary);
        file.write(reinterpret_cast<const char*>(&seconds), sizeof(seconds));
    }

    std::string clockFile() const
    {
        return mFolder.file("clock");
    }

    std::vector<std::string> environment() const
    {
        return {
            "LD_PRELOAD=" NQ_JUMPING_CLOCK,
            "NQ_CLOCK_OFFSET=" + clockFile(),
            "ASAN_OPTIONS=verify_asan_link_order=0"}; // of an agent that has a sanitizer
    }

    /// Lets three leases pass after the clock has jumped to and fro.
    void jump(nq::nqClusterPool& pool) const
    {
        for (const std::int64_t seconds : {7'200, -10'800}) {
            setOffset(seconds);
            const auto leases = std::chrono::steady_clock::now() + std::chrono::seconds(3);
            pumpUntil(pool, [&] { return std::chrono::steady_clock::now() > leases; });
        }
    }
};

TEST_F(WallClock, ofRedisMayJumpAndNoAgentIsLost)
{
    startRedis({}, environment());
    const auto agent = startAgent("agent");
    const auto pool = makePool();
    pool->submit(waiting("long"));
    ASSERT_TRUE(runs(*pool, "long"));
    const long long before = std::atoll(mRedis->ask({"TIME"}).c_str());
    jump(*pool);
    ASSERT_LT(std::atoll(mRedis->ask({"TIME"}).c_str()), before - 10'000);
    pool->submit("echo meanwhile");
    EXPECT_EQ(nextOf(*pool).text(), "meanwhile");
    end("long");
    EXPECT_EQ(nextOf(*pool).text(), "waited");
    EXPECT_EQ(agent->printed().find("was cut off"), std::string::npos);
}

TEST_F(WallClock, ofAnAgentMayJumpAndItKeepsItsJobs)
{
    const auto agent = launchAgent("agent", {}, NQ_CLUSTER_WORKER, environment());
    ASSERT_TRUE(agent->says("takes jobs"));
    const auto pool = makePool();
    pool->submit(waiting("long"));
    ASSERT_TRUE(runs(*pool, "long"));
    jump(*pool);
    end("long");
    EXPECT_EQ(nextOf(*pool).text(), "waited");
    EXPECT_EQ(agent->printed().find("was cut off"), std::string::npos);
}

} // namespace cluster
