#pragma once

#include "system/nqOwnedDescriptor.h"

#include <cstdint>
#include <deque>

namespace nq {

/// The reading ends of the workers' standard error that the host has not taken yet, in the order of
/// the launches.
///
/// One stays open while its worker lives, since the worker would get SIGPIPE, and for one pump
/// longer, so that the host can take the last words of a worker whose end it has just been told.
class nqStandardErrors {
public:
    bool isEmpty() const
    {
        return mEntries.empty();
    }

    void add(std::int64_t pid, nqOwnedDescriptor end);

    /// The launch has led to a worker. Until then it may end in any way, by an exception too, and
    /// counts as ended.
    void noteListed(std::int64_t pid);

    void noteEnd(std::int64_t pid);

    /// Closes the ends of workers that ended before.
    void dropEnded();

    /// Hands the oldest one over. False, and nothing changes, when there is none.
    bool take(std::int64_t& pid, int& descriptor);

private:
    struct Entry {
        std::int64_t mPid;
        nqOwnedDescriptor mEnd;
        bool mHasEnded;
    };

    std::deque<Entry> mEntries;
};

} // namespace nq
