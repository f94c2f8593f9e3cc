#include "system/linux/nqPeer.h"

#include "system/linux/nqPidfd.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sys/select.h>
#include <unistd.h>

namespace nq {

namespace {

// SO_PEERPIDFD of Linux 6.5; the headers of the C library may be older than the kernel.
constexpr int socketOptionPeerPidfd = 77;

// The kernel hands out the very process that connected, even if its pid is in use again.
int pidfdOfPeer(int socket)
{
    int pidfd = -1;
    socklen_t size = sizeof pidfd;
    if (::getsockopt(socket, SOL_SOCKET, socketOptionPeerPidfd, &pidfd, &size) != 0)
        return -1;
    return pidfd;
}

} // namespace

nqPeer::nqPeer(int socket)
{
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0)
        return;
    mCredentials = credentials;
    watchWith(socket);
}

void nqPeer::watchWith(int socket)
{
    if (mDead || mWatch.isOpen() || mCredentials.pid <= 0 || mCredentials.pid == ::getpid())
        return;
    mWatch = nqDescriptor(pidfdOfPeer(socket));
    if (!mWatch.isOpen()) {
        mIsWatchedByNumber =
            errno != ENOPROTOOPT; // a kernel that cannot say it better has no doubts
        const int pidfd = pidfdOpen(mCredentials.pid);
        mDead = pidfd < 0 && errno == ESRCH;
        mWatch = nqDescriptor(pidfd);
    }
    mWatch.moveOutOfRangeOfSelect();
}

bool nqPeer::belongsToThisUser() const
{
    return mCredentials.uid == ::geteuid();
}

void nqPeer::keepInRangeOfSelect(bool isSelectedOn)
{
    if (isSelectedOn && mWatch.get() >= FD_SETSIZE) {
        mWatch.moveToLowNumber();
        mWatchIsBroughtDown = true;
    } else if (!isSelectedOn && mWatchIsBroughtDown) {
        mWatch.moveOutOfRangeOfSelect();
        mWatchIsBroughtDown = false;
    }
}

bool nqPeer::hasDied()
{
    if (mDead || !mWatch.isOpen())
        return mDead;
    pollfd watch{mWatch.get(), POLLIN, 0};
    mDead = ::poll(&watch, 1, 0) > 0;
    if (mDead)
        mWatch.close();
    return mDead;
}

// Asked before the look at its life: a number that may be in use again tells nothing.
std::optional<nqStart> nqPeer::start()
{
    const std::optional<nqStart> start = nqProcFile::startOf(mCredentials.pid);
    return hasDied() ? std::nullopt : start;
}

nqDescriptor nqPeer::duplicateWatch() const
{
    const bool isSure = mWatch.isOpen() && !mIsWatchedByNumber;
    nqDescriptor copy(isSure ? ::fcntl(mWatch.get(), F_DUPFD_CLOEXEC, 0) : -1);
    copy.moveOutOfRangeOfSelect();
    return copy;
}

} // namespace nq
