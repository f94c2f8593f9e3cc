#include "pool/nqPoolMetrics.h"

#include <gtest/gtest.h>
#include <string>

namespace {

using namespace std::chrono_literals;
using nq::nqPoolMetrics;
using nq::nqPoolStatus;
using nq::nqWorkerEnd;

/// The value of a series; empty when it is not there.
std::string valueOf(const std::string& text, const std::string& series)
{
    const std::size_t found = text.find("\n" + series + " ");
    if (found == std::string::npos)
        return {};
    const std::size_t begin = found + series.size() + 2;
    return text.substr(begin, text.find('\n', begin) - begin);
}

TEST(Metrics, countTimesInBucketsThatHoldAllSmallerOnes)
{
    nqPoolMetrics metrics;
    for (const auto time : {100us, 101us, 3000us, 20'000'000us})
        metrics.addRun(time);
    const std::string text = metrics.text({}, 1);
    EXPECT_EQ(valueOf(text, "nq_pool_job_run_seconds_bucket{le=\"0.0001\"}"), "1");
    EXPECT_EQ(valueOf(text, "nq_pool_job_run_seconds_bucket{le=\"0.0003\"}"), "2");
    EXPECT_EQ(valueOf(text, "nq_pool_job_run_seconds_bucket{le=\"0.003\"}"), "3");
    EXPECT_EQ(valueOf(text, "nq_pool_job_run_seconds_bucket{le=\"10\"}"), "3");
    EXPECT_EQ(valueOf(text, "nq_pool_job_run_seconds_bucket{le=\"30\"}"), "4");
    EXPECT_EQ(valueOf(text, "nq_pool_job_run_seconds_bucket{le=\"+Inf\"}"), "4");
    EXPECT_EQ(valueOf(text, "nq_pool_job_run_seconds_sum"), "20.003201");
    EXPECT_EQ(valueOf(text, "nq_pool_job_run_seconds_count"), "4");
}

TEST(Metrics, countTimesBeyondTheLastBound)
{
    nqPoolMetrics metrics;
    metrics.addWait(5h);
    const std::string text = metrics.text({}, 1);
    EXPECT_EQ(valueOf(text, "nq_pool_job_wait_seconds_bucket{le=\"10000\"}"), "0");
    EXPECT_EQ(valueOf(text, "nq_pool_job_wait_seconds_bucket{le=\"+Inf\"}"), "1");
    EXPECT_EQ(valueOf(text, "nq_pool_job_wait_seconds_sum"), "18000");
}

TEST(Metrics, tellOutcomesByReason)
{
    nqPoolStatus status;
    status.statistics.byReason[0] = 7;
    status.statistics.byReason[static_cast<std::size_t>(nq::nqAttempt::Reason::MemoryCap)] = 2;
    status.statistics.byReason[static_cast<std::size_t>(nq::nqAttempt::Reason::Stopped)] = 1;
    const std::string text = nqPoolMetrics().text(status, 1);
    EXPECT_EQ(valueOf(text, "nq_pool_jobs_total{outcome=\"done\",reason=\"done\"}"), "7");
    EXPECT_EQ(valueOf(text, "nq_pool_jobs_total{outcome=\"failed\",reason=\"memory_cap\"}"), "2");
    EXPECT_EQ(valueOf(text, "nq_pool_jobs_total{outcome=\"cancelled\",reason=\"stopped\"}"), "1");
    EXPECT_EQ(valueOf(text, "nq_pool_jobs_total{outcome=\"failed\",reason=\"crashed\"}"), "0")
        << "a series that is there from the beginning has a rate at the first failure";
}

TEST(Metrics, tellRestartsByCause)
{
    nqPoolMetrics metrics;
    metrics.addRestart(nqWorkerEnd::Crashed);
    metrics.addRestart(nqWorkerEnd::Crashed);
    metrics.addRestart(nqWorkerEnd::Recycled);
    const std::string text = metrics.text({}, 1);
    EXPECT_EQ(valueOf(text, "nq_pool_worker_restarts_total{cause=\"crashed\"}"), "2");
    EXPECT_EQ(valueOf(text, "nq_pool_worker_restarts_total{cause=\"recycled\"}"), "1");
    EXPECT_EQ(valueOf(text, "nq_pool_worker_restarts_total{cause=\"timeout\"}"), "0");
}

TEST(Metrics, tellMemoryByThePlaceOfAWorkerNotByItsProcess)
{
    nqPoolStatus status;
    status.workers.resize(1);
    status.workers[0].number = 3;
    status.workers[0].pid = 4711;
    status.workers[0].residentMemory = 1 << 20;
    const std::string text = nqPoolMetrics().text(status, 4);
    EXPECT_EQ(valueOf(text, "nq_pool_worker_memory_bytes{worker=\"3\"}"), "1048576");
    EXPECT_EQ(text.find("4711"), std::string::npos);
    EXPECT_EQ(valueOf(text, "nq_pool_workers"), "4");
}

TEST(Metrics, haveTheNameOfThePoolAsALabelOfAll)
{
    nqPoolStatus status;
    status.name = "thumb\"nails\"";
    const std::string text = nqPoolMetrics().text(status, 1);
    EXPECT_EQ(valueOf(text, "nq_pool_jobs_queued{pool=\"thumb\\\"nails\\\"\"}"), "0");
    EXPECT_EQ(
        valueOf(text, "nq_pool_job_run_seconds_bucket{pool=\"thumb\\\"nails\\\"\",le=\"1\"}"), "0");
    EXPECT_EQ(text.find("\nnq_pool_jobs_queued "), std::string::npos);
}

TEST(Metrics, sayWhichVersionOfTheLibraryThisIs)
{
    const std::string text = nqPoolMetrics().text({}, 1);
    EXPECT_NE(text.find("\nnq_pool_info{version=\"3."), std::string::npos) << text;
}

} // namespace
