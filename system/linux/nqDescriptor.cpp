#include "system/linux/nqDescriptor.h"

#include "system/nqThread.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

namespace nq {

bool isStandardStream(int stream) noexcept
{
    const int flags = ::fcntl(stream, F_GETFD);
    return flags >= 0 && (flags & FD_CLOEXEC) == 0;
}

nqDescriptor::nqDescriptor(int fresh)
    : mFd(fresh)
{
    if (mFd < 0 || mFd >= standardStreamCount)
        return;
    moveToLowNumber();
    if (mFd < standardStreamCount)
        close();
}

void nqDescriptor::close() noexcept
{
    if (mFd < 0)
        return;
    const nqThread::Uncancellable untilClosed;
    const int savedErrno = errno;
    // Never retried after EINTR: on Linux the number is free by then.
    ::close(std::exchange(mFd, -1));
    errno = savedErrno;
}

void nqDescriptor::moveToLowNumber()
{
    moveToNumberFrom(standardStreamCount);
}

void nqDescriptor::moveOutOfRangeOfSelect()
{
    if (mFd >= 0 && mFd < FD_SETSIZE)
        moveToNumberFrom(FD_SETSIZE);
}

void nqDescriptor::moveToNumberFrom(int lowest)
{
    const int moved = ::fcntl(mFd, F_DUPFD_CLOEXEC, lowest);
    if (moved < 0)
        return;
    close();
    mFd = moved;
}

} // namespace nq
