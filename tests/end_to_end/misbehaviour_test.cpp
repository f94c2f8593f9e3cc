#include "fixture.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fstream>
#include <ostream>
#include <string>
#include <vector>

namespace {

using end_to_end::EndToEnd;
using end_to_end::Pool;
using end_to_end::ProcessWatch;
using end_to_end::TemporaryFolder;
using nq::nqScheduler;

std::string crashLine(const std::string& pid)
{
    return "Job failed error (1) Unexpected crash (PID " + pid + ")";
}

#ifdef __SANITIZE_ADDRESS__
constexpr std::size_t keptBySanitizer = std::size_t{256} << 20; // freed memory, for a while
#else
constexpr std::size_t keptBySanitizer = 0;
#endif

// Every way to end in the middle of a job.

struct Ending {
    const char* name;
    const char* job;
};

constexpr Ending endings[] = {
    {"crash", "crash"},
    {"abort", "abort"},
    {"exitWithAStatus", "exit 3"},
    {"exitAsIfAllWereWell", "exit 0"},
    {"exceptionThatLeavesTheHook", "throw"},
    {"halfAFrame", "half-frame"},
    {"halfAHeader", "half-header"},
    {"closedPipeOfALivingWorker", "close-pipe-and-linger 100"},
};

void PrintTo(const Ending& ending, std::ostream* out)
{
    *out << ending.job;
}

class WorkerThatEndsInAJob : public EndToEnd, public testing::WithParamInterface<Ending> {};

TEST_P(WorkerThatEndsInAJob, costsThatJobAloneAndIsReplaced)
{
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    const std::string pid = pool.ask("pid");
    pool.push(GetParam().job);
    pool.push("echo next");
    ASSERT_TRUE(pool.collect(3));

    ASSERT_EQ(pool.failures().size(), 1U);
    EXPECT_EQ(pool.failures()[0].job, GetParam().job);
    EXPECT_EQ(pool.failures()[0].reason, nqScheduler::UnexpectedCrash);
    EXPECT_EQ(pool.failures()[0].message, "Unexpected crash");
    ASSERT_EQ(mLog.messages(), std::vector<std::string>{crashLine(pid)});
    EXPECT_EQ(mLog.lines()[0].level, 0);
    EXPECT_FALSE(mLog.lines()[0].flush);
    EXPECT_EQ(pool.answers().back(), "next");
    EXPECT_NE(pool.ask("pid"), pid);
    EXPECT_EQ(end_to_end::children().size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(
    Every, WorkerThatEndsInAJob, testing::ValuesIn(endings), [](const auto& tested) {
        return std::string(tested.param.name);
    });

class Misbehaviour : public EndToEnd {};

TEST_F(Misbehaviour, anExceptionThatNobodyCatchesIsSeenWhereItWasThrown)
{
    const TemporaryFolder folder;
    const std::string report = folder.file("report");
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    EXPECT_EQ(pool.ask("throw-and-tell " + report), "(Unexpected crash)");
    std::string text;
    std::getline(std::ifstream(report), text);
    EXPECT_EQ(text, "not left") << "a debugger would not find the hook on the stack";
}

TEST_F(Misbehaviour, aWorkerThatLingersAfterAnExceptionHoldsUpNobody)
{
    Pool pool({"--linger-after-an-exception"});
    ASSERT_TRUE(pool.scheduler().setJobProcessTimeout(1));
    ASSERT_TRUE(pool.start(2));
    pool.push("throw");
    for (int id = 0; id < 20; ++id)
        pool.push("echo " + std::to_string(id));
    ASSERT_TRUE(pool.collect(21));
    EXPECT_EQ(pool.answers().size(), 20U);
    ASSERT_EQ(pool.failures().size(), 1U);
    EXPECT_EQ(pool.failures()[0].job, "throw");
    EXPECT_EQ(pool.failures()[0].reason, nqScheduler::Timeout) << pool.failures()[0].message;
}

TEST_F(Misbehaviour, manyCrashesAmongManyJobsAreAllAccountedFor)
{
    Pool pool;
    ASSERT_TRUE(pool.start(3));
    for (int id = 0; id < 60; ++id)
        pool.push(id % 3 == 0 ? "crash " + std::to_string(id) : "echo " + std::to_string(id));
    ASSERT_TRUE(pool.collect(60));
    EXPECT_EQ(pool.answers().size(), 40U);
    EXPECT_EQ(pool.failures().size(), 20U);
    EXPECT_EQ(mLog.lines().size(), 20U);
    EXPECT_EQ(end_to_end::children().size(), 3U);
}

TEST_F(Misbehaviour, aLoggerThatCallsBackDoesNoHarm)
{
    Pool pool;
    ASSERT_TRUE(pool.start(2));
    nqScheduler& scheduler = pool.scheduler();
    int lines = 0;
    mLog.onMessage = [&](const std::string&) {
        ++lines;
        scheduler.processScheduler(1000);
        scheduler.waitForFinished();
        EXPECT_FALSE(scheduler.startWorker());
        EXPECT_FALSE(scheduler.stopScheduler());
        pool.push("echo from the logger");
    };
    for (int round = 0; round < 5; ++round)
        pool.push("crash");
    ASSERT_TRUE(pool.collect(10));
    EXPECT_EQ(lines, 5);
    EXPECT_EQ(pool.failures().size(), 5U);
    EXPECT_EQ(pool.answers(), std::vector<std::string>(5, "from the logger"));
    EXPECT_EQ(end_to_end::children().size(), 2U);
    mLog.onMessage = nullptr;
}

TEST_F(Misbehaviour, aFailedJobCarriesItsBytesAndCanBePushedAgain)
{
    const std::string job = "exit 1" + std::string(1, '\0') + std::string(100'000, 'j');
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    pool.ask(job);
    pool.ask(pool.failures().at(0).job);
    ASSERT_EQ(pool.failures().size(), 2U);
    EXPECT_TRUE(pool.failures()[1].job == job);
}

TEST_F(Misbehaviour, theAnswerOfAWorkerThatDiesAtOnceIsDelivered)
{
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    for (int round = 0; round < 10; ++round) {
        const ProcessWatch worker(std::stoi(pool.ask("answer-and-die")));
        EXPECT_TRUE(worker.endsWithin(end_to_end::generousLimit)); // else it may get a job more
    }
    EXPECT_TRUE(pool.failures().empty());
    EXPECT_TRUE(mLog.lines().empty());
}

TEST_F(Misbehaviour, aLongAnswerOfAWorkerThatDiesAtOnceIsDeliveredWhole)
{
    const std::string text(std::size_t{4} << 20, 't');
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    EXPECT_TRUE(pool.ask("answer-and-die " + text) == text);
    EXPECT_TRUE(pool.failures().empty());
}

TEST_F(Misbehaviour, junkThatADeadIdleWorkerLeavesDoesNotKeepItInThePool)
{
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    const ProcessWatch worker(std::stoi(pool.ask("pid")));
    EXPECT_EQ(pool.ask("junk-and-die answer"), "answer");
    ASSERT_TRUE(worker.endsWithin(end_to_end::generousLimit));
    pool.pump(0); // finds the end
    pool.pump(0); // finds that nobody wants the junk
    EXPECT_EQ(pool.ask("echo next"), "next");
    EXPECT_TRUE(pool.failures().empty());
}

TEST_F(Misbehaviour, anIdleWorkerThatDiesIsReplacedAndLeavesNoTrace)
{
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    const std::string pid = pool.ask("pid");
    const ProcessWatch worker(std::stoi(pid));
    worker.kill(SIGKILL);
    ASSERT_TRUE(worker.endsWithin(end_to_end::generousLimit));
    EXPECT_NE(pool.ask("pid"), pid);
    EXPECT_TRUE(pool.failures().empty());
    EXPECT_TRUE(mLog.lines().empty());
}

TEST_F(Misbehaviour, aWorkerThatFinishesByItselfAnswersItsLastJobAndIsReplaced)
{
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    const std::string pid = pool.ask("pid");
    const ProcessWatch worker(std::stoi(pid));
    EXPECT_EQ(pool.ask("finish-after-this finished"), "finished");
    ASSERT_TRUE(worker.endsWithin(end_to_end::generousLimit));
    EXPECT_NE(pool.ask("pid"), pid);
    EXPECT_TRUE(pool.failures().empty());
}

TEST_F(Misbehaviour, aWorkerThatFinishesByItselfLeavesWithTheWholeOfALargeAnswer)
{
    const std::string text(std::size_t{4} << 20, 't');
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    const std::string pid = pool.ask("pid");
    EXPECT_TRUE(pool.ask("finish-after-this " + text) == text);
    EXPECT_TRUE(ProcessWatch(std::stoi(pid)).endsWithin(end_to_end::generousLimit));
    EXPECT_TRUE(pool.failures().empty());
}

TEST_F(Misbehaviour, theEndOfAWorkerIsNoticedThoughAHelperHoldsItsSocket)
{
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    const std::string pid = pool.ask("pid");
    const ProcessWatch helper(std::stoi(pool.ask("fork-helper")));
    EXPECT_EQ(pool.ask("crash"), "(Unexpected crash)");
    EXPECT_EQ(mLog.messages(), std::vector<std::string>{crashLine(pid)});
    EXPECT_TRUE(helper.endsWithin(std::chrono::seconds{10}));
    EXPECT_NE(pool.ask("pid"), pid);
}

TEST_F(Misbehaviour, anIdleWorkerThatDiesIsReplacedThoughAHelperHoldsItsSocket)
{
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    const std::string pid = pool.ask("pid");
    const ProcessWatch worker(std::stoi(pid));
    const ProcessWatch helper(std::stoi(pool.ask("fork-helper")));
    worker.kill(SIGKILL);
    // The stream stays open, so that the end is noticed a little later than without the helper.
    const std::vector<pid_t> dead{std::stoi(pid)};
    ASSERT_TRUE(pool.pumpUntil([&] { return end_to_end::children() != dead; }));
    EXPECT_NE(pool.ask("pid"), pid);
    EXPECT_TRUE(pool.failures().empty());
    EXPECT_TRUE(helper.endsWithin(std::chrono::seconds{10}));
}

TEST_F(Misbehaviour, whatAWorkerForkedIsGoneAfterTheStop)
{
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    const ProcessWatch helper(std::stoi(pool.ask("fork-helper")));
    EXPECT_TRUE(pool.scheduler().stopScheduler());
    EXPECT_TRUE(helper.endsWithin(std::chrono::seconds{10}));
}

TEST_F(Misbehaviour, aWorkerThatLingersWithAClosedPipeHasEndedBeforeItIsReplaced)
{
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    const std::string pid = pool.ask("pid");
    const ProcessWatch worker(std::stoi(pid));
    pool.push("close-pipe-and-linger 200");
    ASSERT_TRUE(pool.pumpUntil([&] { return !pool.failures().empty(); }));
    EXPECT_TRUE(worker.endsWithin(std::chrono::milliseconds{0}));
    EXPECT_NE(pool.ask("pid"), pid);
}

TEST_F(Misbehaviour, aWorkerThatDiesBeforeItHasReadItsWholeJobCostsThatJob)
{
    const std::string job = "echo " + std::string(std::size_t{8} << 20, 'j');
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    const ProcessWatch worker(std::stoi(pool.ask("pid")));
    EXPECT_EQ(pool.ask("answer-and-hang answer"), "answer"); // it reads nothing any more
    pool.push(job);
    for (int pass = 0; pass < 10; ++pass)
        pool.pump(0); // more than enough to fill every buffer on the way
    EXPECT_EQ(pool.scheduler().jobCount(), 1U);
    worker.kill(SIGKILL);
    ASSERT_TRUE(pool.collect(3));
    ASSERT_EQ(pool.failures().size(), 1U);
    EXPECT_TRUE(pool.failures()[0].job == job);
    EXPECT_EQ(pool.failures()[0].reason, nqScheduler::UnexpectedCrash);
    EXPECT_TRUE(pool.ask(job) == job.substr(5));
}

TEST_F(Misbehaviour, aFloodingWorkerNeitherGrowsTheHostNorHoldsUpThePool)
{
    // The flood is as fast as the machine, and one frame of it is taken for each job's answer.
    constexpr std::size_t tolerated = std::size_t{64} << 20;
    const std::string answer = "beside the flood";
    Pool pool;
    ASSERT_TRUE(pool.start(2));
    const std::size_t before = end_to_end::residentBytes();
    std::size_t largest = before;
    pool.push("flood opening words");
    std::size_t pushed = 1;
    ASSERT_TRUE(pool.pumpUntil([&] {
        largest = std::max(largest, end_to_end::residentBytes());
        for (; pool.scheduler().jobCount() < 3; ++pushed)
            pool.push("echo " + answer);
        const auto& answers = pool.answers();
        return answers.size() > 5000 && std::count(answers.begin(), answers.end(), answer) > 100;
    }));
    EXPECT_LT(largest - before, tolerated + keptBySanitizer);
    ASSERT_TRUE(pool.collect(pushed));
    EXPECT_TRUE(pool.failures().empty());
}

class Helper : public EndToEnd {};

TEST_F(Helper, thatReturnsFromTheHookDoesNotAnswerInItsWorkersPlace)
{
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    EXPECT_EQ(pool.ask("helper-returns"), "the helper left with 0");
    EXPECT_EQ(pool.ask("echo next"), "next");
    EXPECT_TRUE(mLog.messages().empty());
}

TEST_F(Helper, thatExitsLeavesTheConnectionOfAStaticWorkerAlone)
{
    Pool pool({"--static"});
    ASSERT_TRUE(pool.start(1));
    EXPECT_EQ(pool.ask("helper-exits"), "the helper left with 0");
    EXPECT_EQ(pool.ask("echo next"), "next");
    EXPECT_TRUE(mLog.messages().empty());
}

} // namespace
