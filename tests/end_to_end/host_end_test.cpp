#include "fixture.h"

#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <string>
#include <vector>

namespace {

using end_to_end::ChildProgram;
using end_to_end::EndToEnd;
using end_to_end::hostProgramPath;

constexpr std::chrono::seconds atMost{1}; // how long anything of a dead host may live on

// Workers and what they fork hold the host's standard output, so its end shows that all are gone.
class HostEnd : public EndToEnd {};

TEST_F(HostEnd, byKillInTheMiddleOfAJobEndsTheWorkersAndWhatTheyForked)
{
    ChildProgram host(
        hostProgramPath(),
        {"serve", "2", "fork-helper", "fork-helper", "print-and-hang busy", "print-and-hang busy"});
    for (int busy = 0; busy < 2;)
        if (const std::string line = host.readLine(); line == "out: busy")
            ++busy;
        else
            ASSERT_EQ(line.rfind("answer: ", 0), 0U) << line;
    ASSERT_EQ(kill(host.pid(), SIGKILL), 0);
    EXPECT_TRUE(host.outputEndsWithin(atMost));
}

TEST_F(HostEnd, byKillWhileItsWorkersAreIdleEndsThem)
{
    ChildProgram host(hostProgramPath(), {"serve", "3", "echo ready"});
    ASSERT_EQ(host.readLine(), "answer: ready");
    ASSERT_EQ(kill(host.pid(), SIGKILL), 0);
    EXPECT_TRUE(host.outputEndsWithin(atMost));
}

TEST_F(HostEnd, byKillEndsAWorkerThatIgnoresItsClosedPipe)
{
    ChildProgram host(hostProgramPath(), {"serve", "1", "ignore-end"});
    ASSERT_EQ(host.readLine(), "answer: ignoring");
    ASSERT_EQ(kill(host.pid(), SIGKILL), 0);
    EXPECT_TRUE(host.outputEndsWithin(atMost));
}

struct Leaving {
    const char* how;
    int status;
};

void PrintTo(const Leaving& leaving, std::ostream* out)
{
    *out << leaving.how;
}

class HostThatLeaves : public EndToEnd, public testing::WithParamInterface<Leaving> {};

TEST_P(HostThatLeaves, takesItsWorkersAndWhatTheyForkedAlong)
{
    ChildProgram host(hostProgramPath(), {"leave", GetParam().how});
    EXPECT_EQ(host.waitForEnd(), GetParam().status);
    EXPECT_TRUE(host.outputEndsWithin(atMost));
}

INSTANTIATE_TEST_SUITE_P(
    By,
    HostThatLeaves,
    testing::Values(
        Leaving{"return", 0},
        Leaving{"_exit", 0},
        Leaving{"abort", 128 + SIGABRT},
        Leaving{"crash", 128 + SIGSEGV}),
    [](const auto& tested) {
        const std::string how = tested.param.how;
        return how == "_exit" ? std::string("immediateExit") : how;
    });

class HostProgram : public EndToEnd {};

TEST_F(HostProgram, doesNotShowWhatSilencedWorkersPrint)
{
    ChildProgram host(hostProgramPath(), {"print", "silent", "hello"});
    EXPECT_EQ(host.readAllOutput(), "");
    EXPECT_EQ(host.readAllErrors(), "");
    EXPECT_EQ(host.waitForEnd(), 0);
}

TEST_F(HostProgram, showsWhatItsWorkersPrintWhenTheyAreNotSilenced)
{
    ChildProgram host(hostProgramPath(), {"print", "loud", "hello"});
    EXPECT_EQ(host.readAllOutput(), "out: hello\n");
    EXPECT_EQ(host.readAllErrors(), "err: hello\n");
    EXPECT_EQ(host.waitForEnd(), 0);
}

TEST_F(HostProgram, printsItsMessagesWhenItHasNoLogger)
{
    ChildProgram host(hostProgramPath(), {"no-logger", "/nowhere/worker"});
    for (const std::string expected :
         {"Cannot start /nowhere/worker: ",
          "Fail to startWorker, Process state is not 'running' (pid 0)"}) {
        const std::string line = host.readLine();
        const std::size_t message = line.find(expected);
        ASSERT_NE(message, std::string::npos) << line;
        EXPECT_GT(message, 0U); // a prefix stands before it
    }
    EXPECT_EQ(host.readAllOutput(), "");
    EXPECT_EQ(host.waitForEnd(), 0);
}

TEST_F(HostProgram, countsAnEmptyJobForEver)
{
    // Intended: an empty job is accepted and counted, and neither sent nor resolved.
    ChildProgram host(hostProgramPath(), {"empty-job"});
    EXPECT_EQ(host.waitForEnd(), 0);
    EXPECT_EQ(host.readAllErrors(), "");
}

TEST_F(HostProgram, keepsItsWorkersWhenTheThreadThatLaunchedThemEnds)
{
    ChildProgram host(hostProgramPath(), {"ended-thread"});
    EXPECT_EQ(host.waitForEnd(), 0);
    EXPECT_EQ(host.readAllErrors(), "");
}

TEST_F(HostProgram, drainsASchedulerOfStaticLifeAtItsExit)
{
    ChildProgram host(hostProgramPath(), {"static-scheduler"});
    EXPECT_EQ(host.readAllOutput(), "") << "no job is reported as failed";
    EXPECT_EQ(host.waitForEnd(), 0);
}

class HostThatChanges : public EndToEnd, public testing::WithParamInterface<const char*> {};

TEST_P(HostThatChanges, isServedByItsWorkersAndByThoseOfTheNextStart)
{
    ChildProgram host(hostProgramPath(), {"change", GetParam()});
    const int status = host.waitForEnd();
    if (status == 77)
        GTEST_SKIP() << "the machine does not let this user";
    EXPECT_EQ(status, 0) << host.readAllErrors();
}

INSTANTIATE_TEST_SUITE_P(
    Its, HostThatChanges, testing::Values("user", "network"), [](const auto& tested) {
        return std::string(tested.param);
    });

class HostWithClosedStreams : public EndToEnd, public testing::WithParamInterface<const char*> {};

TEST_P(HostWithClosedStreams, isServedAndNothingPrintedReachesAPipe)
{
    ChildProgram host(hostProgramPath(), {"closed-streams", GetParam()});
    EXPECT_EQ(host.waitForEnd(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Every,
    HostWithClosedStreams,
    testing::Values("0", "1", "2", "01", "02", "12", "012"),
    [](const auto& tested) { return std::string("without") + tested.param; });

TEST_F(HostProgram, keepsAFileThatTookTheNumberOfItsStandardOutputFromItsWorkers)
{
    const end_to_end::TemporaryFolder folder;
    const std::string path = folder.file("private");
    std::ofstream(path).close();
    ChildProgram host(hostProgramPath(), {"private-output", path});
    EXPECT_EQ(host.waitForEnd(), 0);
    EXPECT_EQ(std::filesystem::file_size(path), 0U);
}

struct UnwritableOutput {
    const char* kind;
    const char* logger;
};

void PrintTo(const UnwritableOutput& output, std::ostream* out)
{
    *out << output.kind << ' ' << output.logger;
}

class HostWithUnwritableOutput : public EndToEnd,
                                 public testing::WithParamInterface<UnwritableOutput> {};

TEST_P(HostWithUnwritableOutput, outlivesItsOwnLinesAndThoseOfItsWorkers)
{
#ifdef __SANITIZE_THREAD__
    if (std::string(GetParam().kind) == "file")
        GTEST_SKIP() << "the sanitizer of the worker writes a file of its own first";
#endif
    const end_to_end::TemporaryFolder folder;
    const end_to_end::CurrentFolder current(folder.file("."));
    ChildProgram host(hostProgramPath(), {"unwritable-output", GetParam().kind, GetParam().logger});
    EXPECT_EQ(host.waitForEnd(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Every,
    HostWithUnwritableOutput,
    testing::Values(
        UnwritableOutput{"pipe", "bare"},
        UnwritableOutput{"pipe", "logger"},
        UnwritableOutput{"file", "bare"},
        UnwritableOutput{"file", "logger"}),
    [](const auto& tested) {
        return std::string(tested.param.kind) +
               (tested.param.logger[0] == 'b' ? "WithoutLogger" : "WithLogger");
    });

/// A host program in the foreground of a terminal of its own, which stops background output.
class HostAtATerminal {
public:
    explicit HostAtATerminal(const std::vector<std::string>& arguments)
    {
        std::string path = hostProgramPath();
        std::vector<char*> argv{path.data()};
        std::vector<std::string> texts = arguments;
        for (std::string& text : texts)
            argv.push_back(text.data());
        argv.push_back(nullptr);
        mHost = forkpty(&mTerminal, nullptr, nullptr, nullptr);
        if (mHost != 0)
            return;
        termios settings{};
        tcgetattr(STDOUT_FILENO, &settings);
        settings.c_lflag |= TOSTOP;
        tcsetattr(STDOUT_FILENO, TCSANOW, &settings);
        execv(path.c_str(), argv.data());
        _exit(EXIT_FAILURE);
    }

    ~HostAtATerminal()
    {
        if (mHost > 0) {
            ::kill(mHost, SIGKILL);
            waitpid(mHost, nullptr, 0);
        }
        close(mTerminal);
    }

    HostAtATerminal(const HostAtATerminal&) = delete;
    HostAtATerminal& operator=(const HostAtATerminal&) = delete;

    /// All that is shown on the terminal until the last one who has it open ends, or until nothing
    /// has come for the generous limit.
    std::string readAll() const
    {
        const auto limit = std::chrono::milliseconds(end_to_end::generousLimit);
        std::string shown;
        char piece[256];
        pollfd terminal{mTerminal, POLLIN, 0};
        while (poll(&terminal, 1, static_cast<int>(limit.count())) > 0) {
            const ssize_t count = read(mTerminal, piece, sizeof piece);
            if (count <= 0)
                break;
            shown.append(piece, static_cast<std::size_t>(count));
        }
        return shown;
    }

private:
    pid_t mHost = -1;
    int mTerminal = -1;
};

TEST_F(HostProgram, hasWorkersThatPrintOnATerminalThatStopsBackgroundOutput)
{
    const HostAtATerminal host({"print", "loud", "hello"});
    EXPECT_EQ(host.readAll(), "out: hello\r\nerr: hello\r\n");
}

} // namespace
