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

// The child of vfork borrows the host's memory and the calling thread's stack until its exec:
// - it calls only what is safe there, and changes no memory of the host but mSharesMemory and
//   errno (its cancel state is put back);
// - signals are blocked meanwhile, or a handler of the host would run in it;
// - what fails in it is written to a pipe whose last copy its exec closes;
// - where a tool turns vfork into fork, its memory is a copy, and the parent waits on that pipe.

namespace nq {

namespace {

constexpr int lastSignal = 64;
constexpr int failedLaunchExitStatus = 127; // as a shell's for a program that it cannot run
constexpr rlim_t maxDescriptors = 1 << 20;  // the kernel's own default ceiling for one process

// The kernel's set of signals. The C library's functions leave out the two that its threads use; a
// child must neither inherit those ignored nor receive one before its exec.
using KernelSignalSet = std::uint64_t;

// The kernel's form of struct sigaction, which differs from the C library's.
struct KernelSignalAction {
    void* mHandler;
    unsigned long mFlags;
    void* mRestorer;
    KernelSignalSet mMask;
};

/// Blocks every signal on the calling thread for as long as it lives.
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

/// Prepared by the parent, read by the child.
struct Launch {
    const nqSpawnRequest& mRequest;
    nqDescriptor mNullDevice;
    nqDescriptor mFailureReader;
    nqDescriptor mFailureWriter;
    // Set by the child, and seen by the parent only after a true vfork.
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

// A stream that the host has closed goes to the null device, or the child's first socket would get
// its number and receive what the child prints. So does one whose number the host has reused.
bool prepareOutput(int stream, const Launch& launch)
{
    if (launch.mRequest.mSilenceOutput || !isStandardStream(stream))
        return pointAt(launch.mNullDevice.get(), stream);
    return true;
}

bool prepareError(const Launch& launch)
{
    const int captured = launch.mRequest.mStandardError;
    return captured >= 0 ? pointAt(captured, STDERR_FILENO) : prepareOutput(STDERR_FILENO, launch);
}

bool prepareStandardStreams(const Launch& launch)
{
    return pointAt(launch.mNullDevice.get(), STDIN_FILENO) &&
           prepareOutput(STDOUT_FILENO, launch) && prepareError(launch);
}

void keepOtherDescriptorsFromTheProgram()
{
    if (::close_range(standardStreamCount, ~0U, CLOSE_RANGE_CLOEXEC) == 0)
        return;
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        limit.rlim_cur = maxDescriptors;
    const int end = static_cast<int>(std::min(limit.rlim_cur, maxDescriptors));
    for (int descriptor = standardStreamCount; descriptor < end; ++descriptor)
        ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
}

void lowerPriority(int niceness)
{
    // Never less nice than the host.
    if (niceness > ::getpriority(PRIO_PROCESS, 0))
        ::setpriority(PRIO_PROCESS, 0, niceness);
}

// Returns the step that failed, with errno.
nqSpawnResult::Step execute(const Launch& launch)
{
    const nqSpawnRequest& request = launch.mRequest;
    // A session and not only a group: in the host's session, the child would be stopped when it
    // prints on a terminal that stops background output.
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
    ::_exit(failedLaunchExitStatus);
}

// Never inlined: the child runs on this stack, and must not overwrite a slot of the caller's frame
// that the compiler has reused around the call.
[[gnu::noinline]] pid_t vforkAndRun(Launch& launch)
{
    // fork would copy the page tables of a large host, and posix_spawn cannot arm the leash.
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
    // After a true vfork the outcome is known. Waiting for the end of the stream would only mean
    // waiting for children of other threads that hold copies of its writing end.
    if (!launch.mSharesMemory) {
        pollfd reader{launch.mFailureReader.get(), POLLIN, 0};
        retryOnSignal([&] { return ::poll(&reader, 1, -1); });
    }
    nqSpawnResult failure; // small enough that a pipe never splits it
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
    retryOnSignal([&] { return ::waitpid(pid, nullptr, 0); }); // fails in a host that reaps itself
    return *failure;
}

} // namespace nq
