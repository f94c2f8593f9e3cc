#pragma once

#include "pool/nqPoolJob.h"

#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <unordered_map>
#include <utility>

namespace nq {

/// The jobs of a pool that no worker holds: those that were never tried, in the order of their ids,
/// and those that wait for another attempt. Takes any of them out by its id.
class nqPoolQueue {
public:
    using TimePoint = nqPoolClock::TimePoint;

    /// A new job; its id is the largest so far.
    void push(nqPoolJob&& job);

    /// One that has been tried before, not to be tried again before `time`.
    void pushAgain(nqPoolJob&& job, TimePoint time);

    /// The next one to run: another attempt that is due before a job that was never tried.
    std::optional<nqPoolJob> pop(TimePoint now);

    /// Whether pop() would find one.
    bool hasDue(TimePoint now) const;

    std::optional<nqPoolJob> remove(nqJobId id);

    /// One whose deadline has passed.
    std::optional<nqPoolJob> removeExpired(TimePoint now);

    /// One of those with ids up to `last`, whether it is due or not.
    std::optional<nqPoolJob> removeUpTo(nqJobId last);

    /// When removeExpired() finds something, or pop() will find what it does not find now: what is
    /// due already waits for a worker, and not for a time.
    std::optional<TimePoint> nextDue(TimePoint now) const;

    std::size_t size() const;

private:
    using TimedId = std::pair<TimePoint, nqJobId>;

    std::optional<nqPoolJob> removeNew(nqJobId id);
    void noteDeadline(const nqPoolJob& job);
    void forgetDeadline(const nqPoolJob& job);
    void dropGone();

    std::deque<nqPoolJob> mNew; ///< the first one is never gone
    std::size_t mGone = 0;      ///< entries of mNew
    std::map<TimedId, nqPoolJob> mAgain;
    std::unordered_map<nqJobId, TimePoint> mAgainAt; ///< the keys of mAgain
    std::set<TimedId> mDeadlines;
};

} // namespace nq
