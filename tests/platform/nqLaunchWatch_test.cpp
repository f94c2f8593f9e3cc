#include "nqNamedPipeServer.h"
#include "nqProcess.h"

#include "pipe_helpers.h"

#include <optional>
#include <sys/stat.h>

using namespace pipe_test;
using nq::nqNamedPipeServer;
using nq::nqProcess;

namespace {

// A server that waits for a process which a shell script plays. The server's name is its argument.
class AWaitForAConnection : public LeavesNothingBehind {
protected:
    void SetUp() override
    {
        LeavesNothingBehind::SetUp();
        ASSERT_TRUE(mServer.listenUtf8(mName));
    }

    void TearDown() override
    {
        mProcess.reset();
        mServer.closeNamedPipeServer();
        LeavesNothingBehind::TearDown();
    }

    void start(const std::string& script)
    {
        mProcess.emplace();
        ASSERT_TRUE(mProcess->startProcess(
            "/bin/sh", {"-c", script, "sh", mName}, true, nqProcess::InheritedPriority));
    }

    std::string processText() const
    {
        return "/bin/sh (pid " + std::to_string(mProcess->getPid()) + ") ";
    }

    CapturingLog mLog;
    std::string mName = freshName();
    nqNamedPipeServer mServer;
    std::optional<nqProcess> mProcess;
};

constexpr int briefMs = 300; // for a wait that has to last

} // namespace

TEST_F(AWaitForAConnection, endsWhenTheProcessHasLeftWithAnError)
{
    start("exit 3");
    bool timedOut = true;
    const auto begin = steady_clock::now();
    EXPECT_FALSE(mServer.waitForNewConnection(ampleMs, &timedOut));
    EXPECT_LT(elapsedSince(begin), milliseconds(ampleMs));
    EXPECT_FALSE(timedOut);
    EXPECT_EQ(
        mLog.mMessages, std::vector{processText() + "left with exit status 3 before it connected"});
}

TEST_F(AWaitForAConnection, endsWhenASignalHasEndedTheProcess)
{
    start("kill -TERM $$");
    bool timedOut = true;
    EXPECT_FALSE(mServer.waitForNewConnection(ampleMs, &timedOut));
    EXPECT_FALSE(timedOut);
    EXPECT_EQ(
        mLog.mMessages,
        std::vector{processText() + "was ended by signal 15 (Terminated) before it connected"});
}

TEST_F(AWaitForAConnection, saysWhatOftenEndsAProcessWithTheLoadersStatus)
{
    start("exit 127");
    EXPECT_FALSE(mServer.waitForNewConnection(ampleMs, nullptr));
    ASSERT_EQ(mLog.mMessages.size(), 1U);
    EXPECT_NE(mLog.mMessages[0].find("missing shared library"), std::string::npos);
}

TEST_F(AWaitForAConnection, endsAlsoWhenTheProcessHasEndedBeforeTheWait)
{
    start("exit 3");
    siginfo_t ended{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(mProcess->getPid()), &ended, WEXITED | WNOWAIT), 0);
    bool timedOut = true;
    EXPECT_FALSE(mServer.waitForNewConnection(ampleMs, &timedOut));
    EXPECT_FALSE(timedOut);
    EXPECT_EQ(mLog.mMessages.size(), 1U);
}

TEST_F(AWaitForAConnection, leavesTheEndedProcessToBeReapedByItsOwner)
{
    start("exit 3");
    EXPECT_FALSE(mServer.waitForNewConnection(ampleMs, nullptr));
    siginfo_t ended{};
    EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(mProcess->getPid()), &ended, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(mProcess->getState(), nqProcess::Ended);
    EXPECT_EQ(mLog.mMessages.size(), 1U) << "it is said once";
}

TEST_F(AWaitForAConnection, isForAProcessThatCountsAsRunningThoughItHasLeftWithoutAnError)
{
    start("exit 0");
    siginfo_t ended{};
    const auto pid = static_cast<id_t>(mProcess->getPid());
    ASSERT_EQ(::waitid(P_PID, pid, &ended, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(mProcess->getState(), nqProcess::Running);
    mServer.closeNamedPipeServer();
    EXPECT_EQ(mProcess->getState(), nqProcess::Ended);
}

TEST_F(AWaitForAConnection, isForNoProcessThatHasFailed)
{
    start("exit 3");
    siginfo_t ended{};
    const auto pid = static_cast<id_t>(mProcess->getPid());
    ASSERT_EQ(::waitid(P_PID, pid, &ended, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(mProcess->getState(), nqProcess::Ended);
    EXPECT_EQ(mLog.mMessages.size(), 1U);
}

TEST_F(AWaitForAConnection, isOverWhenTheProcessIsKilledSoThatItsEndIsNoNews)
{
    start("exit 3");
    EXPECT_FALSE(mServer.waitForNewConnection(-1, nullptr));
    mLog.mMessages.clear();
    siginfo_t ended{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(mProcess->getPid()), &ended, WEXITED | WNOWAIT), 0);
    mProcess->killProcess();
    EXPECT_EQ(mProcess->getState(), nqProcess::Ended);
    EXPECT_TRUE(mLog.mMessages.empty());
}

TEST_F(AWaitForAConnection, goesOnAfterAProcessThatLeftWithoutAnErrorAndSaysSoWhenTimeIsUp)
{
    start("exit 0");
    bool timedOut = false;
    const auto begin = steady_clock::now();
    EXPECT_FALSE(mServer.waitForNewConnection(briefMs, &timedOut));
    EXPECT_GE(elapsedSince(begin), milliseconds(briefMs));
    EXPECT_TRUE(timedOut);
    EXPECT_EQ(
        mLog.mMessages, std::vector{processText() + "left with exit status 0 before it connected"});
}

TEST_F(AWaitForAConnection, goesOnAfterAnErrorForAsLongAsAnythingOfTheGroupIsLeft)
{
    const std::string fifo = testing::TempDir() + mName;
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    start("read line < '" + fifo + "' & exit 3");
    bool timedOut = false;
    EXPECT_FALSE(mServer.waitForNewConnection(briefMs, &timedOut));
    EXPECT_TRUE(timedOut);

    Descriptor(::open(fifo.c_str(), O_WRONLY | O_CLOEXEC)); // the helper reads the end, and leaves
    EXPECT_FALSE(mServer.waitForNewConnection(ampleMs, &timedOut));
    EXPECT_FALSE(timedOut);
    EXPECT_EQ(::unlink(fifo.c_str()), 0);
}

TEST_F(AWaitForAConnection, lastsAsLongAsItShouldForAProcessThatOnlyRuns)
{
    start("exec cat /dev/zero > /dev/null");
    bool timedOut = false;
    const auto begin = steady_clock::now();
    EXPECT_FALSE(mServer.waitForNewConnection(briefMs, &timedOut));
    EXPECT_GE(elapsedSince(begin), milliseconds(briefMs));
    EXPECT_TRUE(timedOut);
    EXPECT_TRUE(mLog.mMessages.empty()) << "nothing is known against it";
}
