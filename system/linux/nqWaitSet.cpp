#include "system/linux/nqWaitSetPrivate.h"

#include "system/linux/nqPlatformLog.h"

#include <cerrno>
#include <string>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <system_error>

namespace nq {

nqWaitSet::nqWaitSet()
    : mPrivate(std::make_unique<Private>())
{
    int error = errno;
    if (mPrivate->mEpoll.isOpen()) {
        mPrivate->mAlwaysReadable = nqDescriptor(::eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK));
        error = errno;
        mPrivate->mAlwaysReadable.moveOutOfRangeOfSelect();
    }
    if (!mPrivate->mAlwaysReadable.isOpen())
        logError("Cannot make a descriptor to wait on: " + std::generic_category().message(error));
}

nqWaitSet::~nqWaitSet() = default;

int nqWaitSet::descriptor() const
{
    return mPrivate->mAlwaysReadable.isOpen() ? mPrivate->mEpoll.get() : -1;
}

void nqWaitSet::setReady(bool isReady)
{
    mPrivate->mAlwaysReadable.watchIn(isReady ? &mPrivate->mEpoll : nullptr, EPOLLIN);
}

} // namespace nq
