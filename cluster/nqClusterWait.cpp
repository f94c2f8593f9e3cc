#include "cluster/nqClusterWait.h"

#include "pool/include/nqPool.h"

#include <algorithm>
#include <array>
#include <climits>
#include <string>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <system_error>

namespace nq {

namespace {

constexpr std::size_t eventsOfOneSleep = 16; // the others come with the next one

int orThrow(int descriptor)
{
    if (descriptor == -1)
        throw nqPoolError(
            "The cluster has no descriptor to wait on: " + std::generic_category().message(errno) +
            "; allow more open files");
    return descriptor;
}

int control(int set, int operation, int descriptor, nqWaitOwner* owner, bool isToWrite)
{
    epoll_event event{};
    event.events = isToWrite ? EPOLLIN | EPOLLOUT : EPOLLIN;
    event.data.ptr = owner;
    return ::epoll_ctl(set, operation, descriptor, &event);
}

} // namespace

nqClusterWait::nqClusterWait()
    : mSet(orThrow(::epoll_create1(EPOLL_CLOEXEC))),
      mTimer(orThrow(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)))
{
    control(mSet.get(), EPOLL_CTL_ADD, mTimer.get(), nullptr, false);
}

bool nqClusterWait::watch(int descriptor, nqWaitOwner& owner, bool isToWrite)
{
    return control(mSet.get(), EPOLL_CTL_ADD, descriptor, &owner, isToWrite) == 0;
}

void nqClusterWait::change(int descriptor, nqWaitOwner& owner, bool isToWrite)
{
    control(mSet.get(), EPOLL_CTL_MOD, descriptor, &owner, isToWrite);
}

void nqClusterWait::forget(int descriptor)
{
    control(mSet.get(), EPOLL_CTL_DEL, descriptor, nullptr, false);
}

// An owner that is told may close other descriptors of the set, whose news is then stale: it finds
// nothing to read.
bool nqClusterWait::sleep(std::chrono::milliseconds timeout)
{
    std::array<epoll_event, eventsOfOneSleep> events{};
    const auto limited = std::clamp<long long>(timeout.count(), -1, INT_MAX);
    const int count = ::epoll_wait(
        mSet.get(), events.data(), static_cast<int>(events.size()), static_cast<int>(limited));
    bool hasNews = false;
    for (int i = 0; i < count; ++i) {
        auto* const owner = static_cast<nqWaitOwner*>(events[static_cast<std::size_t>(i)].data.ptr);
        if (owner == nullptr)
            continue;
        owner->onDescriptor();
        hasNews = true;
    }
    return hasNews;
}

int nqClusterWait::descriptor() const
{
    return mSet.get();
}

// A timer that goes off too early is left alone: that costs one look for many jobs.
void nqClusterWait::wakeAt(const std::optional<TimePoint>& time)
{
    const TimePoint now = nqClusterClock::now();
    const bool isEarlyEnough =
        mTimerSetTo && *mTimerSetTo > now && (!time || *mTimerSetTo <= *time);
    if (isEarlyEnough || (!time && !mTimerSetTo))
        return;
    mTimerSetTo = time;
    itimerspec setting{}; // of zero: none
    if (time) {
        // What is due already is due a moment after the clock's beginning.
        const auto since = std::max<std::chrono::nanoseconds>(
            time->time_since_epoch(), std::chrono::nanoseconds(1));
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since);
        setting.it_value.tv_sec = seconds.count();
        setting.it_value.tv_nsec = (since - seconds).count();
    }
    ::timerfd_settime(mTimer.get(), TFD_TIMER_ABSTIME, &setting, nullptr);
}

} // namespace nq
