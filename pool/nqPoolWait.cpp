#include "pool/nqPoolWait.h"

#include "pool/nqPoolDescriptor.h"

#include <algorithm>
#include <array>
#include <climits>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <utility>

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
    void setReady(bool isReady);
    void setTimer(const std::optional<TimePoint>& time);

    nqPoolDescriptor mSet{::epoll_create1(EPOLL_CLOEXEC)};
    nqPoolDescriptor mTimer{::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)};
    nqPoolDescriptor mAlwaysReadable{::eventfd(1, EFD_CLOEXEC)}; // in the set while mIsReady
    bool mIsReady = false;
    std::optional<TimePoint> mTimerSetTo;
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

// To set a timer costs more than all else that a small job needs of the kernel, most of all one
// that goes off at once. So what is due now has a descriptor of its own, and a timer that is going
// to go off too early is left alone: that costs one look for many jobs.
void nqPoolWait::wakeAt(const std::optional<TimePoint>& time)
{
    const TimePoint now = nqPoolClock::now();
    const bool isDue = time && *time <= now;
    mPrivate->setReady(isDue);
    const bool isWanted = time && !isDue;
    const std::optional<TimePoint>& set = mPrivate->mTimerSetTo;
    const bool isEarlyEnough = set && *set > now && (!isWanted || *set <= *time);
    if (isDue || isEarlyEnough || (!isWanted && !set))
        return;
    mPrivate->setTimer(time);
}

void nqPoolWait::Private::setReady(bool isReady)
{
    if (std::exchange(mIsReady, isReady) == isReady)
        return;
    control(mSet.get(), isReady ? EPOLL_CTL_ADD : EPOLL_CTL_DEL, mAlwaysReadable.get(), nullptr);
}

void nqPoolWait::Private::setTimer(const std::optional<TimePoint>& time)
{
    mTimerSetTo = time;
    itimerspec setting{}; // of zero: none
    if (time) {
        const auto since = time->time_since_epoch();
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since);
        setting.it_value.tv_sec = seconds.count();
        setting.it_value.tv_nsec = std::chrono::nanoseconds(since - seconds).count();
    }
    ::timerfd_settime(mTimer.get(), TFD_TIMER_ABSTIME, &setting, nullptr);
}

} // namespace nq
