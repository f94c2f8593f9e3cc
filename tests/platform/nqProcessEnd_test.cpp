#include "tests/platform/process_helpers.h"

#include "system/linux/nqLeash.h"
#include "system/linux/nqPidfd.h"
#include "tests/common/processes.h"
#include "tests/common/signalStorm.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <iterator>
#include <linux/sched.h>
#include <new>
#include <optional>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>

namespace {

using namespace nq::test;
using common::SignalStorm;
using nq::nqProcess;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

class ProcessEnd : public ProcessTest {
protected:
    // A running worker that has come so far as to answer.
    void launch(const std::string& behaviour)
    {
        ASSERT_TRUE(startWorker(mProcess, mOutput, behaviour));
        EXPECT_EQ(mOutput.readLine(), "ready");
    }

    pid_t pid() const
    {
        return static_cast<pid_t>(mProcess.getPid());
    }

    OutputPipe mOutput;
    nqProcess mProcess;
};

/// A disposition of a signal for as long as it lives.
class Disposition {
public:
    Disposition(int signal, void (*handler)(int))
        : mSignal(signal)
    {
        struct sigaction action {};
        action.sa_handler = handler;
        ::sigaction(signal, &action, &mBefore);
    }
    ~Disposition()
    {
        ::sigaction(mSignal, &mBefore, nullptr);
    }
    Disposition(const Disposition&) = delete;
    Disposition& operator=(const Disposition&) = delete;

private:
    int mSignal;
    struct sigaction mBefore {};
};

/// A process of its own that holds a worker at its exit, as a device that does not answer would:
/// the worker is killed but does not end until it is let go.
class Holder {
public:
    explicit Holder(pid_t worker)
    {
        int attached[2];
        if (::pipe2(attached, O_CLOEXEC) != 0 || ::pipe2(mLetGo, O_CLOEXEC) != 0)
            std::abort();
        mPid = ::fork();
        if (mPid == 0)
            hold(worker, attached[1]);
        ::close(attached[1]);
        char result = 0;
        mHolds = ::read(attached[0], &result, 1) == 1 && result == '+';
        ::close(attached[0]);
    }
    ~Holder()
    {
        letGo();
    }
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;

    bool holds() const
    {
        return mHolds;
    }

    void letGo()
    {
        if (mPid < 0)
            return;
        ::close(mLetGo[1]);
        ::close(mLetGo[0]);
        ::waitpid(std::exchange(mPid, -1), nullptr, 0);
    }

private:
    [[noreturn]] void hold(pid_t worker, int attached)
    {
        ::close(mLetGo[1]);
        const bool seized = ::ptrace(PTRACE_SEIZE, worker, nullptr, PTRACE_O_TRACEEXIT) == 0;
        char byte = seized ? '+' : '-';
        if (::write(attached, &byte, 1) == 1)
            while (::read(mLetGo[0], &byte, 1) > 0) {
            }
        ::_exit(0);
    }

    pid_t mPid = -1;
    bool mHolds = false;
    int mLetGo[2] = {-1, -1};
};

[[noreturn]] void restUntilKilled()
{
    struct sigaction standard {};
    ::sigaction(SIGALRM, &standard, nullptr);
    ::alarm(300); // no test that failed leaves a process for ever
    for (;;)
        ::pause();
}

/// A child of the test with a chosen process id; -1 when the kernel does not allow that. Leads a
/// group and lives until it is killed.
pid_t startBystander(pid_t wanted)
{
    clone_args arguments{};
    arguments.exit_signal = SIGCHLD;
    arguments.set_tid = reinterpret_cast<std::uint64_t>(&wanted);
    arguments.set_tid_size = 1;
    const long pid = ::syscall(SYS_clone3, &arguments, sizeof(arguments));
    if (pid != 0) {
        if (pid > 0)
            ::setpgid(static_cast<pid_t>(pid), static_cast<pid_t>(pid));
        return static_cast<pid_t>(pid);
    }
    restUntilKilled();
}

void expectAliveAndEnd(pid_t bystander)
{
    EXPECT_EQ(::waitpid(bystander, nullptr, WNOHANG), 0) << "the bystander was hit";
    ::kill(bystander, SIGKILL);
    ::waitpid(bystander, nullptr, 0);
}

TEST_F(ProcessEnd, ofAProcessThatLeavesByItselfIsSeenAndReaped)
{
    ASSERT_TRUE(startWorker(mProcess, mOutput, ""));
    EXPECT_TRUE(mProcess.waitForFinished(withoutLimit));
    EXPECT_EQ(mProcess.getState(), nqProcess::Ended);
    EXPECT_GT(mProcess.getPid(), 0);
    EXPECT_TRUE(mProcess.waitForFinished(0));
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
}

TEST_F(ProcessEnd, leavesNoDescriptorOpenInTheObject)
{
    const auto before = common::openDescriptors();
    launch("answer");
    EXPECT_NE(common::openDescriptors(), before);
    mProcess.killProcess();
    EXPECT_TRUE(mProcess.waitForFinished(withoutLimit));
    EXPECT_EQ(common::openDescriptors(), before);
}

TEST_F(ProcessEnd, isSeenByALookAtTheState)
{
    ASSERT_TRUE(startWorker(mProcess, mOutput, ""));
    waitWithoutReaping(pid());
    EXPECT_EQ(mProcess.getState(), nqProcess::Ended);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
}

TEST_F(ProcessEnd, isSeenByAWaitOfZero)
{
    launch("answer");
    EXPECT_FALSE(mProcess.waitForFinished(0));
    mProcess.killProcess();
    waitWithoutReaping(pid());
    EXPECT_TRUE(mProcess.waitForFinished(0));
    EXPECT_EQ(mProcess.getState(), nqProcess::Ended);
}

TEST_F(ProcessEnd, isWaitedForNoLongerThanAllowed)
{
    launch("answer");
    const auto start = steady_clock::now();
    EXPECT_FALSE(mProcess.waitForFinished(50));
    EXPECT_GE(steady_clock::now() - start, milliseconds(50));
    EXPECT_EQ(mProcess.getState(), nqProcess::Running);
}

TEST_F(ProcessEnd, isWaitedForWithALimitOfWeeks)
{
    ASSERT_TRUE(startWorker(mProcess, mOutput, ""));
    EXPECT_TRUE(mProcess.waitForFinished(0xFFFFFFFE));
}

TEST_F(ProcessEnd, endsALimitedWaitAtOnce)
{
    launch("answer");
    std::thread killer([worker = pid()] { ::kill(worker, SIGKILL); });
    EXPECT_TRUE(mProcess.waitForFinished(hangLimitMs));
    killer.join();
}

TEST_F(ProcessEnd, ofAProcessThatNeverStartedNeedsNoWait)
{
    EXPECT_TRUE(mProcess.waitForFinished(withoutLimit));
    EXPECT_EQ(mProcess.getState(), nqProcess::NotStarted);
}

TEST_F(ProcessEnd, isNotReportedEarlyUnderAStormOfSignals)
{
    launch("answer");
    const SignalStorm storm;
    const auto handledBefore = SignalStorm::handled();
    const auto start = steady_clock::now();
    EXPECT_FALSE(mProcess.waitForFinished(100));
    EXPECT_GE(steady_clock::now() - start, milliseconds(100));
    EXPECT_GT(SignalStorm::handled(), handledBefore);
}

TEST_F(ProcessEnd, isWaitedForWithoutLimitUnderAStormOfSignals)
{
    launch("answer");
    const auto enough = SignalStorm::handled() + 20;
    sigset_t alarms;
    ::sigemptyset(&alarms);
    ::sigaddset(&alarms, SIGALRM);
    ::pthread_sigmask(SIG_BLOCK, &alarms, nullptr); // inherited by the thread: none lands there
    std::thread killer([worker = pid(), enough] {
        while (SignalStorm::handled() < enough)
            std::this_thread::yield();
        ::kill(worker, SIGKILL);
    });
    ::pthread_sigmask(SIG_UNBLOCK, &alarms, nullptr);
    {
        const SignalStorm storm;
        EXPECT_TRUE(mProcess.waitForFinished(withoutLimit));
        killer.join();
    }
    EXPECT_GE(SignalStorm::handled(), enough);
    EXPECT_EQ(mProcess.getState(), nqProcess::Ended);
}

TEST_F(ProcessEnd, andLaunchWorkUnderAStormOfSignals)
{
    const SignalStorm storm;
    for (int count = 0; count < 30; ++count) {
        nqProcess process;
        nqProcess missing;
        EXPECT_TRUE(process.startProcess(workerProgram, {}, true, nqProcess::InheritedPriority));
        EXPECT_FALSE(missing.startProcess("/missing", {}, true, nqProcess::InheritedPriority));
        EXPECT_TRUE(process.waitForFinished(withoutLimit));
    }
}

TEST_F(ProcessEnd, comesToTheWholeGroupByAKill)
{
    launch("answer-with-helper");
    mProcess.killProcess();
    EXPECT_TRUE(mOutput.endsWithin(hangLimitMs));
    EXPECT_TRUE(mProcess.waitForFinished(withoutLimit));
}

TEST_F(ProcessEnd, comesToAStoppedProcessByAKill)
{
    launch("answer");
    ::kill(pid(), SIGSTOP);
    mProcess.killProcess();
    EXPECT_TRUE(mProcess.waitForFinished(withoutLimit));
}

TEST_F(ProcessEnd, comesByAKillToALeaderThatTriedToLeaveItsGroup)
{
    launch("leave-group");
    ASSERT_EQ(::getpgid(pid()), pid());
    mProcess.killProcess();
    EXPECT_TRUE(mProcess.waitForFinished(withoutLimit));
}

TEST_F(ProcessEnd, comesByAKillWhileAnotherProcessHoldsCopiesOfEveryDescriptor)
{
    launch("answer-with-helper");
    mOutput.closeWriter();
    // No fork handlers run: this is the moment between another thread's vfork and its exec.
    const auto copy = static_cast<pid_t>(::syscall(SYS_clone, SIGCHLD, nullptr, 0, 0, 0));
    if (copy == 0)
        restUntilKilled();
    mProcess.killProcess();
    EXPECT_TRUE(mOutput.endsWithin(hangLimitMs));
    ::kill(copy, SIGKILL);
    ::waitpid(copy, nullptr, 0);
}

TEST_F(ProcessEnd, ofALeaderTakesItsHelpersAlong)
{
    ASSERT_TRUE(startWorker(mProcess, mOutput, "end-without-helper"));
    EXPECT_TRUE(mProcess.waitForFinished(withoutLimit));
    EXPECT_TRUE(mOutput.endsWithin(hangLimitMs));
}

TEST_F(ProcessEnd, isNotTheEndOfOtherWorkers)
{
    launch("answer");
    {
        nqProcess other;
        ASSERT_TRUE(startWorker(other, mOutput, "answer-with-helper"));
        EXPECT_EQ(mOutput.readLine(), "ready");
    }
    ::kill(pid(), SIGUSR1);
    EXPECT_EQ(mOutput.readLine(), "pong");
    EXPECT_EQ(mProcess.getState(), nqProcess::Running);
}

TEST_F(ProcessEnd, isNotBroughtByAForkedCopyOfTheHostThatExits)
{
    launch("answer");
    EXPECT_EQ(common::Child([] { return 0; }).wait(), 0);
    ::kill(pid(), SIGUSR1);
    EXPECT_EQ(mOutput.readLine(), "pong");
}

TEST_F(ProcessEnd, isWatchedByNobodyInAForkedCopyOfTheHost)
{
    // What the copy puts where the death watch was: numbers of a descriptor of its own. A list that
    // still named the watch would close that in the copy's own child.
    alignas(nq::nqLeash) int storage[sizeof(nq::nqLeash) / sizeof(int)];
    auto* const leash = new (storage) nq::nqLeash;
    common::Child copy([&] {
        leash->~nqLeash();
        std::fill(std::begin(storage), std::end(storage), mOutput.writer());
        const auto isOpen = [&] { return ::fcntl(mOutput.writer(), F_GETFD) != -1; };
        return common::Child([&] { return isOpen() ? 0 : 1; }).wait();
    });
    EXPECT_EQ(copy.wait(), 0);
    leash->~nqLeash();
}

TEST_F(ProcessEnd, isNotWaitedForByAKill)
{
    launch("answer");
    Holder holder(pid());
    if (!holder.holds())
        GTEST_SKIP() << "tracing is not allowed here";
    mProcess.killProcess(); // would not come back if it waited
    EXPECT_FALSE(mProcess.waitForFinished(0));
    EXPECT_FALSE(mProcess.waitForFinished(20));
    EXPECT_EQ(mProcess.getState(), nqProcess::Running);
    holder.letGo();
    EXPECT_TRUE(mProcess.waitForFinished(withoutLimit));
}

TEST_F(ProcessEnd, isNotWaitedForForEverByADestructorAndReapedLater)
{
    // Not on the heap: to a leak checker the copy in the holder would have no owner.
    std::optional<nqProcess> process(std::in_place);
    ASSERT_TRUE(startWorker(*process, mOutput, "answer"));
    EXPECT_EQ(mOutput.readLine(), "ready");
    const auto worker = static_cast<pid_t>(process->getPid());
    Holder holder(worker);
    if (!holder.holds())
        GTEST_SKIP() << "tracing is not allowed here";
    process.reset(); // would not come back if it waited for the end
    EXPECT_EQ(::waitpid(worker, nullptr, WNOHANG), 0) << "it must not have ended yet";
    holder.letGo();
    waitWithoutReaping(worker);
    {
        const nqProcess later;
    }
    EXPECT_EQ(::waitpid(worker, nullptr, WNOHANG), -1) << "a zombie is left";
}

TEST_F(ProcessEnd, comesByTheDestructor)
{
    {
        nqProcess process;
        ASSERT_TRUE(startWorker(process, mOutput, "answer-with-helper"));
        EXPECT_EQ(mOutput.readLine(), "ready");
    }
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a zombie is left";
    EXPECT_TRUE(mOutput.endsWithin(hangLimitMs));
}

TEST_F(ProcessEnd, leavesNoZombieAfterALaunchThatIsGivenUp)
{
    for (int count = 0; count < 20; ++count) {
        nqProcess process;
        ASSERT_TRUE(startWorker(process, mOutput, "answer"));
        process.killProcess();
    }
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a zombie is left";
}

TEST_F(ProcessEnd, cannotBeBroughtToWhatWasNeverStarted)
{
    mProcess.killProcess(); // with an id of 0 this would end the test's own group
    EXPECT_EQ(mProcess.getState(), nqProcess::NotStarted);
}

TEST_F(ProcessEnd, isFinalWhoeverGetsTheNumberNext)
{
    launch("answer");
    mProcess.killProcess();
    EXPECT_TRUE(mProcess.waitForFinished(withoutLimit));
    const pid_t bystander = startBystander(pid());
    if (bystander < 0)
        GTEST_SKIP() << "the kernel does not let this user choose a process id";
    mProcess.killProcess();
    EXPECT_EQ(mProcess.getState(), nqProcess::Ended);
    EXPECT_FALSE(mProcess.setWorkingSetMaxSize(1));
    expectAliveAndEnd(bystander);
}

TEST(Pidfds, areRefusedInTheRunThatGoesWithoutThem)
{
    if (!pidfdsAreRefused())
        GTEST_SKIP() << "this run has them";
    EXPECT_EQ(nq::pidfdOpen(::getpid()), -1);
    EXPECT_EQ(errno, ENOSYS);
    EXPECT_EQ(::close_range(~0U, ~0U, 0), -1);
    EXPECT_EQ(errno, ENOSYS);
}

TEST_F(ProcessEnd, isNotMistakenWhenTheHostReapsAndTheNumberIsUsedAgain)
{
    if (pidfdsAreRefused())
        GTEST_SKIP() << "without pidfds, a child of the same number cannot be told apart";
    launch("answer");
    ::kill(pid(), SIGKILL);
    ASSERT_EQ(::waitpid(-1, nullptr, 0), pid());
    const pid_t bystander = startBystander(pid());
    if (bystander < 0)
        GTEST_SKIP() << "the kernel does not let this user choose a process id";
    mProcess.killProcess();
    EXPECT_EQ(mProcess.getState(), nqProcess::Ended);
    expectAliveAndEnd(bystander);
}

TEST_F(ProcessEnd, isSeenInAHostThatIgnoresTheSignalOfChildren)
{
    const Disposition ignored(SIGCHLD, SIG_IGN);
    launch("answer-with-helper");
    EXPECT_EQ(mProcess.getState(), nqProcess::Running);
    EXPECT_FALSE(mProcess.waitForFinished(10));
    mProcess.killProcess();
    EXPECT_TRUE(mProcess.waitForFinished(withoutLimit));
    EXPECT_EQ(mProcess.getState(), nqProcess::Ended);
    EXPECT_TRUE(mOutput.endsWithin(hangLimitMs));
}

TEST_F(ProcessEnd, isSeenByALimitedWaitInAHostThatIgnoresTheSignalOfChildren)
{
    const Disposition ignored(SIGCHLD, SIG_IGN);
    launch("answer");
    mProcess.killProcess();
    EXPECT_TRUE(mProcess.waitForFinished(hangLimitMs));
    nqProcess missing;
    EXPECT_FALSE(missing.startProcess("/missing", {}, true, nqProcess::InheritedPriority));
}

TEST_F(ProcessEnd, isSeenInAHostThatReapsEveryChildItself)
{
    launch("answer-with-helper");
    ::kill(pid(), SIGKILL);
    ASSERT_EQ(::waitpid(-1, nullptr, 0), pid());
    EXPECT_EQ(mProcess.getState(), nqProcess::Ended);
    EXPECT_EQ(mProcess.getCurrentRamInUse(), 0U);
    EXPECT_FALSE(mProcess.setWorkingSetMaxSize(1));
    EXPECT_TRUE(mProcess.waitForFinished(withoutLimit));
    EXPECT_TRUE(mOutput.endsWithin(hangLimitMs)) << "the helper is left";
}

TEST_F(ProcessEnd, isSeenWhileAThreadOfTheHostReapsEveryChild)
{
    std::atomic<bool> over{false};
    std::thread reaper([&] {
        while (!over)
            if (::waitpid(-1, nullptr, WNOHANG) <= 0)
                std::this_thread::yield();
    });
    for (int count = 0; count < 20; ++count) {
        nqProcess process;
        nqProcess missing;
        EXPECT_TRUE(startWorker(process, mOutput, ""));
        EXPECT_FALSE(missing.startProcess("/missing", {}, true, nqProcess::InheritedPriority));
        EXPECT_TRUE(process.waitForFinished(withoutLimit));
    }
    over = true;
    reaper.join();
}

TEST_F(ProcessEnd, isNotToldOfAProcessThatRuns)
{
    launch("answer");
    EXPECT_FALSE(mProcess.end().has_value());
    EXPECT_FALSE(nqProcess().end().has_value());
}

TEST_F(ProcessEnd, tellsTheExitStatus)
{
    ASSERT_TRUE(mProcess.startProcess("/bin/sh", {"-c", "exit 3"}, true, nqProcess::LowPriority));
    EXPECT_TRUE(mProcess.waitForFinished(withoutLimit));
    const auto end = mProcess.end();
    ASSERT_TRUE(end.has_value());
    EXPECT_EQ(end->mExitStatus, 3);
    EXPECT_EQ(end->mSignal, 0);
    EXPECT_FALSE(end->mDumpedCore);
}

TEST_F(ProcessEnd, tellsTheSignal)
{
    launch("answer");
    mProcess.killProcess();
    EXPECT_TRUE(mProcess.waitForFinished(withoutLimit));
    const auto end = mProcess.end();
    ASSERT_TRUE(end.has_value());
    EXPECT_EQ(end->mSignal, SIGKILL);
    EXPECT_EQ(end->mExitStatus, 0);
}

TEST_F(ProcessEnd, tellsTheTimeThatTheProcessorGave)
{
    ASSERT_TRUE(mProcess.startProcess(
        "/bin/sh",
        {"-c", "i=0; while [ $i -lt 100000 ]; do i=$((i+1)); done"},
        true,
        nqProcess::InheritedPriority));
    EXPECT_TRUE(mProcess.waitForFinished(withoutLimit));
    const auto end = mProcess.end();
    ASSERT_TRUE(end.has_value());
    EXPECT_GT((end->mUserTime + end->mSystemTime).count(), 0);
}

TEST_F(ProcessEnd, tellsThePeakOfMemoryThatIsAboveTheHosts)
{
    rusage host{};
    ASSERT_EQ(::getrusage(RUSAGE_SELF, &host), 0);
    const auto hostBytes = static_cast<std::uint64_t>(host.ru_maxrss) * 1024;
    launch("allocate");
    std::uint64_t grown = 0;
    while (grown <= hostBytes) {
        ::kill(pid(), SIGUSR1);
        ASSERT_EQ(mOutput.readLine(), "grown");
        grown = mProcess.getCurrentRamInUse();
    }
    mProcess.killProcess();
    EXPECT_TRUE(mProcess.waitForFinished(withoutLimit));
    const auto end = mProcess.end();
    ASSERT_TRUE(end.has_value());
    EXPECT_GE(end->mPeakMemory, hostBytes);
}

TEST_F(ProcessEnd, passesTheHostsPeakOfMemoryOffAsNobodyElses)
{
    std::vector<char> ballast(std::size_t{64} << 20, 'x'); // far more than a small program needs
    ASSERT_TRUE(startWorker(mProcess, mOutput, ""));
    EXPECT_TRUE(mProcess.waitForFinished(withoutLimit));
    const auto end = mProcess.end();
    ASSERT_TRUE(end.has_value());
    EXPECT_EQ(end->mPeakMemory, 0U);
    EXPECT_EQ(ballast.back(), 'x');
}

TEST_F(ProcessEnd, isUnknownWhenTheHostHasReapedTheProcess)
{
    launch("answer");
    ::kill(pid(), SIGKILL);
    ASSERT_EQ(::waitpid(-1, nullptr, 0), pid());
    EXPECT_EQ(mProcess.getState(), nqProcess::Ended);
    EXPECT_FALSE(mProcess.end().has_value());
}

TEST_F(ProcessEnd, beforeAnythingRanHasAnErrorNumber)
{
    EXPECT_FALSE(mProcess.startProcess("/missing", {}, true, nqProcess::InheritedPriority));
    EXPECT_EQ(mProcess.startError(), ENOENT);
    EXPECT_FALSE(mProcess.end().has_value());
    nqProcess cut;
    EXPECT_FALSE(
        cut.startProcess(std::string("/bin\0", 5), {}, true, nqProcess::InheritedPriority));
    EXPECT_EQ(cut.startError(), EINVAL);
    nqProcess sound;
    EXPECT_TRUE(startWorker(sound, mOutput, ""));
    EXPECT_EQ(sound.startError(), 0);
}

TEST_F(ProcessEnd, leavesOtherChildrenToTheHost)
{
    constexpr int exitCode = 7;
    const pid_t other = ::fork();
    if (other == 0)
        ::_exit(exitCode);
    waitWithoutReaping(other);
    launch("answer");
    mProcess.killProcess();
    EXPECT_TRUE(mProcess.waitForFinished(withoutLimit));
    int status = 0;
    EXPECT_EQ(::waitpid(other, &status, WNOHANG), other);
    EXPECT_EQ(WEXITSTATUS(status), exitCode);
}

} // namespace
