#include "fixture.h"
#include "text_pattern.h"

#include <chrono>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using end_to_end::EndToEnd;
using end_to_end::matchesWhole;
using end_to_end::Pool;
using end_to_end::ProcessWatch;
using nq::nqScheduler;

constexpr unsigned long cap = 64UL << 20; // far above a worker that does nothing
const std::string grownBytes = std::to_string(cap + (32UL << 20)); // far above the cap

class TimeLimit : public EndToEnd {};
class MemoryCap : public EndToEnd {};
class MemoryCapAfterAJob : public EndToEnd {};
class AllocationLimit : public EndToEnd {};
class MemoryAtRest : public EndToEnd {};

/// Resident bytes of a process, as the library's caps see them.
std::size_t residentBytes(const std::string& pid)
{
    std::size_t all = 0;
    std::size_t resident = 0;
    std::ifstream("/proc/" + pid + "/statm") >> all >> resident;
    return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

TEST_F(MemoryAtRest, ofAWorkerIsSmallAgainAfterALargeJob)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer keeps freed memory for a while";
#endif
    constexpr std::size_t mebibyte = std::size_t{1} << 20;
    constexpr std::size_t small = 16 * mebibyte;
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    const std::string pid = pool.ask("pid");
    // Once a block has come back, the allocator keeps smaller ones for itself.
    for (const std::size_t payload : {64 * mebibyte, 30 * mebibyte, 30 * mebibyte}) {
        ASSERT_EQ(pool.ask("echo " + std::string(payload, 'x')).size(), payload);
        EXPECT_TRUE(pool.pumpUntil([&] { return residentBytes(pid) < small; }))
            << residentBytes(pid);
    }
    EXPECT_EQ(pool.ask("pid"), pid) << "it is still the same worker";
}

TEST_F(TimeLimit, aJobIsKilledOnceAWholeSecondMoreHasPassed)
{
    Pool pool;
    ASSERT_TRUE(pool.scheduler().setJobProcessTimeout(1));
    ASSERT_TRUE(pool.start(1));
    const std::string pid = pool.ask("pid");
    const auto before = std::chrono::steady_clock::now();
    pool.push("hang");
    ASSERT_TRUE(pool.collect(2));
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::seconds{2});

    ASSERT_EQ(pool.failures().size(), 1U);
    EXPECT_EQ(pool.failures()[0].job, "hang");
    EXPECT_EQ(pool.failures()[0].reason, nqScheduler::Timeout);
    const std::string message = pool.failures()[0].message;
    // Two seconds, and more on a busy machine that pumps later.
    EXPECT_TRUE(
        matchesWhole(message, R"(killing scheduler worker : timeout \(([2-9]|[1-9][0-9])s\))"))
        << message;
    EXPECT_EQ(
        mLog.messages(),
        std::vector<std::string>{"Job failed error (3) " + message + " (PID " + pid + ")"});
    EXPECT_NE(pool.ask("pid"), pid);
}

TEST_F(TimeLimit, anEmptyResultDoesNotCompleteItsJob)
{
    // Intended: the job stays in the worker's hands until the worker is lost.
    Pool pool;
    pool.scheduler().setJobProcessTimeout(1);
    ASSERT_TRUE(pool.start(1));
    pool.ask("empty-result");
    ASSERT_EQ(pool.failures().size(), 1U);
    EXPECT_EQ(pool.failures()[0].job, "empty-result");
    EXPECT_EQ(pool.failures()[0].reason, nqScheduler::Timeout);
}

TEST_F(TimeLimit, aWorkerThatHangsAfterItsAnswerCostsTheNextJob)
{
    Pool pool;
    pool.scheduler().setJobProcessTimeout(1);
    ASSERT_TRUE(pool.start(1));
    EXPECT_EQ(pool.ask("answer-and-hang answer"), "answer");
    pool.ask("echo never read");
    ASSERT_EQ(pool.failures().size(), 1U);
    EXPECT_EQ(pool.failures()[0].job, "echo never read");
    EXPECT_EQ(pool.failures()[0].reason, nqScheduler::Timeout);
    EXPECT_EQ(pool.ask("echo again"), "again");
}

TEST_F(TimeLimit, takesWhatTheWorkerForkedAlong)
{
    Pool pool;
    pool.scheduler().setJobProcessTimeout(1);
    ASSERT_TRUE(pool.start(1));
    const ProcessWatch helper(std::stoi(pool.ask("fork-helper")));
    pool.ask("hang");
    EXPECT_EQ(pool.failures().at(0).reason, nqScheduler::Timeout);
    EXPECT_TRUE(helper.endsWithin(std::chrono::seconds{10}));
}

TEST_F(TimeLimit, theOtherWorkersServeWhileOneHangs)
{
    Pool pool;
    pool.scheduler().setJobProcessTimeout(1);
    ASSERT_TRUE(pool.start(2));
    pool.push("hang");
    for (int id = 0; id < 50; ++id)
        pool.push("echo beside");
    ASSERT_TRUE(pool.pumpUntil([&] { return pool.answers().size() == 50; }));
    EXPECT_TRUE(pool.failures().empty());
    EXPECT_TRUE(pool.collect(51));
}

/// The text that tells how much a worker uses, with one decimal at most.
const std::string amount = R"([0-9]+([.][0-9])?MB)";

TEST_F(MemoryCap, aWorkerAboveItIsKilledAndItsJobFails)
{
    Pool pool;
    ASSERT_TRUE(pool.scheduler().setMaxCapMemory(cap));
    ASSERT_TRUE(pool.start(1));
    const std::string pid = pool.ask("pid");
    pool.push("grow-and-hang " + grownBytes);
    ASSERT_TRUE(pool.collect(2));

    ASSERT_EQ(pool.failures().size(), 1U);
    EXPECT_EQ(pool.failures()[0].reason, nqScheduler::TooMuchRam);
    const std::string message = pool.failures()[0].message;
    const std::string beginning = "using too much RAM (";
    ASSERT_TRUE(matchesWhole(message, end_to_end::literally(beginning) + amount + R"(\))"))
        << message;
    EXPECT_GE(std::stoul(message.substr(beginning.size())), cap >> 20);
    EXPECT_EQ(
        mLog.messages(),
        std::vector<std::string>{"Job failed error (2) " + message + " (PID " + pid + ")"});
    EXPECT_NE(pool.ask("pid"), pid);
}

TEST_F(MemoryCap, anIdleWorkerAboveItIsReplacedWithoutAFailure)
{
    Pool pool;
    pool.scheduler().setMaxCapMemory(cap);
    ASSERT_TRUE(pool.start(1));
    const ProcessWatch worker(std::stoi(pool.ask("pid")));
    EXPECT_EQ(pool.ask("answer-then-grow " + grownBytes), "growing");
    ASSERT_TRUE(pool.pumpUntil([&] { return worker.endsWithin(std::chrono::milliseconds{0}); }));
    EXPECT_EQ(pool.ask("echo next"), "next");
    EXPECT_TRUE(pool.failures().empty());
    EXPECT_TRUE(mLog.lines().empty());
}

TEST_F(MemoryCap, countsNoMemoryThatAWorkerHasNotTouched)
{
    Pool pool;
    pool.scheduler().setMaxCapMemory(cap);
    pool.scheduler().setMaxCapMemoryAfterProcessingAJob(cap);
    ASSERT_TRUE(pool.start(1));
    const std::string pid = pool.ask("pid");
    EXPECT_EQ(pool.ask("map-untouched " + std::to_string(512UL << 20)), "mapped");
    for (int job = 0; job < 5; ++job)
        EXPECT_EQ(pool.ask("pid"), pid);
    EXPECT_TRUE(mLog.lines().empty());
}

TEST_F(MemoryCapAfterAJob, aWorkerAboveItIsRestartedAndNoJobIsLost)
{
    Pool pool;
    ASSERT_TRUE(pool.scheduler().setMaxCapMemoryAfterProcessingAJob(cap));
    ASSERT_TRUE(pool.start(1));
    const std::string pid = pool.ask("pid");
    pool.push("grow " + grownBytes);
    for (int id = 0; id < 5; ++id)
        pool.push("echo after");
    ASSERT_TRUE(pool.collect(7));

    EXPECT_TRUE(pool.failures().empty());
    EXPECT_EQ(pool.answers()[1], "grown");
    ASSERT_EQ(mLog.lines().size(), 1U);
    EXPECT_EQ(mLog.lines()[0].level, 0);
    EXPECT_FALSE(mLog.lines()[0].flush);
    const std::string message = mLog.messages()[0];
    const std::string expected =
        R"(restarting scheduler worker : using too much RAM after job processing \()" + amount +
        R"(\) \(no job lost\) \(PID )" + pid + R"(\))";
    EXPECT_TRUE(matchesWhole(message, expected)) << message;
    EXPECT_NE(pool.ask("pid"), pid);
}

TEST_F(MemoryCapAfterAJob, everyGrownWorkerOfAPoolIsRestarted)
{
    Pool pool;
    pool.scheduler().setMaxCapMemoryAfterProcessingAJob(cap);
    ASSERT_TRUE(pool.start(2));
    for (int id = 0; id < 6; ++id)
        pool.push("grow " + grownBytes);
    ASSERT_TRUE(pool.collect(6));
    EXPECT_EQ(pool.answers(), std::vector<std::string>(6, "grown"));
    // The last pump has delivered the last answers and, right after each, restarted their workers.
    EXPECT_EQ(mLog.lines().size(), 6U);
    EXPECT_EQ(end_to_end::children().size(), 2U);
}

TEST_F(AllocationLimit, aWorkerThatAllocatesBeyondItLosesItsJob)
{
    Pool pool;
    ASSERT_TRUE(pool.scheduler().setMaxPhysicalMemory(96UL << 20));
    ASSERT_TRUE(pool.start(1));
    pool.ask("allocate-until-fail");
    ASSERT_EQ(pool.failures().size(), 1U);
    EXPECT_EQ(pool.failures()[0].job, "allocate-until-fail");
    EXPECT_EQ(pool.failures()[0].reason, nqScheduler::UnexpectedCrash);
    EXPECT_EQ(pool.failures()[0].message, "Unexpected crash");
}

#if !defined(__SANITIZE_ADDRESS__) &&                                                              \
    !defined(__SANITIZE_THREAD__) // whose shadow memory alone is beyond every limit
TEST_F(AllocationLimit, aWorkerBelowItServesAndItsReplacementIsLimitedToo)
{
    Pool pool;
    pool.scheduler().setMaxPhysicalMemory(96UL << 20);
    ASSERT_TRUE(pool.start(1));
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(pool.ask("grow " + std::to_string(16UL << 20)), "grown");
        EXPECT_EQ(pool.ask("allocate-until-fail"), "(Unexpected crash)");
    }
    EXPECT_EQ(pool.ask("echo next"), "next");
}
#endif

} // namespace
