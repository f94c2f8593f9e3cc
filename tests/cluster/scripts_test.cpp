// What Redis does in one step, asked for by hand.
#include "cluster/nqClusterKeys.h"
#include "cluster/nqClusterScripts.h"
#include "tests/cluster/redisServer.h"

#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

namespace cluster {

using nq::nqScript;

namespace {

class Scripts : public testing::Test {
protected:
    void SetUp() override
    {
        if (!RedisServer::isInstalled())
            GTEST_SKIP() << "redis-server is not installed";
        mRedis.emplace();
        ask({"XGROUP", "CREATE", mKeys.jobs, "agents", "0", "MKSTREAM"});
        ask({"HSET", mKeys.agents, "host7", "1000 1"});
    }

    std::string ask(const std::vector<std::string>& command) const
    {
        return mRedis->ask(command);
    }

    std::string addJob() const
    {
        return ask({"XADD", mKeys.jobs, "*", "client", "reports", "id", "1", "job", "bytes"});
    }

    /// A job that the agent has.
    std::string givenJob() const
    {
        std::string entry = addJob();
        ask({"XREADGROUP", "GROUP", "agents", "host7", "STREAMS", mKeys.jobs, ">"});
        return entry;
    }

    void addOutcome(const std::string& id) const
    {
        ask({"XADD", mOutcomes, "*", "id", id});
    }

    /// In a transaction, which says so first.
    std::string accept(const std::string& before, const std::string& last) const
    {
        ask({"HSET", mKeys.client("reports"), "batch", last});
        return acceptAlone(before, last);
    }

    std::string acceptAlone(const std::string& before, const std::string& last) const
    {
        return ask(
            {"EVAL",
             textOf(nqScript::Accept),
             "3",
             mKeys.jobs,
             mKeys.client("reports"),
             mKeys.runs,
             "session",
             before,
             last,
             "1"});
    }

    /// Both ended with a result that was added before.
    std::string finish(const std::string& first, const std::string& second) const
    {
        ask({"HSET", mKeys.agent("host7"), "batch", first});
        return finishAlone(first, second);
    }

    std::string finishAlone(const std::string& first, const std::string& second) const
    {
        return ask(
            {"EVAL",
             textOf(nqScript::Finish),
             "3",
             mKeys.jobs,
             mKeys.agents,
             mKeys.agent("host7"),
             mKeys.prefix,
             "host7",
             "2",
             first,
             second,
             "reports",
             "added",
             "0",
             "reports",
             "added",
             "0"});
    }

    /// The job of addJob().
    std::string withdraw(const std::string& entry, const std::string& from) const
    {
        return ask(
            {"EVAL",
             textOf(nqScript::Withdraw),
             "2",
             mKeys.jobs,
             mKeys.client("reports"),
             mKeys.prefix,
             "reports",
             "1",
             "1",
             entry,
             from,
             "0",
             "1000",
             "0"});
    }

    std::optional<RedisServer> mRedis;
    const nq::nqClusterKeys mKeys{"tests"};
    const std::string mOutcomes = mKeys.outcomes("reports");
};

} // namespace

TEST_F(Scripts, acceptJobsThatFollowThoseBefore)
{
    ask({"HSET", mKeys.client("reports"), "session", "session", "last", "4"});
    addJob();
    EXPECT_EQ(accept("4", "5"), "1");
    EXPECT_EQ(ask({"HGET", mKeys.client("reports"), "last"}), "5");
    EXPECT_EQ(ask({"XLEN", mKeys.jobs}), "1");
}

TEST_F(Scripts, takeOutJobsThatDoNotFollowThoseBefore)
{
    ask({"HSET", mKeys.client("reports"), "session", "session", "last", "4"});
    const std::string earlier = addJob();
    addJob();
    EXPECT_EQ(accept("5", "6"), "NQGAP jobs before are missing");
    EXPECT_EQ(ask({"HGET", mKeys.client("reports"), "last"}), "4");
    EXPECT_EQ(ask({"XLEN", mKeys.jobs}), "1");
    EXPECT_NE(ask({"XRANGE", mKeys.jobs, earlier, earlier}), "");
}

TEST_F(Scripts, takeOutJobsOfASessionThatIsOver)
{
    ask({"HSET", mKeys.client("reports"), "session", "another", "last", "4"});
    addJob();
    EXPECT_EQ(accept("4", "5"), "NQTAKEN the client has another session");
    EXPECT_EQ(ask({"XLEN", mKeys.jobs}), "0");
}

TEST_F(Scripts, endJobsWhoseResultsWereAdded)
{
    const std::string first = givenJob();
    const std::string second = givenJob();
    addOutcome("1");
    addOutcome("2");
    EXPECT_EQ(finish(first, second), "");
    EXPECT_EQ(ask({"XLEN", mKeys.jobs}), "0");
    EXPECT_EQ(ask({"XLEN", mOutcomes}), "2");
}

TEST_F(Scripts, takeOutTheResultOfAJobThatSomebodyElseHasEnded)
{
    const std::string first = givenJob();
    const std::string second = givenJob();
    ask({"XACK", mKeys.jobs, "agents", first});
    ask({"XDEL", mKeys.jobs, first});
    addOutcome("0"); // of an earlier one
    addOutcome("1");
    addOutcome("2");
    EXPECT_EQ(finish(first, second), "0\n1\n");
    const std::string left = ask({"XRANGE", mOutcomes, "-", "+"});
    EXPECT_NE(left.find("id\n0\n"), std::string::npos);
    EXPECT_EQ(left.find("id\n1\n"), std::string::npos);
    EXPECT_NE(left.find("id\n2\n"), std::string::npos);
    EXPECT_EQ(ask({"XLEN", mKeys.jobs}), "0");
}

TEST_F(Scripts, takeOutTheResultsOfALostAgent)
{
    const std::string first = givenJob();
    const std::string second = givenJob();
    ask({"HDEL", mKeys.agents, "host7"});
    addOutcome("1");
    addOutcome("2");
    EXPECT_EQ(finish(first, second), "NQLOST the agent was taken for lost");
    EXPECT_EQ(ask({"XLEN", mOutcomes}), "0");
    EXPECT_EQ(ask({"XLEN", mKeys.jobs}), "2");
}

TEST_F(Scripts, lookForAJobThatIsNotThereOnlyWhereTheyAreTold)
{
    const std::string gone = addJob();
    ask({"XDEL", mKeys.jobs, gone});
    EXPECT_EQ(withdraw(gone, ""), "0\n\n");
    EXPECT_EQ(withdraw(gone, "-"), "0\n-\n");
    addJob();
    EXPECT_EQ(withdraw("", "-"), "1\n\n");
    EXPECT_EQ(ask({"XLEN", mKeys.jobs}), "0");
}

TEST_F(Scripts, acceptNothingWhereTheBeginningOfATransactionWasRefused)
{
    ask({"HSET", mKeys.client("reports"), "session", "session", "last", "4"});
    addJob();
    EXPECT_EQ(acceptAlone("4", "5"), "NQALONE there was no transaction");
    EXPECT_EQ(ask({"HGET", mKeys.client("reports"), "last"}), "4");
}

TEST_F(Scripts, endNothingWhereTheBeginningOfATransactionWasRefused)
{
    const std::string first = givenJob();
    const std::string second = givenJob();
    addOutcome("2");
    EXPECT_EQ(finishAlone(first, second), "NQALONE there was no transaction");
    EXPECT_EQ(ask({"XLEN", mKeys.jobs}), "2");
    EXPECT_EQ(ask({"XPENDING", mKeys.jobs, "agents"}).substr(0, 2), "2\n");
}

} // namespace cluster
