#include "system/linux/nqLaunchWatch.h"

#include "system/linux/nqPidfd.h"
#include "system/linux/nqProcFile.h"
#include "system/linux/nqStartedProcess.h"

#include <iterator>
#include <poll.h>
#include <sys/wait.h>

namespace nq {

namespace {

// No event tells that a group has become empty, nor, without pidfds, that a child has ended.
constexpr std::int64_t lookIntervalMs = 200;

} // namespace

nqLaunchWatch::nqLaunchWatch(const std::string& server)
    : mPid(nqStartedProcess::awaited(server)),
      mEndIsReadable(mPid ? pidfdOpen(*mPid) : -1)
{
}

bool nqLaunchWatch::findsFailure()
{
    if (mPid && mPhase == Phase::running)
        look();
    return mPhase == Phase::endedBadly && nqProcFile::hasLivingMember(*mPid) == false;
}

void nqLaunchWatch::look()
{
    siginfo_t ended{};
    if (::waitid(P_PID, static_cast<id_t>(*mPid), &ended, WEXITED | WNOHANG | WNOWAIT) != 0) {
        mPhase = Phase::endedWell; // reaped by the host itself, which knows how it has ended
        return;
    }
    if (ended.si_pid == 0)
        return;
    mEnd = nqChildEnd::of(ended);
    mPhase = mEnd->isSuccess() ? Phase::endedWell : Phase::endedBadly;
}

bool nqLaunchWatch::wait(int listener, const nqDeadline& deadline)
{
    const bool isFollowed = mPid && mPhase == Phase::running;
    const bool needsLooks = mPhase == Phase::endedBadly || (isFollowed && !mEndIsReadable.isOpen());
    pollfd watched[] = {
        {listener, POLLIN, 0},
        {isFollowed ? mEndIsReadable.get() : -1, POLLIN, 0}, // poll passes over a descriptor of -1
    };
    const nqDeadline next = needsLooks ? deadline.orIn(lookIntervalMs) : deadline;
    if (next.poll(watched, std::size(watched)) < 0)
        return false;
    // Reported once, the end stays reported, also while a debugger keeps it from being looked at.
    if (watched[1].revents != 0)
        mEndIsReadable.close();
    return watched[0].revents != 0 || !deadline.hasPassed();
}

void nqLaunchWatch::report()
{
    if (mPid && mPhase == Phase::running)
        look();
    if (mEnd)
        nqStartedProcess::reportEnd(*mPid, *mEnd);
}

} // namespace nq
