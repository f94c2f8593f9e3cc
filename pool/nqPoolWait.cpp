#include "pool/nqPoolWait.h"

#include "pool/nqPoolDescriptor.h"

#include <algorithm>
#include <array>
#include <climits>
#include <sys/epoll.h>
#include <sys/timerfd.h>

namespace nq {

namespace {

constexpr std::size_t eventsOfOneSleep = 64; // the others come with the next one

int control(int set, int operation, int descriptor, void* owner)
{
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = owner;
    return ::epoll_ctl(set, operation, descriptor, &event);
}

} // namespace

struct nqPoolWait::Private {
    nqPoolDescriptor mSet{::epoll_create1(EPOLL_CLOEXEC)};
    nqPoolDescriptor mTimer{::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)};
    std::optional<TimePoint> mWakeAt;
    std::array<epoll_event, eventsOfOneSleep> mEvents{};
    std::vector<void*> mOwners;
};

nqPoolWait::nqPoolWait()
    : mPrivate(std::make_unique<Private>())
{
    mPrivate->mOwners.reserve(eventsOfOneSleep);
    control(mPrivate->mSet.get(), EPOLL_CTL_ADD, mPrivate->mTimer.get(), nullptr);
}

nqPoolWait::~nqPoolWait() = default;

bool nqPoolWait::watch(int descriptor, void* owner)
{
    return control(mPrivate->mSet.get(), EPOLL_CTL_ADD, descriptor, owner) == 0;
}

void nqPoolWait::forget(int descriptor)
{
    control(mPrivate->mSet.get(), EPOLL_CTL_DEL, descriptor, nullptr);
}

const std::vector<void*>& nqPoolWait::sleep(std::chrono::milliseconds timeout)
{
    mPrivate->mOwners.clear();
    const auto limited = std::clamp<long long>(timeout.count(), -1, INT_MAX);
    const int count = ::epoll_wait(
        mPrivate->mSet.get(),
        mPrivate->mEvents.data(),
        static_cast<int>(mPrivate->mEvents.size()),
        static_cast<int>(limited));
    // A signal ends the sleep early: the host may want to look.
    for (int i = 0; i < count; ++i) {
        void* const owner = mPrivate->mEvents[static_cast<std::size_t>(i)].data.ptr;
        if (owner != nullptr)
            mPrivate->mOwners.push_back(owner);
    }
    return mPrivate->mOwners;
}

int nqPoolWait::descriptor() const
{
    return mPrivate->mSet.get();
}

void nqPoolWait::wakeAt(const std::optional<TimePoint>& time)
{
    if (mPrivate->mWakeAt == time)
        return;
    mPrivate->mWakeAt = time;
    itimerspec setting{};
    if (time) {
        // A time of zero would disarm it.
        const auto since = std::max(time->time_since_epoch(), TimePoint::duration(1));
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since);
        setting.it_value.tv_sec = seconds.count();
        setting.it_value.tv_nsec = std::chrono::nanoseconds(since - seconds).count();
    }
    ::timerfd_settime(mPrivate->mTimer.get(), TFD_TIMER_ABSTIME, &setting, nullptr);
}

} // namespace nq
