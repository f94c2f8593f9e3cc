#include "system/linux/nqPeer.h"

#include "system/linux/nqPidfd.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <unistd.h>

namespace nq {

namespace {

// SO_PEERPIDFD of Linux 6.5; the headers of the C library may be older than the kernel.
constexpr int socketOptionPeerPidfd = 77;

// Names the very process that connected, even if its pid has been recycled.
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
        mMayBeRecycled = errno != ENOPROTOOPT; // an older kernel offers nothing better than the pid
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
        mWasMovedDown = true;
    } else if (!isSelectedOn && mWasMovedDown) {
        mWatch.moveOutOfRangeOfSelect();
        mWasMovedDown = false;
    }
}

void nqPeer::reportTo(nqEpoll* set)
{
    mWatch.watchIn(set, EPOLLIN);
}

bool nqPeer::probeDeath()
{
    if (mDead || !mWatch.isOpen())
        return mDead;
    pollfd watch{mWatch.get(), POLLIN, 0};
    mDead = ::poll(&watch, 1, 0) > 0;
    if (mDead)
        mWatch.close();
    return mDead;
}

// Read first, probed second: only a process that lives afterwards still had its pid.
std::optional<nqStart> nqPeer::readStart()
{
    const std::optional<nqStart> start = nqProcFile::startOf(mCredentials.pid);
    return probeDeath() ? std::nullopt : start;
}

nqDescriptor nqPeer::duplicateWatch() const
{
    const bool isThePeer = mWatch.isOpen() && !mMayBeRecycled;
    nqDescriptor copy(isThePeer ? ::fcntl(mWatch.get(), F_DUPFD_CLOEXEC, 0) : -1);
    copy.moveOutOfRangeOfSelect();
    return copy;
}

} // namespace nq
