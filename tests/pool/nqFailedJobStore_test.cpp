#include "pool/nqFailedJobStore.h"
#include "tests/common/files.h"
#include "tests/scripted/scriptedMachine.h"
#include "tests/unit/testSupport.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using common::contentOf;
using nq::nqAttempt;
using nq::nqFailedJobStore;
using nq::nqOutcome;

nqOutcome failedJob(nq::nqJobId id = 17, const std::string& bytes = "the job")
{
    nqOutcome outcome;
    outcome.state = nqOutcome::State::Failed;
    outcome.reason = nqAttempt::Reason::Crashed;
    outcome.signal = SIGSEGV;
    outcome.pid = 4711;
    outcome.id = id;
    outcome.bytes = common::bytes(bytes);
    return outcome;
}

std::string textBeside(const std::string& jobPath)
{
    return std::filesystem::path(jobPath).replace_extension(".txt").string();
}

/// Paths in the order of their names.
std::set<std::string> filesIn(const std::string& folder)
{
    std::set<std::string> paths;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        paths.insert(entry.path().string());
    return paths;
}

class FailedJobStore : public testing::Test {
protected:
    nqFailedJobStore store(std::size_t limit = 100, std::string program = {}) const
    {
        return {mFolder, limit, std::move(program)};
    }

    scripted::Machine mMachine;
    support::Logger mLogger;
    common::TemporaryFolder mParent;
    std::string mFolder = mParent.file("failed/jobs");
};

TEST_F(FailedJobStore, keepsTheBytesOfAJob)
{
    const std::string path = store().keep(failedJob(1, std::string("a\0\n\xFF", 4)));
    EXPECT_EQ(contentOf(path), std::string("a\0\n\xFF", 4));
}

TEST_F(FailedJobStore, keepsAnEmptyJob)
{
    const std::string path = store().keep(failedJob(1, ""));
    EXPECT_TRUE(std::filesystem::exists(path));
    EXPECT_EQ(contentOf(path), "");
}

TEST_F(FailedJobStore, keepsNothingWithoutAFolder)
{
    nqFailedJobStore store("", 100, "/bin/program");
    EXPECT_EQ(store.keep(failedJob()), "");
    EXPECT_EQ(store.problem(), "");
}

TEST_F(FailedJobStore, makesTheFolderAtOnce)
{
    store();
    EXPECT_TRUE(std::filesystem::is_directory(mFolder));
}

TEST_F(FailedJobStore, makesTheFolderAgainAfterSomebodyHasCleanedUp)
{
    nqFailedJobStore again = store();
    std::filesystem::remove_all(mFolder);
    EXPECT_EQ(contentOf(again.keep(failedJob())), "the job");
}

TEST_F(FailedJobStore, leavesNothingButTheTwoFiles)
{
    const std::string path = store().keep(failedJob());
    EXPECT_EQ(filesIn(mFolder), (std::set<std::string>{path, textBeside(path)}));
}

TEST_F(FailedJobStore, saysWhatHappenedToAJob)
{
    nqOutcome outcome = failedJob();
    outcome.ran = std::chrono::milliseconds(1'250);
    outcome.queued = std::chrono::milliseconds(3);
    outcome.message = "the message";
    outcome.lastWords = "first line\nlast line\n";
    nqAttempt earlier;
    earlier.reason = nqAttempt::Reason::Exited;
    earlier.exitStatus = 3;
    earlier.pid = 4710;
    outcome.earlierAttempts = {earlier};
    EXPECT_EQ(
        contentOf(textBeside(store().keep(outcome))),
        "Job 17, 7 B, failed: the worker was ended by SIGSEGV after 1.2 s, in the last of 2 "
        "attempts: probably a stack overflow or a bad pointer; run it again under a debugger\n"
        "\n"
        "Queued: 3 ms\n"
        "Attempt 1, PID 4710: the worker left with exit status 3 in the middle of the job\n"
        "Attempt 2, PID 4711: the worker was ended by SIGSEGV after 1.2 s\n"
        "\n"
        "Message:\n"
        "the message\n"
        "\n"
        "Last words:\n"
        "first line\n"
        "last line\n");
}

TEST_F(FailedJobStore, saysHowToRunAJobAgain)
{
    const common::CurrentFolder current(mParent.path());
    const std::string path = store(100, "/bin/program").keep(failedJob());
    const std::string text = contentOf(textBeside(path));
    const std::string expected =
        "\nTo run it again in " + mParent.path() + ":\n    /bin/program --job " + path +
        "\nUnder a debugger:\n    gdb --args /bin/program --job " + path + "\n";
    EXPECT_NE(text.find(expected), std::string::npos) << text;
}

TEST_F(FailedJobStore, saysItInWordsThatAShellUnderstands)
{
    mFolder = mParent.file("it's a folder; $HOME `x` \"y\"");
    const std::string program = mParent.addScript("the program", "cat \"$2\"");
    const std::string path = store(100, program).keep(failedJob());
    const std::string text = contentOf(textBeside(path));
    const std::size_t begin = text.find(":\n    ") + 2;
    const std::string command = text.substr(begin, text.find('\n', begin) - begin);
    const std::string output = mParent.file("output");
    ASSERT_EQ(std::system((command + " > " + output).c_str()), 0) << command;
    EXPECT_EQ(contentOf(output), "the job");
}

TEST_F(FailedJobStore, namesFilesAfterProcessAndJob)
{
    const std::string path = store().keep(failedJob(17));
    const std::string end = "Z-" + std::to_string(::getpid()) + "-17.job";
    ASSERT_GT(path.size(), end.size());
    EXPECT_EQ(path.substr(path.size() - end.size()), end);
}

TEST_F(FailedJobStore, namesFilesSoThatTheySortByTime)
{
    nqFailedJobStore all = store();
    std::vector<std::string> paths;
    for (const nq::nqJobId id : {9, 100, 1, 1})
        paths.push_back(all.keep(failedJob(id)));
    EXPECT_TRUE(std::is_sorted(paths.begin(), paths.end()));
    EXPECT_EQ(std::set<std::string>(paths.begin(), paths.end()).size(), paths.size());
}

TEST_F(FailedJobStore, isOneFolderFromWhereverTheHostGoes)
{
    const common::CurrentFolder current(mParent.path());
    nqFailedJobStore relative("here", 100, {});
    common::TemporaryFolder elsewhere;
    const common::CurrentFolder moved(elsewhere.path());
    EXPECT_EQ(
        std::filesystem::path(relative.keep(failedJob())).parent_path(), mParent.file("here"));
}

TEST_F(FailedJobStore, isForTheUserOnly)
{
    const std::string path = store().keep(failedJob());
    for (const std::string& file : {path, textBeside(path)}) {
        struct stat status {};
        ASSERT_EQ(::stat(file.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777U, 0600U) << file;
    }
}

TEST_F(FailedJobStore, keepsTheNewestJobs)
{
    nqFailedJobStore two = store(2);
    two.keep(failedJob(1));
    const std::string second = two.keep(failedJob(2));
    const std::string third = two.keep(failedJob(3));
    EXPECT_EQ(
        filesIn(mFolder),
        (std::set<std::string>{second, textBeside(second), third, textBeside(third)}));
}

TEST_F(FailedJobStore, keepsTheNewestOfEarlierProgramsToo)
{
    const std::string earlier = mFolder + "/20200102T030405.000006Z-1-1";
    store();
    for (const char* suffix : {".job", ".txt"})
        std::ofstream(earlier + suffix) << "old";
    const std::string newest = store(1).keep(failedJob());
    EXPECT_EQ(filesIn(mFolder), (std::set<std::string>{newest, textBeside(newest)}));
}

TEST_F(FailedJobStore, keepsAllWithoutALimit)
{
    nqFailedJobStore all = store(0);
    for (nq::nqJobId id = 1; id <= 150; ++id)
        all.keep(failedJob(id));
    EXPECT_EQ(filesIn(mFolder).size(), 300U);
}

TEST_F(FailedJobStore, removesWhatAKilledHostHasLeftHalfWritten)
{
    store();
    std::ofstream(mFolder + "/20200102T030405.000006Z-1-1.job.part") << "half";
    const std::string newest = store(1).keep(failedJob());
    EXPECT_EQ(filesIn(mFolder), (std::set<std::string>{newest, textBeside(newest)}));
}

TEST_F(FailedJobStore, leavesFilesOfOthersAlone)
{
    store();
    const std::vector<std::string> others{
        "notes.txt",
        "a.job",
        "20200102T030405.000006Z-1-1",
        "20200102T030405.000006Z-1-1.log",
        "20200102T030405.000006Z-1-1x.job",
        "20200102T030405.000006Z-1-.job",
        "20200102T030405.000006Z--1.job",
        "20200102T030405.000006Z-1.job",
        "20200102T030405.000006Z-.job",
        "2020010xT030405.000006Z-1-1.job",
        "20200102 030405.000006Z-1-1.job",
        "20200102T030405.000006Z-1-1.part"};
    for (const std::string& other : others)
        std::ofstream(mFolder + '/' + other) << "mine";
    nqFailedJobStore one = store(1);
    one.keep(failedJob(1));
    one.keep(failedJob(2));
    for (const std::string& other : others)
        EXPECT_EQ(contentOf(mFolder + '/' + other), "mine") << other;
}

TEST_F(FailedJobStore, showsAReaderWholeFilesOnly)
{
    const std::string bytes(1 << 20, 'x');
    nqFailedJobStore all = store(10);
    std::atomic<bool> isDone{false};
    std::thread writer([&] {
        for (nq::nqJobId id = 1; id <= 50; ++id)
            all.keep(failedJob(id, bytes));
        isDone = true;
    });
    std::size_t halves = 0;
    std::size_t seen = 0;
    while (!isDone || seen == 0) {
        for (const std::string& path : filesIn(mFolder)) {
            if (std::filesystem::path(path).extension() != ".job")
                continue;
            std::error_code removedMeanwhile;
            const std::uintmax_t size = std::filesystem::file_size(path, removedMeanwhile);
            if (removedMeanwhile)
                continue;
            ++seen;
            halves += size == bytes.size() ? 0 : 1;
        }
    }
    writer.join();
    EXPECT_EQ(halves, 0U);
}

TEST_F(FailedJobStore, saysWhyTheFolderCannotBeMade)
{
    const std::string file = mParent.addFile("file", "", 0644);
    nqFailedJobStore impossible(file + "/folder", 100, {});
    EXPECT_EQ(
        impossible.problem(),
        "The folder for failed jobs cannot be made: " + file + "/folder: Not a directory");
    EXPECT_EQ(impossible.keep(failedJob()), "");
}

TEST_F(FailedJobStore, warnsInTheLogOfAJobThatIsNotKept)
{
    const std::string file = mParent.addFile("file", "", 0644);
    nqFailedJobStore impossible(file + "/folder", 100, {});
    mMachine.logged.clear();
    impossible.keep(failedJob());
    ASSERT_EQ(mMachine.logged.size(), 1U);
    EXPECT_EQ(mMachine.logged[0].entry.mMessage, impossible.problem());
    EXPECT_EQ(mMachine.logged[0].entry.mLevel, nq::nqLog::Warning);
}

TEST_F(FailedJobStore, leavesNoHalfOfAJobThatFindsNoRoom)
{
    nqFailedJobStore full = store();
    {
        const common::FileSizeLimit limit(4096);
        EXPECT_EQ(full.keep(failedJob(1, std::string(5'000, 'x'))), "");
    }
    EXPECT_NE(full.problem().find(": File too large"), std::string::npos) << full.problem();
    EXPECT_EQ(filesIn(mFolder), std::set<std::string>{});
}

TEST_F(FailedJobStore, keepsJobsAgainOnceThereIsRoom)
{
    nqFailedJobStore full = store();
    {
        const common::FileSizeLimit limit(4096);
        full.keep(failedJob(1, std::string(5'000, 'x')));
    }
    EXPECT_NE(full.keep(failedJob(2)), "");
    EXPECT_EQ(full.problem(), "");
}

} // namespace
