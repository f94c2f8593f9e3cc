#pragma once

#include "pool/include/nqPool.h"

#include <cstddef>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace nq {

/// Outcomes on their way to the host, in the order that it has asked for, and the entries in Redis
/// that they were made of, which go once the host has them.
class nqClusterDelivery {
public:
    struct Item {
        nqOutcome outcome;
        nqPool::Callback callback;
        std::string entry; ///< empty: there is none
    };

    explicit nqClusterDelivery(nqPoolOptions::Order order);

    /// The id after which those of this pool begin. Earlier ones come in no order.
    void startAfter(nqJobId id);

    /// A job has ended; every id comes once.
    void add(Item&& item);

    /// Calls the callbacks of those that are ready now, and makes the others ready for take().
    /// Returns how many there were. An exception leaves when its outcome has been delivered.
    std::size_t deliver();

    /// Whether deliver() has something to do.
    bool isDue() const
    {
        return !mReady.empty();
    }

    /// The next outcome that has no callback.
    std::optional<nqOutcome> take();

    /// Outcomes that are not delivered, or wait for their turn.
    std::size_t waitingCount() const
    {
        return mReady.size() + mHeldBack.size();
    }

    /// Bytes of those that nobody has fetched.
    std::size_t uncollectedBytes() const
    {
        return mUncollected;
    }

    /// Entries of outcomes that the host has, each told once.
    std::vector<std::string> takeEntries();

private:
    void noteEntry(std::string&& entry);

    nqPoolOptions::Order mOrder;
    nqJobId mNextInOrder = 1;
    std::map<nqJobId, Item> mHeldBack;
    std::list<Item> mReady;
    std::list<Item> mCollected;
    std::size_t mUncollected = 0;
    std::vector<std::string> mEntries;
};

} // namespace nq
