#include "pool/nqPoolDelivery.h"

#include <utility>

namespace nq {

nqPoolDelivery::nqPoolDelivery(nqPoolOptions::Order order)
    : mOrder(order)
{
}

// What has an entry moves from list to list, which takes no memory and so cannot fail.
void nqPoolDelivery::add(nqOutcome&& outcome, nqPool::Callback&& callback)
{
    const nqJobId id = outcome.id;
    std::list<Entry> entry;
    entry.push_back({std::move(outcome), std::move(callback)});
    if (mOrder == nqPoolOptions::Order::Completion) {
        mReady.splice(mReady.end(), entry);
        return;
    }
    mHeldBack[id].swap(entry);
    while (!mHeldBack.empty() && mHeldBack.begin()->first == mNextInOrder) {
        mReady.splice(mReady.end(), mHeldBack.begin()->second);
        mHeldBack.erase(mHeldBack.begin());
        ++mNextInOrder;
    }
}

std::size_t nqPoolDelivery::deliver()
{
    const std::size_t count = mReady.size();
    for (std::size_t i = 0; i < count; ++i) {
        if (!mReady.front().callback) {
            mCollected.splice(mCollected.end(), mReady, mReady.begin());
            continue;
        }
        std::list<Entry> told;
        told.splice(told.end(), mReady, mReady.begin());
        told.front().callback(std::move(told.front().outcome));
    }
    return count;
}

bool nqPoolDelivery::isDue() const
{
    return !mReady.empty();
}

std::optional<nqOutcome> nqPoolDelivery::take()
{
    if (mCollected.empty())
        return std::nullopt;
    std::optional<nqOutcome> outcome(std::move(mCollected.front().outcome));
    mCollected.pop_front();
    return outcome;
}

std::size_t nqPoolDelivery::waitingCount() const
{
    return mReady.size() + mHeldBack.size();
}

} // namespace nq
