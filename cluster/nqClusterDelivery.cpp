#include "cluster/nqClusterDelivery.h"

#include <utility>

namespace nq {

nqClusterDelivery::nqClusterDelivery(nqPoolOptions::Order order)
    : mOrder(order)
{
}

void nqClusterDelivery::startAfter(nqJobId id)
{
    mNextInOrder = id + 1;
}

void nqClusterDelivery::add(Item&& item)
{
    if (mOrder == nqPoolOptions::Order::Completion || item.outcome.id < mNextInOrder) {
        mReady.push_back(std::move(item));
        return;
    }
    mHeldBack.emplace(item.outcome.id, std::move(item));
    for (auto first = mHeldBack.begin(); first != mHeldBack.end() && first->first == mNextInOrder;
         first = mHeldBack.erase(first)) {
        mReady.push_back(std::move(first->second));
        ++mNextInOrder;
    }
}

std::size_t nqClusterDelivery::deliver()
{
    const std::size_t count = mReady.size();
    for (std::size_t i = 0; i < count; ++i) {
        if (!mReady.front().callback) {
            mUncollected += mReady.front().outcome.bytes.size();
            mCollected.splice(mCollected.end(), mReady, mReady.begin());
            continue;
        }
        std::list<Item> told;
        told.splice(told.end(), mReady, mReady.begin());
        noteEntry(std::move(told.front().entry));
        told.front().callback(std::move(told.front().outcome));
    }
    return count;
}

std::optional<nqOutcome> nqClusterDelivery::take()
{
    if (mCollected.empty())
        return std::nullopt;
    Item& item = mCollected.front();
    mUncollected -= item.outcome.bytes.size();
    noteEntry(std::move(item.entry));
    std::optional<nqOutcome> outcome(std::move(item.outcome));
    mCollected.pop_front();
    return outcome;
}

std::vector<std::string> nqClusterDelivery::takeEntries()
{
    return std::exchange(mEntries, {});
}

void nqClusterDelivery::noteEntry(std::string&& entry)
{
    if (!entry.empty())
        mEntries.push_back(std::move(entry));
}

} // namespace nq
