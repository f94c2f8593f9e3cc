#include "system/linux/nqChild.h"

#include "system/linux/nqDeadline.h"
#include "system/linux/nqPidfd.h"
#include "system/linux/nqSystemCall.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace nq {

namespace {

constexpr std::int64_t firstPauseMs = 1; // most killed processes are gone by then
constexpr std::int64_t maxPauseMs = 16;  // the longest delay, at hardly any load

} // namespace

nqChildEnd nqChildEnd::of(const siginfo_t& ended)
{
    if (ended.si_code == CLD_EXITED)
        return {ended.si_status, 0, false, {}};
    return {0, ended.si_status, ended.si_code == CLD_DUMPED, {}};
}

nqChild::nqChild(pid_t pid)
    : mPid(pid),
      mPidfd(pidfdOpen(pid))
{
    mPidfd.moveOutOfRangeOfSelect();
}

bool nqChild::hasFailed() const
{
    siginfo_t ended{};
    if (!wait(ended, WNOHANG | WNOWAIT, nullptr))
        return true;
    return ended.si_pid != 0 && !nqChildEnd::of(ended).isSuccess();
}

bool nqChild::reapIfEnded()
{
    return reap(WNOHANG);
}

void nqChild::waitForEnd()
{
    reap(0);
}

bool nqChild::waitForEnd(std::int64_t timeoutMs)
{
    const nqDeadline deadline(timeoutMs);
    bool watch = mPidfd.isOpen();
    std::int64_t pauseMs = firstPauseMs;
    while (!reapIfEnded()) {
        if (deadline.hasPassed())
            return false;
        if (watch) {
            // The pidfd stays readable while a debugger keeps the child from being reaped: polling
            // on would spin.
            pollfd end{mPidfd.get(), POLLIN, 0};
            watch = deadline.poll(&end, 1) == 0;
            continue;
        }
        // Without a pidfd only SIGCHLD reports an end, and that signal belongs to the host.
        nqDeadline(pauseMs).poll(nullptr, 0);
        pauseMs = std::min(pauseMs * 2, maxPauseMs);
    }
    return true;
}

void nqChild::kill()
{
    if (mPidfd.isOpen()) {
        pidfdSendSignal(mPidfd.get(), SIGKILL);
        return;
    }
    // A pid belongs to the child for certain only until it is reaped, which the host may do.
    siginfo_t ended{};
    if (::waitid(P_PID, static_cast<id_t>(mPid), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
        ended.si_pid == 0)
        ::kill(mPid, SIGKILL);
}

bool nqChild::reap(int options)
{
    siginfo_t ended{};
    rusage usage{};
    if (!wait(ended, options, &usage))
        return errno == ECHILD;
    if (ended.si_pid == 0)
        return false;
    mEnd = nqChildEnd::of(ended);
    mEnd->mUsage = usage;
    return true;
}

// False with errno when the call fails; si_pid stays 0 while the child runs. The kernel's call
// takes an argument more than the C library's waitid(), and tells for nothing what the child has
// used.
bool nqChild::wait(siginfo_t& ended, int options, rusage* usage) const
{
    const idtype_t kind = mPidfd.isOpen() ? waitForPidfd : P_PID;
    const id_t id = static_cast<id_t>(mPidfd.isOpen() ? mPidfd.get() : mPid);
    return retryOnSignal([&] {
               return ::syscall(SYS_waitid, kind, id, &ended, WEXITED | options, usage);
           }) == 0;
}

} // namespace nq
