#include "system/linux/nqWatchedDescriptor.h"

#include "system/linux/nqEpoll.h"

#include <cerrno>
#include <utility>

namespace nq {

nqWatchedDescriptor::nqWatchedDescriptor(nqDescriptor descriptor)
    : mDescriptor(std::move(descriptor))
{
}

nqWatchedDescriptor::nqWatchedDescriptor(nqWatchedDescriptor&& other) noexcept
    : mDescriptor(std::move(other.mDescriptor)),
      mSet(std::exchange(other.mSet, nullptr)),
      mEvents(other.mEvents)
{
}

nqWatchedDescriptor& nqWatchedDescriptor::operator=(nqWatchedDescriptor&& other) noexcept
{
    if (this != &other) {
        close();
        mDescriptor = std::move(other.mDescriptor);
        mSet = std::exchange(other.mSet, nullptr);
        mEvents = other.mEvents;
    }
    return *this;
}

nqWatchedDescriptor::~nqWatchedDescriptor()
{
    leaveSet();
}

void nqWatchedDescriptor::watchIn(nqEpoll* set, std::uint32_t events)
{
    if (set != mSet)
        leaveSet();
    if (set == nullptr || !isOpen() || (mSet != nullptr && mEvents == events))
        return;
    const bool isDone = mSet == nullptr ? set->add(get(), events) : set->change(get(), events);
    if (!isDone)
        return;
    mSet = set;
    mEvents = events;
}

void nqWatchedDescriptor::close() noexcept
{
    release();
}

nqDescriptor nqWatchedDescriptor::release() noexcept
{
    leaveSet();
    return std::move(mDescriptor);
}

void nqWatchedDescriptor::moveToLowNumber()
{
    leaveSet();
    mDescriptor.moveToLowNumber();
}

void nqWatchedDescriptor::moveOutOfRangeOfSelect()
{
    leaveSet();
    mDescriptor.moveOutOfRangeOfSelect();
}

void nqWatchedDescriptor::leaveSet() noexcept
{
    if (mSet == nullptr)
        return;
    const int savedErrno = errno;
    std::exchange(mSet, nullptr)->remove(get());
    errno = savedErrno;
}

} // namespace nq
