#include "fixture.h"
#include "text_pattern.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

namespace {

using end_to_end::ChildProgram;
using end_to_end::EndToEnd;
using end_to_end::literally;
using end_to_end::matchesWhole;
using end_to_end::Pool;
using end_to_end::ProcessWatch;
using end_to_end::TemporaryFolder;
using end_to_end::workerPath;

constexpr int shortLimitMs = 50; // for what never connects

/// The whole text of a failed launch. `pid` is a pattern, as is the name of the pipe.
std::string launchFailure(
    const std::string& reason,
    const std::string& pid,
    const std::string& exePath,
    const std::string& argumentsBehindThePipe)
{
    const std::string pipeName =
        "[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}";
    return "Fail to startWorker, " + reason + " \\(pid " + pid +
           "\\) - command line was: " + literally(exePath) + " \"" + pipeName + '"' +
           literally(argumentsBehindThePipe) + " current working directory was " +
           literally(std::filesystem::current_path().string());
}

const std::string notRunning = "Process state is not 'running'";
const std::string noConnection = "Timeout while waiting for worker connection";
const std::string anyPid = "[1-9][0-9]*";

class Launch : public EndToEnd {
protected:
    /// The log holds what the platform knows of the failure, and then the failure.
    void expectLog(const std::string& knowledge, const std::string& failure) const
    {
        ASSERT_EQ(mLog.lines().size(), 2U);
        for (const auto& line : mLog.lines()) {
            EXPECT_EQ(line.level, 3);
            EXPECT_TRUE(line.flush);
        }
        EXPECT_TRUE(matchesWhole(mLog.messages()[0], knowledge)) << mLog.messages()[0];
        EXPECT_TRUE(matchesWhole(mLog.messages()[1], failure)) << mLog.messages()[1];
    }

    /// A worker that ends, for `how` ends, before it connects: its launch fails long before its
    /// time is up.
    void expectEarlyEnd(const std::string& exePath, const std::string& how)
    {
        Pool pool(exePath, {});
        EXPECT_FALSE(pool.start(1));
        // Whether the state is asked before or after the end is up to the machine.
        const std::string either = "(" + notRunning + "|" + noConnection + ")";
        expectLog(
            literally(exePath) + " \\(pid " + anyPid + "\\) " + how,
            launchFailure(either, anyPid, exePath, ""));
    }

    TemporaryFolder mFolder;
};

TEST_F(Launch, ofAMissingExecutableFailsAtOnce)
{
    const std::string missing = mFolder.file("missing");
    Pool pool(missing, {"-v", "two words"});
    EXPECT_FALSE(pool.start(1));
    expectLog(
        literally("Cannot start " + missing + ": No such file or directory"),
        launchFailure(notRunning, "0", missing, R"( "-v" "two words")"));
    EXPECT_TRUE(end_to_end::children().empty());
}

TEST_F(Launch, inAMissingFolderSaysThatTheFolderIsMissing)
{
    const std::string folder = mFolder.file("missing");
    const std::string path = folder + "/worker";
    Pool pool(path, {});
    EXPECT_FALSE(pool.start(1));
    expectLog(
        literally(
            "Cannot start " + path + ": its working directory " + folder +
            " cannot be entered: No such file or directory"),
        launchFailure(notRunning, "0", path, ""));
}

TEST_F(Launch, ofAFileThatIsNotExecutableFailsAtOnce)
{
    const std::string path = mFolder.addScript("script", "exit 0\n");
    std::filesystem::permissions(path, std::filesystem::perms::owner_read);
    Pool pool(path, {});
    EXPECT_FALSE(pool.start(1));
    expectLog(
        literally("Cannot start " + path + ": Permission denied (it has no execute permission)"),
        launchFailure(notRunning, "0", path, ""));
}

TEST_F(Launch, ofAFolderFailsAtOnce)
{
    const std::string path = mFolder.file(".");
    Pool pool(path, {});
    EXPECT_FALSE(pool.start(1));
    expectLog(
        literally("Cannot start " + path + ": Permission denied (it is a folder)"),
        launchFailure(notRunning, "0", path, ""));
}

TEST_F(Launch, ofAScriptWithoutItsInterpreterSaysWhatIsMissing)
{
    const std::string path = mFolder.file("script");
    std::ofstream(path) << "#!/nowhere/interpreter\n";
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    Pool pool(path, {});
    EXPECT_FALSE(pool.start(1));
    expectLog(
        literally(
            "Cannot start " + path +
            ": No such file or directory (the file is there, but the "
            "interpreter or loader that it names is not)"),
        launchFailure(notRunning, "0", path, ""));
}

TEST_F(Launch, ofAScriptThatNamesNoInterpreterSaysSo)
{
    const std::string path = mFolder.file("script");
    std::ofstream(path) << "exit 0\n";
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    Pool pool(path, {});
    EXPECT_FALSE(pool.start(1));
    expectLog(
        literally(
            "Cannot start " + path +
            ": Exec format error (a script needs a first line that names "
            "its interpreter, as #!/bin/sh does)"),
        launchFailure(notRunning, "0", path, ""));
}

TEST_F(Launch, withoutAnExecutableFails)
{
    Pool pool("", {});
    EXPECT_FALSE(pool.start(1));
    expectLog(
        "Cannot start a process: there is no path of an executable",
        launchFailure(notRunning, "0", "", ""));
}

TEST_F(Launch, ofAWorkerThatRefusesItsArgumentsFailsWithItsStatus)
{
    expectEarlyEnd(
        mFolder.addScript("worker", "exit 2\n"), "left with exit status 2 before it connected");
}

TEST_F(Launch, ofAWorkerThatCrashesWhileItLoadsFailsWithItsSignal)
{
    expectEarlyEnd(
        mFolder.addScript("worker", "kill -SEGV $$\n"),
        R"(was ended by signal 11 \(Segmentation fault\)( with a core dump)? before it connected)");
}

TEST_F(Launch, ofAWorkerWithoutItsSharedLibrarySaysHowToFindOut)
{
    const std::string program = mFolder.file("worker");
    std::filesystem::copy_file(workerPath(), program);
    // The name of the library in the program's own text.
    std::fstream file(program, std::ios::in | std::ios::out | std::ios::binary);
    std::string bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    const std::string library = "libnqSchedulerAPI.so";
    const std::size_t position = bytes.find(library);
    ASSERT_NE(position, std::string::npos);
    file.seekp(static_cast<std::streamoff>(position));
    file << "libmissing";
    file.close();
    expectEarlyEnd(
        program,
        "left with exit status 127 before it connected; this status often means a missing shared "
        "library: run it by hand to see which");
}

TEST_F(Launch, ofAWorkerThatLeavesWithoutAnErrorWaitsForWhatItMayHaveStarted)
{
    const std::string path = mFolder.addScript("worker", "exit 0\n");
    Pool pool(path, {});
    EXPECT_FALSE(pool.scheduler().startScheduler(1, shortLimitMs));
    const std::string either = "(" + notRunning + "|" + noConnection + ")";
    expectLog(
        literally(path) + " \\(pid " + anyPid + "\\) left with exit status 0 before it connected",
        launchFailure(either, anyPid, path, ""));
}

TEST_F(Launch, ofAProgramThatPutsItselfIntoTheBackgroundWorks)
{
    Pool pool(mFolder.addScript("wrapper", "setsid '" + workerPath() + "' \"$@\" &\nexit 0\n"), {});
    ASSERT_TRUE(pool.start(2));
    EXPECT_EQ(pool.ask("echo from behind"), "from behind");
    EXPECT_EQ(pool.ask("crash"), "(Unexpected crash)");
    EXPECT_EQ(pool.ask("echo next"), "next");
    EXPECT_TRUE(pool.scheduler().stopScheduler());
}

TEST_F(Launch, ofAWorkerThatNeverConnectsFailsAndEndsIt)
{
    Pool pool({"--never-connect"});
    EXPECT_FALSE(pool.scheduler().startScheduler(1, shortLimitMs));
    ASSERT_EQ(mLog.lines().size(), 1U);
    EXPECT_EQ(mLog.lines()[0].level, 3);
    EXPECT_TRUE(mLog.lines()[0].flush);
    const std::string message = mLog.messages()[0];
    EXPECT_TRUE(matchesWhole(
        message, launchFailure(noConnection, anyPid, workerPath(), R"( "--never-connect")")))
        << message;
}

TEST_F(Launch, namesTheCurrentFolderOfTheHostAsEmptyWhenItHasBeenRemoved)
{
    std::filesystem::create_directory(mFolder.file("removed"));
    const end_to_end::CurrentFolder removed(mFolder.file("removed"));
    std::filesystem::remove(mFolder.file("removed"));
    Pool pool("/nowhere/worker", {});
    EXPECT_FALSE(pool.start(1));
    const std::string ending = " current working directory was ";
    const std::string message = mLog.messages().back();
    ASSERT_GT(message.size(), ending.size());
    EXPECT_EQ(message.substr(message.size() - ending.size()), ending);
}

TEST_F(Launch, worksInAHostWhoseCurrentFolderHasBeenRemoved)
{
    std::filesystem::create_directory(mFolder.file("removed"));
    const end_to_end::CurrentFolder removed(mFolder.file("removed"));
    std::filesystem::remove(mFolder.file("removed"));
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    EXPECT_EQ(pool.ask("echo all the same"), "all the same");
}

TEST_F(Launch, oneFailureInThreeLeavesTheOthersUntilTheEnd)
{
    // The first worker takes the right to be executed from the script, the failure's report gives
    // it back: just the second launch fails.
    const std::string first = mFolder.file("first");
    const std::string script = mFolder.addScript(
        "wrapper",
        "mkdir '" + first + "' 2>/dev/null && chmod 0400 \"$0\"\nexec '" + workerPath() +
            "' \"$@\"\n");
    mLog.onMessage = [&](const std::string&) {
        std::filesystem::permissions(script, std::filesystem::perms::owner_all);
    };
    Pool pool(script, {});
    EXPECT_FALSE(pool.start(3));
    EXPECT_EQ(mLog.lines().size(), 2U);
    EXPECT_EQ(end_to_end::children().size(), 2U);
    EXPECT_FALSE(pool.scheduler().stopScheduler());
    EXPECT_EQ(end_to_end::children().size(), 2U);

    // A further start launches its workers beside those left over.
    ASSERT_TRUE(pool.start(1));
    EXPECT_EQ(end_to_end::children().size(), 3U);
    EXPECT_EQ(pool.ask("echo served"), "served");
}

TEST_F(Launch, aFailedReplacementIsReportedAndLeavesThePoolSmaller)
{
    const std::string script = mFolder.addScript("wrapper", "exec '" + workerPath() + "' \"$@\"\n");
    Pool pool(script, {});
    ASSERT_TRUE(pool.start(2));
    std::filesystem::remove(script);
    EXPECT_EQ(pool.ask("crash"), "(Unexpected crash)");
    const std::vector<std::string> messages = mLog.messages();
    ASSERT_EQ(messages.size(), 3U);
    EXPECT_EQ(messages[1], "Cannot start " + script + ": No such file or directory");
    EXPECT_TRUE(matchesWhole(messages[2], launchFailure(notRunning, "0", script, "")))
        << messages[2];
    EXPECT_EQ(end_to_end::children().size(), 1U);
    EXPECT_EQ(pool.ask("echo by the other"), "by the other");
}

TEST_F(Launch, ofAScriptThatBecomesTheWorkerWorks)
{
    Pool pool(mFolder.addScript("wrapper", "exec '" + workerPath() + "' \"$@\"\n"), {});
    ASSERT_TRUE(pool.start(2));
    EXPECT_EQ(pool.ask("echo wrapped"), "wrapped");
    EXPECT_EQ(pool.ask("crash"), "(Unexpected crash)");
    EXPECT_EQ(pool.ask("echo wrapped"), "wrapped");
}

TEST_F(Launch, intoAPidNamespaceGivesAWorkerThatIsKilledWithItsWrapper)
{
    const std::string unshare = "unshare --user --map-root-user --pid --fork --kill-child ";
    const std::string attempt = mFolder.addScript("attempt", unshare + "true 2>/dev/null\n");
    if (ChildProgram(attempt, {}).waitForEnd() != 0)
        GTEST_SKIP() << "the machine does not let this user make a namespace";
    Pool pool(
        mFolder.addScript("wrapper", "exec " + unshare + "'" + workerPath() + "' \"$@\"\n"), {});
    pool.scheduler().setJobProcessTimeout(1);
    ASSERT_TRUE(pool.start(1));
    pool.push("hang");
    ASSERT_TRUE(pool.collect(1));
    ASSERT_EQ(pool.failures().size(), 1U);
    EXPECT_EQ(pool.failures()[0].reason, nq::nqScheduler::Timeout);
    EXPECT_EQ(pool.ask("echo by the next"), "by the next");
}

TEST_F(Launch, ofAScriptThatRunsTheWorkerAsItsChildWorks)
{
    const std::string script =
        mFolder.addScript("wrapper", "'" + workerPath() + "' \"$@\"\nexit $?\n");
    Pool pool(script, {});
    ASSERT_TRUE(pool.start(2));
    EXPECT_EQ(pool.ask("echo wrapped"), "wrapped");
    EXPECT_EQ(pool.ask("crash"), "(Unexpected crash)");
    EXPECT_EQ(pool.ask("echo wrapped"), "wrapped");
    EXPECT_TRUE(pool.scheduler().stopScheduler());
}

TEST_F(Launch, ofAScriptThatHangsWithItsWorkerIsEndedWithIt)
{
    const std::string script = mFolder.addScript("wrapper", "'" + workerPath() + "' \"$@\"\n:\n");
    Pool pool(script, {});
    pool.scheduler().setJobProcessTimeout(1);
    ASSERT_TRUE(pool.start(1));
    const ProcessWatch worker(std::stoi(pool.ask("pid")));
    pool.ask("hang");
    EXPECT_EQ(pool.failures().at(0).reason, nq::nqScheduler::Timeout);
    EXPECT_TRUE(worker.endsWithin(std::chrono::seconds{10}));
    EXPECT_EQ(pool.ask("echo next"), "next");
}

/// A wrapper whose first run starts a worker with `option` as its child, and later ones a plain
/// one.
std::string lateWrapper(const TemporaryFolder& folder, const std::string& option)
{
    return folder.addScript(
        "wrapper",
        "if mkdir '" + folder.file("first") + "' 2>/dev/null; then\n    '" + workerPath() +
            "' \"$@\" '" + option + "' &\n    wait\nfi\nexec '" + workerPath() + "' \"$@\"\n");
}

/// Opens the writing end of a FIFO whose reader is on its way.
int openWhenThereIsAReader(const std::string& fifo)
{
    return open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
}

bool readerLeaves(int fifo)
{
    pollfd watched{fifo, 0, 0};
    int ready = -1;
    do {
        ready = poll(&watched, 1, 30'000);
    } while (ready == -1 && errno == EINTR);
    return ready == 1 && (watched.revents & POLLERR) != 0;
}

void expectOwnWorkerAndAnEnd(Pool& pool, const end_to_end::CapturingLog& log)
{
    ASSERT_TRUE(pool.start(1));
    const std::string pid = pool.ask("pid");
    EXPECT_EQ(pool.ask("crash"), "(Unexpected crash)");
    // The report names the process of the record; the pipe's peer named itself. Both are one.
    EXPECT_EQ(log.messages().back(), "Job failed error (1) Unexpected crash (PID " + pid + ")");
    EXPECT_EQ(pool.ask("echo next"), "next");
    EXPECT_TRUE(pool.scheduler().stopScheduler());
}

TEST_F(Launch, theConnectionOfAProcessThatConnectedLateAndHungUpIsTakenByNobody)
{
    const std::string fifo = mFolder.addFifo("go");
    Pool pool(lateWrapper(mFolder, "--hang-up-when-told=" + fifo), {});
    EXPECT_FALSE(pool.scheduler().startScheduler(1, 2000));
    EXPECT_EQ(mLog.lines().size(), 1U);

    const int go = openWhenThereIsAReader(fifo);
    ASSERT_NE(go, -1);
    ASSERT_EQ(write(go, "x", 1), 1);
    ASSERT_TRUE(readerLeaves(go)); // it has connected and left
    close(go);
    expectOwnWorkerAndAnEnd(pool, mLog);
}

TEST_F(Launch, theLateChildOfAWrapperIsEndedWhenItsLaunchGivesUp)
{
    const std::string fifo = mFolder.addFifo("go");
    Pool pool(lateWrapper(mFolder, "--connect-when-told=" + fifo), {});
    EXPECT_FALSE(pool.scheduler().startScheduler(1, 2000));
    EXPECT_EQ(mLog.lines().size(), 1U);
    // The child never gets beyond the FIFO: the launch that gave up ends it with its wrapper.
    for (const pid_t process : end_to_end::markedProcesses())
        EXPECT_TRUE(ProcessWatch(process).endsWithin(std::chrono::seconds{10}));
    expectOwnWorkerAndAnEnd(pool, mLog);
}

TEST_F(Launch, theStragglerOfALaunchThatWasGivenUpIsNotTakenForTheNextWorker)
{
    const std::string go = mFolder.addFifo("go");
    const std::string connected = mFolder.addFifo("connected");
    const std::string script = mFolder.addScript(
        "wrapper",
        "if mkdir '" + mFolder.file("first") + "' 2>/dev/null; then\n    exec setsid -w '" +
            workerPath() + "' \"$@\" --connect-when-told='" + go + "' --tell-when-connected='" +
            connected + "'\nfi\nexec '" + workerPath() + "' \"$@\"\n");
    Pool pool(script, {});
    EXPECT_FALSE(pool.scheduler().startScheduler(1, 500));

    // In a session of its own, it has outlived the end of its launch.
    const int goWriter = openWhenThereIsAReader(go);
    ASSERT_NE(goWriter, -1);
    ASSERT_EQ(write(goWriter, "x", 1), 1);
    close(goWriter);
    close(open(connected.c_str(), O_RDONLY | O_CLOEXEC)); // comes back when it has connected
    expectOwnWorkerAndAnEnd(pool, mLog);
}

/// A worker that hangs behind this wrapper is ended by its job's time-out.
void expectTimeOutEndsAll(const std::string& wrapper)
{
    Pool pool(wrapper, {});
    pool.scheduler().setJobProcessTimeout(1);
    ASSERT_TRUE(pool.start(1));
    EXPECT_EQ(pool.ask("echo behind a wrapper"), "behind a wrapper");
    std::vector<std::unique_ptr<ProcessWatch>> processes;
    for (const pid_t process : end_to_end::markedProcesses())
        processes.push_back(std::make_unique<ProcessWatch>(process));
    EXPECT_EQ(processes.size(), 2U);
    pool.ask("hang");
    ASSERT_EQ(pool.failures().size(), 1U);
    EXPECT_EQ(pool.failures()[0].reason, nq::nqScheduler::Timeout);
    for (const auto& process : processes)
        EXPECT_TRUE(process->endsWithin(end_to_end::generousLimit));
    EXPECT_EQ(pool.ask("echo next"), "next");
}

TEST_F(Launch, ofAWorkerInASessionOfItsOwnIsReachedByAKill)
{
    expectTimeOutEndsAll(
        mFolder.addScript("wrapper", "exec setsid -w '" + workerPath() + "' \"$@\"\n"));
}

TEST_F(Launch, ofAWorkerInAPidNamespaceOfItsOwnIsReachedByAKill)
{
    const std::string unshare = "unshare --user --map-root-user --pid --fork ";
    if (std::system((unshare + "true 2>/dev/null").c_str()) != 0)
        GTEST_SKIP() << "no PID namespace may be made here";
    expectTimeOutEndsAll(
        mFolder.addScript("wrapper", "exec " + unshare + "'" + workerPath() + "' \"$@\"\n"));
}

TEST_F(Launch, thatGivesUpWhileItsWorkerConnectsLeavesNothingToTheNext)
{
    // The limits sweep over the moment at which the worker connects.
    for (int limitMs = -1; limitMs < 20; ++limitMs) {
        Pool pool;
        const bool started = pool.scheduler().startScheduler(1, limitMs);
        if (started)
            pool.scheduler().stopScheduler();
        expectOwnWorkerAndAnEnd(pool, mLog);
    }
}

} // namespace
