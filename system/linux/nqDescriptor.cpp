#include "system/linux/nqDescriptor.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace nq {

namespace {

constexpr int firstNumberAboveStandardStreams = STDERR_FILENO + 1;

} // namespace

bool isStandardStream(int stream) noexcept
{
    const int flags = ::fcntl(stream, F_GETFD);
    return flags >= 0 && (flags & FD_CLOEXEC) == 0;
}

nqDescriptor::nqDescriptor(int fresh)
    : mFd(fresh)
{
    if (mFd < 0 || mFd >= firstNumberAboveStandardStreams)
        return;
    moveToLowNumber();
    if (mFd < firstNumberAboveStandardStreams)
        close(); // no number left: better no descriptor than one that a printed line can reach
}

void nqDescriptor::close() noexcept
{
    if (mFd < 0)
        return;
    const int savedErrno = errno;
    // Never retried after EINTR: on Linux the number is free again by then.
    ::close(std::exchange(mFd, -1));
    errno = savedErrno;
}

void nqDescriptor::moveToLowNumber()
{
    const int moved = ::fcntl(mFd, F_DUPFD_CLOEXEC, firstNumberAboveStandardStreams);
    if (moved < 0)
        return;
    close();
    mFd = moved;
}

} // namespace nq
