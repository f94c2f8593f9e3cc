#include "system/linux/nqEpoll.h"

#include <cerrno>
#include <sys/epoll.h>
#include <sys/select.h>

namespace nq {

nqEpoll::nqEpoll()
    : mSet(::epoll_create1(EPOLL_CLOEXEC))
{
    if (mSet.get() >= FD_SETSIZE)
        mSet.moveToLowNumber();
    if (mSet.get() < FD_SETSIZE)
        return;
    mSet.close();
    errno = EMFILE;
}

int nqEpoll::get() const
{
    return mOwner.isThisProcess() ? mSet.get() : -1;
}

bool nqEpoll::add(int descriptor, std::uint32_t events)
{
    return control(EPOLL_CTL_ADD, descriptor, events);
}

bool nqEpoll::change(int descriptor, std::uint32_t events)
{
    return control(EPOLL_CTL_MOD, descriptor, events);
}

void nqEpoll::remove(int descriptor)
{
    control(EPOLL_CTL_DEL, descriptor, 0);
}

bool nqEpoll::control(int operation, int descriptor, std::uint32_t events)
{
    if (!mOwner.isThisProcess())
        return false;
    epoll_event event{};
    event.events = events;
    return ::epoll_ctl(mSet.get(), operation, descriptor, &event) == 0;
}

} // namespace nq
