#include "tests/platform/process_helpers.h"

#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sstream>
#include <sys/prctl.h>

namespace {

using namespace nq::test;

constexpr int goneLimitMs = 1'000; // what hosts are promised

const std::string hostProgram = NQ_PROCESS_HOST_PROGRAM;

/// Runs hosts in processes of their own, and inherits what a dead host leaves.
class HostDeath : public ProcessTest {
protected:
    void SetUp() override
    {
        ::prctl(PR_SET_CHILD_SUBREAPER, 1);
        ASSERT_EQ(::pipe2(mControl, O_CLOEXEC), 0);
    }

    void TearDown() override
    {
        ::close(mControl[0]);
        ::close(mControl[1]); // ends what lives on
        endWhatIsLeft();
        ::prctl(PR_SET_CHILD_SUBREAPER, 0);
    }

    // Usually there are only the dead to reap. Where a test has failed, its worker would live on.
    static void endWhatIsLeft()
    {
        do {
            std::istringstream children(contentOf("/proc/thread-self/children"));
            for (pid_t child = 0; children >> child;)
                ::kill(child, SIGKILL);
        } while (::waitpid(-1, nullptr, 0) > 0 || errno == EINTR);
    }

    void startHost(const std::string& end)
    {
        // posix_spawn takes its texts as not const for historical reasons and leaves them alone.
        char* const arguments[] = {
            const_cast<char*>(hostProgram.c_str()),
            const_cast<char*>(end.c_str()),
            const_cast<char*>(workerProgram.c_str()),
            nullptr};
        posix_spawn_file_actions_t streams;
        ::posix_spawn_file_actions_init(&streams);
        ::posix_spawn_file_actions_adddup2(&streams, mControl[0], STDIN_FILENO);
        ::posix_spawn_file_actions_adddup2(&streams, mOutput.writer(), STDOUT_FILENO);
        const int refused =
            ::posix_spawn(&mHost, hostProgram.c_str(), &streams, nullptr, arguments, environ);
        ::posix_spawn_file_actions_destroy(&streams);
        ASSERT_EQ(refused, 0);
        mOutput.closeWriter();
    }

    // The worker and the host report in any order.
    void expectLaunched()
    {
        const std::string first = mOutput.readLine();
        const std::string second = mOutput.readLine();
        EXPECT_TRUE(
            (first == "ready" && second == "launched") ||
            (first == "launched" && second == "ready"))
            << first << ", " << second;
    }

    void endHost(int signal)
    {
        ::kill(mHost, signal);
        ASSERT_EQ(::waitpid(mHost, &mStatus, 0), mHost);
    }

    pid_t mHost = -1;
    int mStatus = 0;
    OutputPipe mOutput;

private:
    int mControl[2] = {-1, -1};
};

TEST_F(HostDeath, killsTheWorkerAndWhatItForkedWhenTheHostIsKilled)
{
    startHost("stay");
    expectLaunched();
    endHost(SIGKILL);
    EXPECT_TRUE(mOutput.endsWithin(goneLimitMs));
}

TEST_F(HostDeath, killsTheWorkerAndWhatItForkedWhenTheHostReturnsFromMain)
{
    startHost("return");
    expectLaunched();
    endHost(SIGUSR1);
    EXPECT_TRUE(WIFEXITED(mStatus));
    EXPECT_TRUE(mOutput.endsWithin(goneLimitMs));
}

TEST_F(HostDeath, killsTheWorkerAndWhatItForkedWhenTheHostExitsWithoutCleaningUp)
{
    startHost("exit-at-once");
    expectLaunched();
    endHost(SIGUSR1);
    EXPECT_TRUE(WIFEXITED(mStatus));
    EXPECT_TRUE(mOutput.endsWithin(goneLimitMs));
}

TEST_F(HostDeath, killsTheWorkerAndWhatItForkedWhenTheHostAborts)
{
    startHost("abort");
    expectLaunched();
    endHost(SIGUSR1);
    EXPECT_TRUE(WIFSIGNALED(mStatus));
    EXPECT_TRUE(mOutput.endsWithin(goneLimitMs));
}

TEST_F(HostDeath, killsTheWorkerAndWhatItForkedWhenAHostWithBusyThreadsIsKilled)
{
    startHost("threads");
    expectLaunched();
    endHost(SIGKILL);
    EXPECT_TRUE(mOutput.endsWithin(goneLimitMs));
}

TEST_F(HostDeath, killsAWorkerWhoseLaunchingThreadEndedLongBefore)
{
    startHost("launching-thread-ends");
    expectLaunched();
    endHost(SIGKILL);
    EXPECT_TRUE(mOutput.endsWithin(goneLimitMs));
}

TEST_F(HostDeath, killsTheWorkerAlsoWhenAForkedCopyOfTheHostLivesOn)
{
    startHost("fork");
    expectLaunched();
    endHost(SIGKILL);
    EXPECT_TRUE(mOutput.endsWithin(goneLimitMs));
}

TEST_F(HostDeath, killsTheWorkerWhenTheHostTurnsIntoAnotherProgram)
{
    startHost("exec");
    expectLaunched();
    ::kill(mHost, SIGUSR1);
    EXPECT_TRUE(mOutput.endsWithin(hangLimitMs));
    EXPECT_EQ(::waitpid(mHost, nullptr, WNOHANG), 0) << "the new program must still run";
}

TEST_F(HostDeath, killsEveryWorkerOfAHostThatIsKilledInTheMiddleOfALaunch)
{
    startHost("launch-for-ever");
    // Any number of launches will do; the moment between two system calls is up to chance.
    for (int launches = ::getpid() % 7 + 1; launches > 0; --launches)
        EXPECT_EQ(mOutput.readLine(), "ready");
    endHost(SIGKILL);
    EXPECT_TRUE(mOutput.endsWithin(goneLimitMs));
}

} // namespace
