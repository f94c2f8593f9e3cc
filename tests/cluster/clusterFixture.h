#pragma once

#include "cluster/include/nqClusterPool.h"
#include "tests/cluster/redisServer.h"
#include "tests/common/files.h"
#include "tests/common/waiting.h"

#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace cluster {

inline const std::string queue = "tests";
inline const std::string jobsKey = "nq:{tests}:jobs";

/// Tests with a server of their own.
class Cluster : public testing::Test {
protected:
    void SetUp() override
    {
        if (!RedisServer::isInstalled())
            GTEST_SKIP() << "redis-server is not installed";
        startRedis();
    }

    void startRedis(
        const std::vector<std::string>& options = {},
        const std::vector<std::string>& environment = {})
    {
        mRedis.reset();
        mRedis = std::make_unique<RedisServer>(options, environment);
    }

    /// An agent, once it takes jobs. Short leases, so that nobody waits for long.
    std::unique_ptr<Program> startAgent(
        const std::string& name,
        const std::vector<std::string>& options = {},
        const std::string& worker = NQ_CLUSTER_WORKER)
    {
        std::unique_ptr<Program> agent = launchAgent(name, options, worker);
        EXPECT_TRUE(agent->says("takes jobs")) << agent->printed();
        return agent;
    }

    std::unique_ptr<Program> launchAgent(
        const std::string& name,
        const std::vector<std::string>& options = {},
        const std::string& worker = NQ_CLUSTER_WORKER,
        const std::vector<std::string>& environment = {})
    {
        std::vector<std::string> command{
            NQ_AGENT,
            "--redis",
            mRedis->url(),
            "--queue",
            queue,
            "--workers",
            "2",
            "--lease",
            "1",
            "--name",
            name};
        command.insert(command.end(), options.begin(), options.end());
        command.insert(command.end(), {"--", worker});
        return std::make_unique<Program>(command, environment);
    }

    std::unique_ptr<nq::nqClusterPool>
    makePool(const nq::nqPoolOptions& options = {}, const nq::nqClusterOptions& cluster = {})
    {
        return std::make_unique<nq::nqClusterPool>(mRedis->url(), queue, options, cluster);
    }

    /// The next outcome, or a failure of the test.
    static nq::nqOutcome nextOf(nq::nqClusterPool& pool)
    {
        std::optional<nq::nqOutcome> outcome = pool.next(common::generousLimit);
        EXPECT_TRUE(outcome) << "no outcome comes; " << pool.problem();
        return outcome ? std::move(*outcome) : nq::nqOutcome();
    }

    /// Pumps until it is so. False when it never is.
    static bool pumpUntil(nq::nqClusterPool& pool, const std::function<bool()>& isSo)
    {
        const auto end = std::chrono::steady_clock::now() + common::generousLimit;
        while (!isSo()) {
            if (std::chrono::steady_clock::now() > end)
                return false;
            pool.pump(std::chrono::milliseconds(10));
        }
        return true;
    }

    /// A job that runs until end(NAME), and whether it does.
    std::string waiting(const std::string& name) const
    {
        return "wait " + mFolder.file(name);
    }
    bool runs(nq::nqClusterPool& pool, const std::string& name) const
    {
        const std::string started = mFolder.file(name) + ".started";
        return pumpUntil(pool, [&] { return !common::contentOf(started).empty(); });
    }
    void end(const std::string& name) const
    {
        mFolder.addFile(name, "", 0600);
    }

    static nq::nqRetryPolicy attempts(unsigned count)
    {
        nq::nqRetryPolicy policy;
        policy.attempts = count;
        return policy;
    }

    common::TemporaryFolder mFolder;
    std::unique_ptr<RedisServer> mRedis;
};

} // namespace cluster
