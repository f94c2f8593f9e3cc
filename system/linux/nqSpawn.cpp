#include "system/linux/nqSpawn.h"

#include "system/linux/nqDescriptor.h"
#include "system/linux/nqSystemCall.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <linux/close_range.h>
#include <optional>
#include <poll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace nq {

namespace {

constexpr int lastSignal = 64;
constexpr int failedLaunchExitCode = 127;  // what a shell reports for a program that it cannot run
constexpr rlim_t maxDescriptors = 1 << 20; // the kernel's own default ceiling for one process

// The kernel's set of signals. The C library's functions leave out the two signals that its threads
// use among themselves; a child must neither inherit those ignored nor receive one too early.
using KernelSignalSet = std::uint64_t;

// The kernel's form of struct sigaction, which differs from the C library's.
struct KernelSignalAction {
    void* mHandler;
    unsigned long mFlags;
    void* mRestorer;
    KernelSignalSet mMask;
};

/// Blocks every signal on the calling thread for as long as it lives. The child borrows the memory
/// of the host: a handler that ran in it would change the host's data.
class SignalsBlocked {
public:
    SignalsBlocked()
    {
        setMask(~KernelSignalSet{0}, &mBefore);
    }
    ~SignalsBlocked()
    {
        setMask(mBefore, nullptr);
    }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

    static void setMask(KernelSignalSet mask, KernelSignalSet* before)
    {
        ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &mask, before, sizeof(mask));
    }

private:
    KernelSignalSet mBefore = 0;
};

/// One launch under way, prepared by the parent and read by the child.
struct Launch {
    const nqSpawnRequest& mRequest;
    nqDescriptor mNullDevice;
    nqDescriptor mFailureReader;
    nqDescriptor mFailureWriter; // the child says what failed; its exec closes the last copy

    // Set by the child and seen by the parent only where vfork shares memory. Tools that run a
    // program on a simulated processor turn vfork into fork, and then the parent has to wait.
    volatile bool mSharesMemory = false;
};

void resetSignalDispositions()
{
    for (int signal = 1; signal <= lastSignal; ++signal) {
        KernelSignalAction action{};
        ::syscall(SYS_rt_sigaction, signal, nullptr, &action, sizeof(action.mMask));
        if (action.mHandler == nullptr)
            continue;
        action = KernelSignalAction{};
        ::syscall(SYS_rt_sigaction, signal, &action, nullptr, sizeof(action.mMask));
    }
}

bool pointAt(int descriptor, int standardStream)
{
    return retryOnSignal([&] { return ::dup2(descriptor, standardStream); }) >= 0;
}

// A stream that the host has closed goes to the null device too, or the child's first socket would
// get its number and receive what the child prints. So does one whose number a file of the host's
// own has taken.
bool prepareOutput(int stream, const Launch& launch)
{
    if (launch.mRequest.mSilenceOutput || !isStandardStream(stream))
        return pointAt(launch.mNullDevice.get(), stream);
    return true;
}

bool prepareStandardStreams(const Launch& launch)
{
    return pointAt(launch.mNullDevice.get(), STDIN_FILENO) &&
           prepareOutput(STDOUT_FILENO, launch) && prepareOutput(STDERR_FILENO, launch);
}

void keepOtherDescriptorsFromTheProgram()
{
    constexpr int first = STDERR_FILENO + 1;
    if (::close_range(first, ~0U, CLOSE_RANGE_CLOEXEC) == 0)
        return;
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        limit.rlim_cur = maxDescriptors;
    const int end = static_cast<int>(std::min(limit.rlim_cur, maxDescriptors));
    for (int descriptor = first; descriptor < end; ++descriptor)
        ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
}

void lowerPriority(int niceness)
{
    // A host that is nicer already must not get a worker that is less so.
    if (niceness > ::getpriority(PRIO_PROCESS, 0))
        ::setpriority(PRIO_PROCESS, 0, niceness);
}

// Returns the step that failed, with errno.
nqSpawnResult::Step execute(const Launch& launch)
{
    const nqSpawnRequest& request = launch.mRequest;
    // Not a group alone: one in the session of the host would be stopped when it prints on a
    // terminal that stops background output.
    if (::setsid() < 0 || !request.mLeash->armForOwnGroup() || !prepareStandardStreams(launch))
        return nqSpawnResult::Step::preparing;
    if (request.mWorkingDirectory != nullptr && ::chdir(request.mWorkingDirectory) != 0)
        return nqSpawnResult::Step::enteringTheFolder;
    if (request.mNiceness != 0)
        lowerPriority(request.mNiceness);
    keepOtherDescriptorsFromTheProgram();
    resetSignalDispositions();
    SignalsBlocked::setMask(0, nullptr);
    ::execve(request.mExecutable, request.mArguments, environ);
    return nqSpawnResult::Step::executingTheProgram;
}

[[noreturn]] void runChild(Launch& launch)
{
    launch.mSharesMemory = true;
    const nqSpawnResult::Step failedAt = execute(launch);
    const nqSpawnResult failure{0, failedAt, errno};
    retryOnSignal([&] { return ::write(launch.mFailureWriter.get(), &failure, sizeof failure); });
    ::_exit(failedLaunchExitCode);
}

// A function of its own and never inlined: the child runs on this stack, and nothing that the
// parent still needs may live in a frame that the compiler rearranges around the call.
[[gnu::noinline]] pid_t vforkAndRun(Launch& launch)
{
    // fork would copy the page tables of the host, and posix_spawn cannot arm the leash. The child
    // makes system calls only.
    // NOLINTBEGIN(clang-analyzer-security.insecureAPI.vfork,clang-analyzer-unix.Vfork)
    const pid_t pid = ::vfork();
    if (pid == 0)
        runChild(launch);
    // NOLINTEND(clang-analyzer-security.insecureAPI.vfork,clang-analyzer-unix.Vfork)
    return pid;
}

bool prepare(Launch& launch)
{
    launch.mNullDevice =
        nqDescriptor(retryOnSignal([] { return ::open("/dev/null", O_RDWR | O_CLOEXEC); }));
    int ends[2];
    if (!launch.mNullDevice.isOpen() || ::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
        return false;
    launch.mFailureReader = nqDescriptor(ends[0]);
    launch.mFailureWriter = nqDescriptor(ends[1]);
    return launch.mFailureReader.isOpen() && launch.mFailureWriter.isOpen();
}

// Nothing when the program is executing.
std::optional<nqSpawnResult> awaitFailure(Launch& launch)
{
    launch.mFailureWriter.close();
    // After a true vfork the outcome stands already. Waiting for the end of the stream would then
    // only mean waiting for children of other threads that hold a copy of the writing end.
    if (!launch.mSharesMemory) {
        pollfd reader{launch.mFailureReader.get(), POLLIN, 0};
        retryOnSignal([&] { return ::poll(&reader, 1, -1); });
    }
    nqSpawnResult failure; // small enough that a pipe never hands over a part of it
    const ssize_t size = retryOnSignal(
        [&] { return ::read(launch.mFailureReader.get(), &failure, sizeof failure); });
    return size > 0 ? std::optional(failure) : std::nullopt;
}

nqSpawnResult failedPreparation(int error)
{
    return {0, nqSpawnResult::Step::preparing, error};
}

} // namespace

nqSpawnResult nqSpawn(const nqSpawnRequest& request)
{
    Launch launch{request, {}, {}, {}};
    if (!prepare(launch))
        return failedPreparation(errno);

    pid_t pid = -1;
    int error = 0;
    {
        const SignalsBlocked blocked;
        const nqLeash::ForChild armed(*request.mLeash);
        pid = vforkAndRun(launch);
        error = errno;
    }
    if (pid < 0)
        return failedPreparation(error);
    const std::optional<nqSpawnResult> failure = awaitFailure(launch);
    if (!failure)
        return {pid, {}, 0};
    // The host may ignore SIGCHLD or reap everything itself; then there is nothing left to wait
    // for.
    retryOnSignal([&] { return ::waitpid(pid, nullptr, 0); });
    return *failure;
}

} // namespace nq
