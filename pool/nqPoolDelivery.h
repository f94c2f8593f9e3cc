#pragma once

#include "pool/include/nqPool.h"

#include <cstddef>
#include <list>
#include <map>
#include <optional>

namespace nq {

/// Outcomes on their way to the host, in the order that it has asked for.
class nqPoolDelivery {
public:
    explicit nqPoolDelivery(nqPoolOptions::Order order);

    /// A job has ended. Every id comes exactly once; in the order of submission, none is left out.
    void add(nqOutcome&& outcome, nqPool::Callback&& callback);

    /// Calls the callbacks of those that are ready now, and makes the others ready for take(). What
    /// a callback makes ready is left to the next call. Returns how many there were. An exception
    /// leaves when its outcome has been delivered.
    std::size_t deliver();

    /// Whether deliver() has something to do.
    bool isDue() const;

    /// The next outcome that has no callback.
    std::optional<nqOutcome> take();

    /// Outcomes that are not delivered, or wait for their turn.
    std::size_t waitingCount() const;

private:
    struct Entry {
        nqOutcome outcome;
        nqPool::Callback callback;
    };

    nqPoolOptions::Order mOrder;
    nqJobId mNextInOrder = 1;
    std::map<nqJobId, std::list<Entry>> mHeldBack; ///< one each, until those before have ended
    std::list<Entry> mReady;
    std::list<Entry> mCollected; ///< for take()
};

} // namespace nq
