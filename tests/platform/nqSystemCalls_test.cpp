// What no real kernel does on demand, and how long things would wait: the system calls are answered
// by the tests.
#include "system/linux/nqAdaptiveSpin.h"
#include "system/linux/nqChild.h"
#include "system/linux/nqPeer.h"
#include "system/nqLog.h"
#include "tests/platform/pipe_helpers.h"
#include "tests/platform/process_helpers.h"
#include "tests/platform/system_calls.h"

#include <algorithm>
#include <optional>
#include <sys/select.h>
#include <sys/syscall.h>

using namespace pipe_test;
using namespace std::chrono_literals;
using nq::nqNamedPipe;
using nq::nqNamedPipeServer;
using nq::nqProcess;
using nq::test::workerProgram;
using system_calls::AnsweredCalls;
using system_calls::answers;
using system_calls::failWith;
using system_calls::SimulatedTime;

namespace {

std::optional<long> refusePidfds(long number)
{
    if (number == SYS_pidfd_open || number == SYS_pidfd_send_signal)
        return failWith(ENOSYS);
    return std::nullopt;
}

class AWait : public LeavesNothingBehind {};

TEST_F(AWait, ofAPipeAtRestIsOneSleepOfTheWholeTime)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    link.mPipe->processNamedPipeEvents(0, false);
    const SimulatedTime time;
    for (int wait = 0; wait < 3; ++wait) {
        link.mPipe->processNamedPipeEvents(60'000, true);
        ASSERT_EQ(time.sleeps().size(), static_cast<std::size_t>(wait) + 1);
        EXPECT_LE(time.sleeps().back(), 60s);
        EXPECT_GT(time.sleeps().back(), 59s);
    }
}

TEST_F(AWait, ofAPipeIsTwoSleepsAfterAQuickAnswerTheFirstOfThemBrief)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    ASSERT_TRUE(isAnsweredAtOnce(link));
    const SimulatedTime time;
    link.mPipe->processNamedPipeEvents(60'000, true);
    ASSERT_EQ(time.sleeps().size(), 2U);
    EXPECT_LE(time.sleeps()[0], 50ms);
    EXPECT_GT(time.sleeps()[1], 59s);
    EXPECT_LE(time.sleeps()[0] + time.sleeps()[1], 60s);
}

TEST_F(AWait, ofATimeBelowABriefSleepIsOneSleep)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    ASSERT_TRUE(isAnsweredAtOnce(link));
    const SimulatedTime time;
    link.mPipe->processNamedPipeEvents(5, true);
    ASSERT_EQ(time.sleeps().size(), 1U);
    EXPECT_LE(time.sleeps()[0], 5ms);
}

TEST_F(AWait, forTheEndOfAProcessIsOneSleepOfTheWholeTime)
{
    nqProcess process;
    ASSERT_TRUE(process.startProcess(workerProgram, {"rest"}, true, nqProcess::InheritedPriority));
    const SimulatedTime time;
    EXPECT_FALSE(process.waitForFinished(60'000));
    ASSERT_EQ(time.sleeps().size(), 1U);
    EXPECT_GT(time.sleeps()[0], 59s);
}

TEST_F(AWait, forTheEndOfAProcessLooksEveryFewMillisecondsWithoutPidfds)
{
    const SimulatedTime time;
    answers().mSyscall = refusePidfds;
    const Child resting([] {
        ::pause();
        return 0;
    });
    nq::nqChild child(resting.pid());
    EXPECT_FALSE(child.waitForEnd(1'000));
    ASSERT_GE(time.sleeps().size(), 2U);
    EXPECT_LE(*std::max_element(time.sleeps().begin(), time.sleeps().end()), 20ms);
    EXPECT_LT(time.sleeps().front(), time.sleeps().back());
    EXPECT_LT(time.sleeps().size(), 200U) << "it hardly costs anything";
}

TEST_F(AWait, forTheEndOfAProcessDoesNotSpinOnAnEndThatCannotBeReaped)
{
    const SimulatedTime time;
    const Child resting([] {
        ::pause();
        return 0;
    });
    nq::nqChild child(resting.pid());
    int reports = 0;
    answers().mPpoll =
        [&, sleep = answers().mPpoll](
            const pollfd* descriptors, nfds_t count, const timespec* limit) -> std::optional<int> {
        if (count == 0)
            return sleep(descriptors, count, limit);
        ++reports;
        return 1;
    };
    EXPECT_FALSE(child.waitForEnd(100));
    EXPECT_EQ(reports, 1);
}

TEST_F(AWait, forAConnectionLooksSeveralTimesASecondWithoutPidfds)
{
    nqNamedPipeServer server;
    const std::string name = freshName();
    ASSERT_TRUE(server.listenUtf8(name));
    nqProcess process;
    ASSERT_TRUE(
        process.startProcess(workerProgram, {"rest", name}, true, nqProcess::InheritedPriority));
    const SimulatedTime time;
    answers().mSyscall = refusePidfds;
    bool timedOut = false;
    EXPECT_FALSE(server.waitForNewConnection(10'000, &timedOut));
    EXPECT_TRUE(timedOut);
    EXPECT_LE(*std::max_element(time.sleeps().begin(), time.sleeps().end()), 500ms);
    EXPECT_LT(time.sleeps().size(), 200U) << "it hardly costs anything";
}

TEST_F(AWait, ofADestructorForAProcessThatDoesNotEndIsASecondOrTwo)
{
    std::optional<nqProcess> process(std::in_place);
    ASSERT_TRUE(process->startProcess(workerProgram, {"rest"}, true, nqProcess::InheritedPriority));
    const auto pid = static_cast<pid_t>(process->getPid());
    {
        const SimulatedTime time;
        answers().mShutdown = [] { return 0; }; // nobody hangs up
        answers().mSyscall = [](long number) {
            return number == SYS_pidfd_send_signal ? std::optional(0L) : std::nullopt;
        };
        process.reset();
        EXPECT_GE(time.passed(), 500ms);
        EXPECT_LE(time.passed(), 2s);
    }
    ::kill(pid, SIGKILL); // the group is not tied to this process any more
    nq::test::waitWithoutReaping(pid);
    nqProcess next;
    EXPECT_FALSE(next.startProcess("/missing", {}, true, nqProcess::InheritedPriority));
    EXPECT_EQ(::waitpid(pid, nullptr, WNOHANG), -1) << "the next start reaps it";
}

TEST_F(AWait, forAFullStreamIsASecondOrTwoAndTheLineIsLost)
{
    const std::string path = testing::TempDir() + freshName();
    nq::nqLog log(path);
    nq::nqLog::LogEntry entry;
    entry.mMessage = "a line";
    const SimulatedTime time;
    answers().mWrite = [](int, const void*, size_t) { return failWith(EAGAIN); };
    log.Write(entry, true);
    answers().mWrite = nullptr;
    EXPECT_GE(time.passed(), 500ms);
    EXPECT_LE(time.passed(), 2s);
    ::unlink(path.c_str());
}

TEST_F(AWait, beginsWithASpinOfSomeTensOfMicroseconds)
{
    pollfd nothing{-1, POLLIN, 0};
    nq::nqAdaptiveSpin spin;
    const SimulatedTime time;
    EXPECT_FALSE(spin.spin(&nothing, 1));
    EXPECT_GE(time.passed(), 20us);
    EXPECT_LE(time.passed(), 200us);
    EXPECT_GE(time.looks(), 20);
    EXPECT_TRUE(time.sleeps().empty());
}

TEST_F(AWait, isSparedWhenTheSpinFindsSomething)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    pollfd watched{link.mPipe->getSocket(), POLLIN, 0};
    nq::nqAdaptiveSpin spin;
    const AnsweredCalls calls;
    int looks = 0;
    answers().mPoll = [&](const pollfd&, int) -> std::optional<int> {
        if (++looks == 2) { // it comes between the first look and the second
            EXPECT_TRUE(rawSend(link.mPeer, "x"));
        }
        return std::nullopt;
    };
    EXPECT_TRUE(spin.spin(&watched, 1));
    EXPECT_EQ(looks, 2);
    EXPECT_EQ(watched.revents, POLLIN);
}

TEST_F(AWait, isSparedWhenTheBytesThatWereThereFillTheRoomForThem)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    ASSERT_TRUE(rawSend(link.mPeer, std::string(4096, 'x')));
    const SimulatedTime time;
    link.mPipe->processNamedPipeEvents(60'000, true);
    EXPECT_EQ(takeAll(*link.mPipe).size(), 4096U);
    EXPECT_TRUE(time.sleeps().empty());
}

class ADeadPeer : public LeavesNothingBehind {
protected:
    // One whose socket is held by the test.
    void SetUp() override
    {
        LeavesNothingBehind::SetUp();
        const std::string name = freshName();
        const Descriptor listener = rawSocket();
        ASSERT_TRUE(rawListen(listener, name));
        mSocket = rawSocket();
        Child peer([&] { return rawConnect(mSocket, name) ? 0 : 1; });
        mAccepted = Descriptor(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        EXPECT_EQ(peer.wait(), 0);
    }

    void TearDown() override
    {
        mSocket.close();
        mAccepted.close();
        LeavesNothingBehind::TearDown();
    }

    Descriptor mSocket;
    Descriptor mAccepted;
};

// SO_PEERPIDFD, which the headers of the C library may not know.
constexpr int optionPeerPidfd = 77;

std::optional<int> refusePidfdsOfPeers(int option)
{
    return option == optionPeerPidfd ? std::optional(failWith(ENOPROTOOPT)) : std::nullopt;
}

TEST_F(ADeadPeer, isKnownToBeDeadWhereTheKernelHandsOutNoPidfdsOfPeers)
{
    const AnsweredCalls calls;
    answers().mGetsockopt = refusePidfdsOfPeers;
    nq::nqPeer peer(mAccepted.get());
    EXPECT_TRUE(peer.probeDeath());
    EXPECT_FALSE(peer.readStart());
}

TEST_F(ADeadPeer, isNotWatchedAnyMore)
{
    nq::nqPeer peer(mAccepted.get());
    EXPECT_TRUE(peer.probeDeath());
    EXPECT_EQ(peer.watch(), -1);
}

TEST_F(ADeadPeer, isNotKnownToBeDeadWhereTheKernelRefusesPidfds)
{
    const AnsweredCalls calls;
    answers().mGetsockopt = refusePidfdsOfPeers;
    answers().mSyscall = refusePidfds;
    nq::nqPeer peer(mAccepted.get());
    EXPECT_FALSE(peer.probeDeath());
}

class ALivingPeer : public LeavesNothingBehind {
protected:
    void SetUp() override
    {
        LeavesNothingBehind::SetUp();
        const std::string name = freshName();
        const Descriptor listener = rawSocket();
        ASSERT_TRUE(rawListen(listener, name));
        mMayEnd.emplace();
        mPeer.emplace([&] {
            const Descriptor socket = rawSocket();
            return rawConnect(socket, name) && mMayEnd->await() ? 0 : 1;
        });
        mAccepted = Descriptor(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    }

    void TearDown() override
    {
        mMayEnd->raise();
        EXPECT_EQ(mPeer->wait(), 0);
        mAccepted.close();
        mMayEnd.reset();
        LeavesNothingBehind::TearDown();
    }

    std::optional<Event> mMayEnd;
    std::optional<Child> mPeer;
    Descriptor mAccepted;
};

TEST_F(ALivingPeer, isSignalledByAHandleThatIsSurelyItsOwn)
{
    const AnsweredCalls calls;
    nq::nqPeer peer(mAccepted.get());
    EXPECT_TRUE(peer.duplicateWatch().isOpen());

    answers().mGetsockopt = refusePidfdsOfPeers;
    nq::nqPeer ofOldKernel(mAccepted.get());
    EXPECT_GE(ofOldKernel.watch(), 0);
    EXPECT_TRUE(ofOldKernel.duplicateWatch().isOpen()) << "there is no better one";
}

TEST_F(ALivingPeer, isNotSignalledByItsNumberWhereTheKernelDoesNotTellWhetherItIsStillItsOwn)
{
    const AnsweredCalls calls;
    answers().mGetsockopt = [](int option) {
        return option == optionPeerPidfd ? std::optional(failWith(ESRCH)) : std::nullopt;
    };
    nq::nqPeer peer(mAccepted.get());
    EXPECT_GE(peer.watch(), 0);
    EXPECT_FALSE(peer.duplicateWatch().isOpen());
}

TEST_F(ALivingPeer, isWatchedAtTheVeryLimitOfSelectUntilItIsSelectedOn)
{
    const DescriptorLimit limit;
    if (!limit.set(FD_SETSIZE + 64))
        GTEST_SKIP() << "the hard limit of descriptors is too low";
    nq::nqPeer peer(mAccepted.get());
    ASSERT_EQ(peer.watch(), FD_SETSIZE);
    peer.keepInRangeOfSelect(true);
    EXPECT_LT(peer.watch(), FD_SETSIZE);
    peer.keepInRangeOfSelect(false);
    EXPECT_EQ(peer.watch(), FD_SETSIZE);
}

TEST_F(ALivingPeer, isOfNoUserWhereTheKernelDoesNotTellWhose)
{
    const AnsweredCalls calls;
    answers().mGetsockopt = [](int) { return failWith(ENOBUFS); };
    EXPECT_FALSE(nq::nqPeer(mAccepted.get()).belongsToThisUser());
}

class AChildWithoutPidfd : public LeavesNothingBehind {
protected:
    AChildWithoutPidfd()
    {
        answers().mSyscall = refusePidfds;
        answers().mKill = [this](pid_t process) {
            mSignalled.push_back(process);
            return 0;
        };
    }

    AnsweredCalls mCalls;
    std::vector<pid_t> mSignalled;
};

TEST_F(AChildWithoutPidfd, isSignalledByItsNumberWhileItRuns)
{
    Event done;
    Child process([&] { return done.await() ? 0 : 1; });
    nq::nqChild child(process.pid());
    child.kill();
    EXPECT_EQ(mSignalled, std::vector{process.pid()});
    done.raise();
    EXPECT_EQ(process.wait(), 0);
}

TEST_F(AChildWithoutPidfd, isNotSignalledWhenTheHostHasReapedIt)
{
    Child process([] { return 0; });
    nq::nqChild child(process.pid());
    EXPECT_EQ(process.wait(), 0);
    child.kill(); // the number may be somebody else's by now
    EXPECT_TRUE(mSignalled.empty());
}

TEST_F(AChildWithoutPidfd, isNotSignalledWhenItHasEnded)
{
    Child process([] { return 0; });
    nq::test::waitWithoutReaping(process.pid());
    nq::nqChild child(process.pid());
    child.kill(); // the host may reap it at any time
    EXPECT_TRUE(mSignalled.empty());
    EXPECT_TRUE(child.reapIfEnded());
}

class AKill : public LeavesNothingBehind {};

TEST_F(AKill, reachesTheProcessByAHandleOfItsOwnWhateverBecameOfItsGroup)
{
    nqProcess process;
    ASSERT_TRUE(process.startProcess(workerProgram, {"rest"}, true, nqProcess::InheritedPriority));
    const AnsweredCalls calls;
    answers().mShutdown = [] { return 0; }; // nobody hangs up
    answers().mKill = [](pid_t pid) {
        ADD_FAILURE() << "by a number: " << pid;
        return failWith(ESRCH);
    };
    process.killProcess();
    EXPECT_TRUE(process.waitForFinished(ampleMs));
}

class ALaunch : public LeavesNothingBehind {};

TEST_F(ALaunch, isRefusedWithoutAPipeThatTellsOfFailures)
{
    const AnsweredCalls calls;
    answers().mPipe2 = [](int) { return failWith(ENFILE); };
    nqProcess process;
    EXPECT_FALSE(process.startProcess(workerProgram, {"rest"}, true, nqProcess::InheritedPriority));
    EXPECT_EQ(process.getState(), nqProcess::NotStarted);
    EXPECT_EQ(process.getPid(), 0);
}

TEST_F(ALaunch, opensNothingThatAnotherThreadsChildWouldKeep)
{
    const AnsweredCalls calls;
    int opened = 0;
    answers().mOpen = [&](const char* path, int flags) -> std::optional<int> {
        ++opened;
        EXPECT_TRUE(flags & O_CLOEXEC) << path;
        return std::nullopt;
    };
    answers().mPipe2 = [&](int flags) -> std::optional<int> {
        ++opened;
        EXPECT_TRUE(flags & O_CLOEXEC) << "of the pipe that tells of failures";
        return std::nullopt;
    };
    nqProcess process;
    ASSERT_TRUE(process.startProcess(workerProgram, {"rest"}, true, nqProcess::InheritedPriority));
    EXPECT_GE(opened, 3) << "the null device, the pipe and the figures of its memory";
    for (const int descriptor : openDescriptorNumbers())
        if (descriptorsAtStart().count(descriptor) == 0) {
            EXPECT_TRUE(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC) << descriptor;
        }
}

TEST_F(ALaunch, whoseNumberIsUsedAgainWhileItsFiguresAreOpenedHasNone)
{
    nqProcess process;
    const AnsweredCalls calls;
    int attempts = 0;
    answers().mOpen = [&](const char* path, int) -> std::optional<int> {
        const std::string text = path;
        if (text.find("/statm") == std::string::npos)
            return std::nullopt;
        if (++attempts == 1)
            return failWith(EMFILE);
        // It ends, the host reaps it, and somebody else, here this process, has its number.
        const auto pid = static_cast<pid_t>(process.getPid());
        ::kill(pid, SIGKILL);
        EXPECT_EQ(::waitpid(pid, nullptr, 0), pid);
        return ::open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
    };
    ASSERT_TRUE(process.startProcess(workerProgram, {"rest"}, true, nqProcess::InheritedPriority));
    EXPECT_EQ(process.getCurrentRamInUse(), 0U);
    EXPECT_EQ(attempts, 2);
    EXPECT_EQ(process.getState(), nqProcess::Ended);
}

TEST_F(ALaunch, showsItsFiguresOnceThereIsADescriptorForThem)
{
    nqProcess process;
    const AnsweredCalls calls;
    int attempts = 0;
    answers().mOpen = [&](const char* path, int) -> std::optional<int> {
        const bool isOfMemory = std::string(path).find("/statm") != std::string::npos;
        return isOfMemory && ++attempts <= 2 ? std::optional(failWith(EMFILE)) : std::nullopt;
    };
    ASSERT_TRUE(process.startProcess(workerProgram, {"rest"}, true, nqProcess::InheritedPriority));
    EXPECT_EQ(process.getCurrentRamInUse(), 0U);
    EXPECT_GT(process.getCurrentRamInUse(), 0U);
    EXPECT_GT(process.getCurrentRamInUse(), 0U);
    EXPECT_EQ(attempts, 3) << "it is opened once";
}

class ALineOfTheLog : public LeavesNothingBehind {
protected:
    std::string written() const
    {
        return nq::test::contentOf(mPath);
    }

    void write(const std::string& message) const
    {
        nq::nqLog log(mPath);
        nq::nqLog::LogEntry entry;
        entry.mMessage = message;
        log.Write(entry, true);
    }

    void TearDown() override
    {
        ::unlink(mPath.c_str());
        LeavesNothingBehind::TearDown();
    }

    const std::string mPath = testing::TempDir() + freshName();
};

TEST_F(ALineOfTheLog, isWrittenThoughSignalsCutItsWritesShort)
{
    const AnsweredCalls calls;
    int writes = 0;
    answers().mWrite = [&](int descriptor, const void* bytes, size_t) -> std::optional<ssize_t> {
        return ++writes % 2 == 1 ? failWith(EINTR) : ::write(descriptor, bytes, 1);
    };
    write("line");
    EXPECT_EQ(written(), "line\n");
}

TEST_F(ALineOfTheLog, closesNothingTwiceOnItsWayToTheSystemLog)
{
    const AnsweredCalls calls;
    answers().mClose = [](int descriptor) {
        EXPECT_EQ(::close(descriptor), 0) << "it may be another thread's by now";
        return 0;
    };
    nq::nqLog::WriteToSystemLog({});
}

TEST_F(ALineOfTheLog, isWrittenThoughASignalCutsTheOpeningOfTheFileShort)
{
    const AnsweredCalls calls;
    int attempts = 0;
    answers().mOpen = [&](const char*, int) {
        return ++attempts == 1 ? std::optional(failWith(EINTR)) : std::nullopt;
    };
    write("line");
    EXPECT_EQ(written(), "line\n");
}

} // namespace
