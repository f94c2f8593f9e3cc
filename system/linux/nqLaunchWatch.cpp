#include "system/linux/nqLaunchWatch.h"

#include "system/linux/nqPidfd.h"
#include "system/linux/nqProcFile.h"
#include "system/linux/nqStartedProcess.h"

#include <iterator>
#include <poll.h>
#include <sys/wait.h>

namespace nq {

namespace {

// Nothing reports that a group has become empty or, without pidfds, that a child has ended.
constexpr std::int64_t probeIntervalMs = 200;

} // namespace

nqLaunchWatch::nqLaunchWatch(const std::string& server)
    : mPid(nqStartedProcess::awaitedPid(server)),
      mPidfd(mPid ? pidfdOpen(*mPid) : -1)
{
}

bool nqLaunchWatch::probeFailure()
{
    probe();
    return mPhase == Phase::failed && nqProcFile::hasLivingMember(*mPid) == false;
}

void nqLaunchWatch::probe()
{
    if (!mPid || mPhase != Phase::running)
        return;
    siginfo_t ended{};
    if (::waitid(P_PID, static_cast<id_t>(*mPid), &ended, WEXITED | WNOHANG | WNOWAIT) != 0) {
        mPhase = Phase::succeeded; // reaped by the host itself
        return;
    }
    if (ended.si_pid == 0)
        return;
    mEnd = nqChildEnd::of(ended);
    mPhase = mEnd->isSuccess() ? Phase::succeeded : Phase::failed;
}

bool nqLaunchWatch::wait(int listener, const nqDeadline& deadline)
{
    const bool mayEnd = mPid && mPhase == Phase::running;
    const bool needsProbes = mPhase == Phase::failed || (mayEnd && !mPidfd.isOpen());
    pollfd watched[] = {
        {listener, POLLIN, 0},
        {mayEnd ? mPidfd.get() : -1, POLLIN, 0}, // poll ignores a descriptor of -1
    };
    const nqDeadline next = needsProbes ? deadline.orIn(probeIntervalMs) : deadline;
    if (next.poll(watched, std::size(watched)) < 0)
        return false;
    // The pidfd stays readable, and a debugger may hold back the status: polling on would spin.
    if (watched[1].revents != 0)
        mPidfd.close();
    return watched[0].revents != 0 || !deadline.hasPassed();
}

void nqLaunchWatch::report()
{
    probe();
    if (mEnd)
        nqStartedProcess::reportEnd(*mPid, *mEnd);
}

} // namespace nq
