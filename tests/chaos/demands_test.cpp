// That a run of chaos in which nothing happens is not taken for a good one.

#include "tests/chaos/demands.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <sys/wait.h>

namespace {

using chaos::Demands;
using chaos::Figures;
using chaos::PoolPlan;
using chaos::RoundPlan;

Demands demandsOf(const PoolPlan& pool, std::uint64_t pools)
{
    RoundPlan plan;
    plan.pools.assign(pools, pool);
    Demands demands;
    demands.add(plan);
    return demands;
}

PoolPlan disturbedPool()
{
    PoolPlan pool;
    pool.disturbance.intervalUs = 1'000;
    return pool;
}

/// Of pools with one kill each, so many of which have struck.
std::string unmetAfterKills(std::uint64_t pools, std::uint64_t kills)
{
    PoolPlan pool = disturbedPool();
    pool.disturbance.kills = 1;
    Figures figures;
    figures.kills = kills;
    return demandsOf(pool, pools).unmetBy(figures);
}

PoolPlan poolWithJobs(chaos::Behaviour behaviour)
{
    PoolPlan pool;
    pool.jobsPerCycle = 100;
    pool.mix = {{chaos::Behaviour::answer, 9}, {behaviour, 1}};
    return pool;
}

TEST(Demands, areMetByAnUndisturbedRunInWhichNothingHappens)
{
    EXPECT_EQ(demandsOf(PoolPlan(), 10).unmetBy(Figures()), "");
}

TEST(Demands, nameKillsThatAreTooRare)
{
    EXPECT_EQ(unmetAfterKills(10, 4), "workers killed: 4, at least 5 are wanted\n");
}

TEST(Demands, areMetWhenHalfOfThePoolsSuffer)
{
    EXPECT_EQ(unmetAfterKills(10, 5), "");
}

TEST(Demands, wantCrashesFromOutside)
{
    PoolPlan pool = disturbedPool();
    pool.disturbance.crashes = 1;
    EXPECT_NE(demandsOf(pool, 2).unmetBy(Figures()), "");
}

TEST(Demands, wantStops)
{
    PoolPlan pool = disturbedPool();
    pool.disturbance.stops = 1;
    pool.jobsPerCycle = 200;
    EXPECT_NE(demandsOf(pool, 2).unmetBy(Figures()), "");
}

TEST(Demands, wantDeathsByAJobsWish)
{
    EXPECT_NE(demandsOf(poolWithJobs(chaos::Behaviour::crash), 1).unmetBy(Figures()), "");
}

TEST(Demands, wantFailuresForMemory)
{
    EXPECT_NE(demandsOf(poolWithJobs(chaos::Behaviour::growAndWait), 1).unmetBy(Figures()), "");
}

TEST(Demands, wantNoFailuresForMemoryOfWorkersThatAreKilledBeforeTheyHaveGrown)
{
    PoolPlan pool = poolWithJobs(chaos::Behaviour::growAndWait);
    pool.disturbance.intervalUs = 1'000;
    EXPECT_EQ(demandsOf(pool, 1).unmetBy(Figures()), "");
}

TEST(Demands, wantTimeOuts)
{
    EXPECT_NE(demandsOf(poolWithJobs(chaos::Behaviour::hang), 1).unmetBy(Figures()), "");
}

TEST(Demands, doNotWaitForAJobThatIsHardlyEverMade)
{
    PoolPlan pool = poolWithJobs(chaos::Behaviour::hang);
    pool.jobsPerCycle = 9;
    EXPECT_EQ(demandsOf(pool, 100).unmetBy(Figures()), "");
}

// A round of several pools, all of them disturbed.
TEST(Chaos, failsWhenItsDisturberNeverStrikes)
{
    const std::string command =
        NQ_CHAOS_HOST " --seed 1 --first-round 12 --rounds 1 --seconds 0 --disarmed";
    FILE* const output = popen(command.c_str(), "r");
    ASSERT_NE(output, nullptr);
    std::string text;
    char bytes[4096];
    for (std::size_t count = 0; (count = fread(bytes, 1, sizeof bytes, output)) > 0;)
        text.append(bytes, count);
    const int status = pclose(output);
    EXPECT_EQ(WEXITSTATUS(status), 1) << text;
    EXPECT_NE(text.find("VIOLATION: too little has happened"), std::string::npos) << text;
    EXPECT_NE(text.find("workers killed: 0, at least "), std::string::npos) << text;
}

} // namespace
