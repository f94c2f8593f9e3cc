#include "fixture.h"
#include "nqNamedPipe.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using end_to_end::EndToEnd;
using end_to_end::Pool;
using end_to_end::workerPath;

class HappyPath : public EndToEnd {};

/// Bytes of every value, without a period that matches any buffer's size.
std::string pattern(std::size_t size)
{
    std::string bytes(size, '\0');
    unsigned state = 1;
    for (char& byte : bytes) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<char>(state >> 24U);
    }
    return bytes;
}

std::vector<std::string> sorted(std::vector<std::string> texts)
{
    std::sort(texts.begin(), texts.end());
    return texts;
}

TEST_F(HappyPath, oneWorkerAnswersInTheOrderOfTheJobs)
{
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    for (const char* job : {"echo first", "echo second", "echo third"})
        pool.push(job);
    ASSERT_TRUE(pool.collect(3));
    EXPECT_EQ(pool.answers(), (std::vector<std::string>{"first", "second", "third"}));
    EXPECT_TRUE(mLog.lines().empty());
}

TEST_F(HappyPath, thousandsOfJobsOverSeveralWorkersComeBackOnceEach)
{
    Pool pool;
    ASSERT_TRUE(pool.start(4));
    std::vector<std::string> expected;
    for (int id = 0; id < 4000; ++id) {
        expected.push_back("job " + std::to_string(id));
        pool.push("echo " + expected.back());
    }
    ASSERT_TRUE(pool.collect(expected.size()));
    EXPECT_EQ(sorted(pool.answers()), sorted(expected));
    EXPECT_EQ(pool.scheduler().jobCount(), 0U);
}

TEST_F(HappyPath, everyWorkerOfThePoolTakesJobs)
{
    Pool pool;
    ASSERT_TRUE(pool.start(3));
    std::set<std::string> workers;
    ASSERT_TRUE(pool.pumpUntil([&] {
        workers.insert(pool.answers().begin(), pool.answers().end());
        while (pool.scheduler().jobCount() < 10)
            pool.push("pid");
        return workers.size() == 3;
    }));
    EXPECT_EQ(end_to_end::children().size(), 3U);
}

TEST_F(HappyPath, payloadsOfEverySizeComeBackUnchanged)
{
    constexpr std::size_t mebibyte = std::size_t{1} << 20;
    const std::size_t outgoingLimit = nq::nqNamedPipe().outgoingBufferLimit();
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    for (const std::size_t size :
         {std::size_t{1},
          std::size_t{2},
          std::size_t{3},
          std::size_t{4},
          std::size_t{5},
          std::size_t{65535},
          std::size_t{65536},
          outgoingLimit - 5,
          outgoingLimit - 4,
          outgoingLimit - 3,
          outgoingLimit,
          mebibyte - 1,
          mebibyte,
          mebibyte + 1,
          3 * mebibyte + 7}) {
        const std::string payload = pattern(size);
        EXPECT_TRUE(pool.ask("echo " + payload) == payload) << size << " bytes";
    }
}

TEST_F(HappyPath, tensOfMebibytesTravelThroughSeveralWorkersAtOnce)
{
    const std::string payload = pattern(std::size_t{32} << 20);
    Pool pool;
    ASSERT_TRUE(pool.start(2));
    for (int i = 0; i < 2; ++i)
        pool.push("echo " + payload);
    ASSERT_TRUE(pool.collect(2));
    ASSERT_EQ(pool.answers().size(), 2U);
    for (const std::string& answer : pool.answers())
        EXPECT_TRUE(answer == payload);
}

TEST_F(HappyPath, jobsAreBytesNotText)
{
    const std::string zeros("\0\n\0\xff", 4);
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    EXPECT_EQ(pool.ask("echo " + zeros), zeros);
}

TEST_F(HappyPath, aResultThatArrivesByteByByteIsWhole)
{
    Pool pool;
    pool.scheduler().setJobProcessTimeout(1); // ends the worker, which hangs after its answer
    ASSERT_TRUE(pool.start(1));
    EXPECT_EQ(pool.ask("dribble one byte at a time"), "one byte at a time");
    EXPECT_EQ(pool.ask("echo lost").front(), '(');
}

TEST_F(HappyPath, jobsPushedBeforeTheStartAreProcessed)
{
    Pool pool;
    pool.push("echo early");
    EXPECT_EQ(pool.scheduler().jobCount(), 1U);
    ASSERT_TRUE(pool.start(1));
    ASSERT_TRUE(pool.collect(1));
    EXPECT_EQ(pool.answers().front(), "early");
}

TEST_F(HappyPath, waitForFinishedLeavesEveryAnswerToBePopped)
{
    Pool pool;
    ASSERT_TRUE(pool.start(2));
    for (int id = 0; id < 20; ++id)
        pool.push("echo " + std::to_string(id));
    pool.push("crash");
    pool.scheduler().waitForFinished();
    EXPECT_EQ(pool.scheduler().jobCount(), 0U);
    EXPECT_EQ(pool.scheduler().resultCount(), 20U);
    EXPECT_EQ(pool.scheduler().failCount(), 1U);
}

TEST_F(HappyPath, aClearedJobIsNeverProcessed)
{
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    pool.push("echo dropped");
    pool.scheduler().clearPendingJobs();
    EXPECT_EQ(pool.scheduler().jobCount(), 0U);
    EXPECT_EQ(pool.ask("echo kept"), "kept");
    EXPECT_EQ(pool.answers().size(), 1U);
}

TEST_F(HappyPath, aPumpWithEveryWorkerBusyWaitsForTheAnswer)
{
    Pool pool;
    pool.scheduler().setJobProcessTimeout(1);
    ASSERT_TRUE(pool.start(1));
    pool.push("hang");
    pool.pump(0); // hands out the job
    const auto before = std::chrono::steady_clock::now();
    pool.pump(100);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds{90});
    EXPECT_TRUE(pool.collect(1));
}

// What a worker finds around it.

TEST_F(HappyPath, thePipeNameIsTheFirstArgumentWhenPrepended)
{
    Pool pool({"--one", "--two words"});
    ASSERT_TRUE(pool.start(1));
    const std::string arguments = pool.ask("arguments");
    ASSERT_GT(arguments.size(), 36U);
    EXPECT_EQ(arguments.substr(36), "\n--one\n--two words");
}

TEST_F(HappyPath, thePipeNameIsTheLastArgumentWhenNotPrepended)
{
    Pool pool;
    pool.scheduler().setArgumentsUtf8({"--one", "--two words"}, false);
    ASSERT_TRUE(pool.start(1));
    const std::string arguments = pool.ask("arguments");
    ASSERT_GT(arguments.size(), 36U);
    EXPECT_EQ(arguments.substr(0, arguments.size() - 36), "--one\n--two words\n");
}

TEST_F(HappyPath, anArgumentReachesTheWorkerAsItIs)
{
    const std::string odd = "-\"quoted\" 'and' $HOME \\ \xc3\xa9\t*";
    Pool pool({"", odd});
    ASSERT_TRUE(pool.start(1));
    EXPECT_EQ(pool.ask("arguments").substr(36), "\n\n" + odd);
}

TEST_F(HappyPath, theWorkerRunsInTheFolderOfItsExecutable)
{
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    EXPECT_EQ(pool.ask("folder"), std::filesystem::canonical(workerPath()).parent_path().string());
}

TEST_F(HappyPath, aRelativeExecutableCountsFromTheCurrentFolderOfTheHost)
{
    const std::filesystem::path folder = std::filesystem::canonical(workerPath()).parent_path();
    const std::string name = std::filesystem::path(workerPath()).filename().string();
    const end_to_end::CurrentFolder above(folder.parent_path().string());
    Pool pool((folder.filename() / name).string(), {});
    ASSERT_TRUE(pool.start(1));
    EXPECT_EQ(pool.ask("folder"), folder.string());
}

TEST_F(HappyPath, theWorkerSeesTheEnvironmentOfTheHost)
{
    ASSERT_EQ(setenv("NQ_END_TO_END_VALUE", "from the host", 1), 0);
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    EXPECT_EQ(pool.ask("environment NQ_END_TO_END_VALUE"), "from the host");
    unsetenv("NQ_END_TO_END_VALUE");
}

TEST_F(HappyPath, noDescriptorOfTheHostLeaksIntoAWorker)
{
    const int inheritable = open("/dev/null", O_RDONLY);
    ASSERT_NE(inheritable, -1);
    Pool pool;
    ASSERT_TRUE(pool.start(2));
    EXPECT_EQ(pool.ask("descriptors"), "0 1 2");
    EXPECT_EQ(pool.ask("standard-input"), "/dev/null");
    close(inheritable);
}

TEST_F(HappyPath, theWorkerLeadsAProcessGroupOfItsOwn)
{
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    EXPECT_EQ(pool.ask("process-group"), pool.ask("pid"));
}

} // namespace
