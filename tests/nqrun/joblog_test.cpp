#include "tools/nqrun/error.h"
#include "tools/nqrun/io.h"
#include "tools/nqrun/joblog.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace nqrun {
namespace {

class JoblogTest : public testing::TestWithParam<JoblogFormat> {
protected:
    JoblogTest()
    {
        std::string name = temporaryFolder() + "/joblog-XXXXXX";
        mFolder = ::mkdtemp(name.data());
    }
    ~JoblogTest() override
    {
        std::filesystem::remove_all(mFolder);
    }
    std::string path() const
    {
        return mFolder + "/run.log";
    }
    Joblog::Run run() const
    {
        return {{"convert", "{}", "\xff"}, "arguments"};
    }
    static Finished item(std::uint64_t index, bool isDone, const std::string& identity)
    {
        Finished finished;
        finished.index = index;
        finished.identity = identity;
        finished.isDone = isDone;
        finished.outcome = isDone ? "done" : "exit";
        finished.status = isDone ? 0 : 3;
        return finished;
    }
    void writeThree() const
    {
        Joblog log(path(), GetParam(), run(), false);
        log.write(item(1, true, "a"));
        log.write(item(3, false, "c \xff"));
        log.write(item(2, true, "b"));
    }
    std::string refusal(const Joblog::Run& of, bool resume) const
    {
        try {
            const Joblog log(path(), GetParam(), of, resume);
            return "";
        } catch (const Error& error) {
            return error.what();
        }
    }

    std::string mFolder;
};

TEST_P(JoblogTest, tellsWhatIsLogged)
{
    writeThree();
    const Joblog log(path(), GetParam(), run(), true);
    EXPECT_EQ(log.history().stateOf(1), Logged::Done);
    EXPECT_EQ(log.history().stateOf(2), Logged::Done);
    EXPECT_EQ(log.history().stateOf(3), Logged::Failed);
    EXPECT_EQ(log.history().stateOf(4), Logged::No);
    EXPECT_EQ(log.history().stateOf(400), Logged::No);
    EXPECT_EQ(log.history().count(), 3U);
}

TEST_P(JoblogTest, holdsNumbersOfAnySize)
{
    constexpr std::uint64_t large = std::uint64_t{1} << 62; // as an index, beyond any memory
    {
        Joblog log(path(), GetParam(), run(), false);
        log.write(item(large, true, "a"));
        log.write(item(4'000'000'000, false, "b"));
    }
    const Joblog log(path(), GetParam(), run(), true);
    EXPECT_EQ(log.history().stateOf(large), Logged::Done);
    EXPECT_EQ(log.history().stateOf(large - 1), Logged::No);
    EXPECT_EQ(log.history().stateOf(4'000'000'000), Logged::Failed);
    EXPECT_EQ(log.history().count(), 2U);
}

TEST_P(JoblogTest, knowsAnotherItemOfTheSameNumber)
{
    writeThree();
    const Joblog log(path(), GetParam(), run(), true);
    EXPECT_TRUE(log.history().isOf(3, "c \xff"));
    EXPECT_FALSE(log.history().isOf(3, "c"));
}

TEST_P(JoblogTest, believesTheLastLineOfAnItem)
{
    writeThree();
    {
        Joblog log(path(), GetParam(), run(), true);
        log.write(item(3, true, "c \xff"));
    }
    const Joblog log(path(), GetParam(), run(), true);
    EXPECT_EQ(log.history().stateOf(3), Logged::Done);
}

TEST_P(JoblogTest, doesNotCountAnAttemptThatIsToBeRepeated)
{
    {
        Joblog log(path(), GetParam(), run(), false);
        Finished finished = item(1, false, "a");
        finished.isFinal = false;
        log.write(finished);
    }
    const Joblog log(path(), GetParam(), run(), true);
    EXPECT_EQ(log.history().stateOf(1), Logged::No);
}

// Wherever a write is torn: what was whole counts, the rest is cut off, and the next line fits.
TEST_P(JoblogTest, isRepairedAfterATornLineOfAnyLength)
{
    writeThree();
    const std::string whole = contentOf(path());
    const std::size_t third = whole.rfind('\n', whole.size() - 2) + 1;
    for (std::size_t size = third; size < whole.size(); ++size) {
        std::filesystem::resize_file(path(), size);
        {
            Joblog log(path(), GetParam(), run(), true);
            EXPECT_EQ(log.history().count(), 2U) << size;
            EXPECT_EQ(log.history().stateOf(2), Logged::No) << size;
            log.write(item(2, true, "b"));
        }
        ASSERT_EQ(contentOf(path()), whole) << size;
    }
}

TEST_P(JoblogTest, isRepairedAfterATornFirstLine)
{
    writeThree();
    const std::string whole = contentOf(path());
    const std::size_t first = whole.find('\n') + 1;
    for (std::size_t size = 0; size < first; ++size) {
        for (const std::size_t nulls : {0, 300}) {
            writeWhole(path(), whole.substr(0, size) + std::string(nulls, '\0'), 0600);
            EXPECT_EQ(refusal(run(), true), "") << size;
            ASSERT_EQ(contentOf(path()), whole.substr(0, first)) << size;
        }
    }
}

// As some file systems leave them after a power loss.
TEST_P(JoblogTest, cutsOffNullBytesAtTheEnd)
{
    writeThree();
    const std::string whole = contentOf(path());
    for (const char* const end : {"", "\n"}) {
        writeWhole(path(), whole + std::string(300, '\0') + end, 0600);
        EXPECT_EQ(refusal(run(), true), "");
        EXPECT_EQ(contentOf(path()), whole);
    }
}

TEST_P(JoblogTest, isRefusedWithALineThatMakesNoSenseInTheMiddle)
{
    writeThree();
    std::string content = contentOf(path());
    content.insert(content.find('\n') + 1, "rubbish\n");
    writeWhole(path(), content, 0600);
    EXPECT_NE(refusal(run(), true).find("line 2 makes no sense"), std::string::npos);
    EXPECT_EQ(contentOf(path()), content) << "and left as it is";
}

TEST_P(JoblogTest, isNotOverwritten)
{
    writeThree();
    const std::string content = contentOf(path());
    EXPECT_NE(refusal(run(), false).find("--resume"), std::string::npos);
    EXPECT_EQ(contentOf(path()), content);
}

TEST_P(JoblogTest, leavesOtherFilesAlone)
{
    for (const char* const content : {"some text of mine\n", "no line"}) {
        writeWhole(path(), content, 0600);
        EXPECT_NE(refusal(run(), true), "");
        EXPECT_EQ(contentOf(path()), content);
    }
}

TEST_P(JoblogTest, belongsToOneRunAtATime)
{
    const Joblog log(path(), GetParam(), run(), false);
    EXPECT_EXIT(
        {
            std::fputs(refusal(run(), true).c_str(), stderr);
            std::exit(0);
        },
        testing::ExitedWithCode(0),
        "in use by another nqrun");
}

TEST_P(JoblogTest, isNotKeptByAProcessThatAKilledRunHadBegunToStart)
{
    int started[2];
    ASSERT_EQ(::pipe(started), 0);
    const pid_t killed = ::fork();
    if (killed == 0) {
        const Joblog log(path(), GetParam(), run(), false);
        const pid_t child = ::fork();
        if (child == 0)
            ::pause();
        ::write(started[1], &child, sizeof(child));
        ::_exit(0);
    }
    pid_t child = 0;
    ASSERT_EQ(::read(started[0], &child, sizeof(child)), ssize_t{sizeof(child)});
    ::waitpid(killed, nullptr, 0);
    EXPECT_EQ(refusal(run(), true), "");
    ::kill(child, SIGKILL);
    ::close(started[0]);
    ::close(started[1]);
}

TEST_P(JoblogTest, isOnDiskATenthOfASecondAfterTheFirstLine)
{
    Joblog log(path(), GetParam(), run(), false);
    EXPECT_FALSE(log.syncDue()) << "nothing is to be synced";
    const auto before = std::chrono::steady_clock::now();
    log.write(item(1, true, "a"));
    const auto due = log.syncDue();
    ASSERT_TRUE(due);
    EXPECT_LE(*due, std::chrono::steady_clock::now() + std::chrono::milliseconds(100));
    EXPECT_GE(*due, before + std::chrono::milliseconds(100));
    log.write(item(2, true, "b"));
    EXPECT_EQ(log.syncDue(), due) << "later lines do not put it off";
    log.sync();
    EXPECT_FALSE(log.syncDue());
}

INSTANTIATE_TEST_SUITE_P(
    Format,
    JoblogTest,
    testing::Values(JoblogFormat::Json, JoblogFormat::Parallel),
    [](const auto& format) { return format.param == JoblogFormat::Json ? "Json" : "Parallel"; });

class JsonJoblogTest : public JoblogTest {};

TEST_P(JsonJoblogTest, isRefusedForAnotherCommandLine)
{
    writeThree();
    const std::string content = contentOf(path());
    Joblog::Run other = run();
    other.command = {"convert", "{}", "x"};
    EXPECT_NE(
        refusal(other, true).find("is of another command line: convert '{}' '\\xff'"),
        std::string::npos)
        << refusal(other, true);
    other = run();
    other.kind = "shell";
    EXPECT_NE(refusal(other, true), "");
    EXPECT_EQ(contentOf(path()), content);
}

INSTANTIATE_TEST_SUITE_P(Format, JsonJoblogTest, testing::Values(JoblogFormat::Json));

TEST(JoblogLine, ofAFailureIsNeverThatOfSuccessWithTheColumnsOfParallel)
{
    for (const char* const outcome : {"exit", "signal", "exception", "timeout", "lost"}) {
        Finished finished;
        finished.outcome = outcome;
        EXPECT_EQ(
            joblogLine(finished, JoblogFormat::Parallel).find("\t0\t0\t0\t0\t"), std::string::npos)
            << outcome;
    }
    Finished done;
    done.isDone = true;
    done.outcome = "done";
    EXPECT_NE(joblogLine(done, JoblogFormat::Parallel).find("\t0\t0\t0\t0\t"), std::string::npos);
}

TEST(JoblogLine, hasTheColumnsOfParallel)
{
    Finished finished;
    finished.index = 7;
    finished.outcome = "signal";
    finished.signal = 11;
    finished.status = 139;
    finished.startedAt = 1'700'000'000'123'456;
    finished.ran = 2'500'000;
    finished.outputBytes = 42;
    finished.identity = "echo 'a b'";
    EXPECT_EQ(
        joblogLine(finished, JoblogFormat::Parallel),
        "7\t:\t1700000000.123\t     2.500\t0\t42\t0\t11\techo 'a b'");
}

} // namespace
} // namespace nqrun
