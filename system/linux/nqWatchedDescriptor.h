#pragma once

#include "system/linux/nqDescriptor.h"

#include <cstdint>

namespace nq {

class nqEpoll;

/// A descriptor that may have an entry in a set, and takes it out before it is closed or gets
/// another number.
///
/// The kernel would keep the entry for as long as a duplicate is open, in a forked child for
/// instance, and go on reporting it under a number by which it can no longer be taken out.
class nqWatchedDescriptor {
public:
    nqWatchedDescriptor() = default;
    nqWatchedDescriptor(nqDescriptor descriptor); // without an entry yet
    nqWatchedDescriptor(nqWatchedDescriptor&& other) noexcept;
    nqWatchedDescriptor& operator=(nqWatchedDescriptor&& other) noexcept;
    ~nqWatchedDescriptor();

    int get() const
    {
        return mDescriptor.get();
    }
    bool isOpen() const
    {
        return mDescriptor.isOpen();
    }

    /// Whether it has an entry.
    bool isWatched() const
    {
        return mSet != nullptr;
    }

    /// Makes `set` watch the descriptor for `events`, of epoll; null ends that. Costs a call of the
    /// kernel only if this changes anything. The set is borrowed until the entry is out. If the
    /// kernel refuses an entry, there is none.
    void watchIn(nqEpoll* set, std::uint32_t events);

    void close() noexcept;

    /// Gives the descriptor up, without its entry.
    nqDescriptor release() noexcept;

    /// As nqDescriptor's. There is no entry afterwards, if the number was to change.
    void moveToLowNumber();
    void moveOutOfRangeOfSelect();

private:
    void leaveSet() noexcept;

    nqDescriptor mDescriptor;
    nqEpoll* mSet = nullptr;   // null while there is no entry
    std::uint32_t mEvents = 0; // of the entry
};

} // namespace nq
