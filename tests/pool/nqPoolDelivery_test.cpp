#include "pool/nqPoolDelivery.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

namespace {

using nq::nqJobId;
using nq::nqOutcome;
using nq::nqPoolDelivery;
using Order = nq::nqPoolOptions::Order;
using Ids = std::vector<nqJobId>;

nqOutcome outcome(nqJobId id)
{
    nqOutcome made;
    made.id = id;
    return made;
}

class PoolDelivery : public testing::Test {
protected:
    void addTold(nqPoolDelivery& delivery, nqJobId id)
    {
        delivery.add(outcome(id), [this](nqOutcome&& told) { mTold.push_back(told.id); });
    }

    static Ids takeAll(nqPoolDelivery& delivery)
    {
        Ids all;
        while (auto one = delivery.take())
            all.push_back(one->id);
        return all;
    }

    Ids mTold;
};

TEST_F(PoolDelivery, tellsInTheOrderOfCompletion)
{
    nqPoolDelivery delivery(Order::Completion);
    addTold(delivery, 2);
    addTold(delivery, 1);
    EXPECT_TRUE(mTold.empty());
    EXPECT_TRUE(delivery.isDue());
    EXPECT_EQ(delivery.deliver(), 2U);
    EXPECT_EQ(mTold, (Ids{2, 1}));
    EXPECT_FALSE(delivery.isDue());
}

TEST_F(PoolDelivery, holdsBackWhatIsNotNextInTheOrderOfSubmission)
{
    nqPoolDelivery delivery(Order::Submission);
    addTold(delivery, 3);
    addTold(delivery, 2);
    EXPECT_FALSE(delivery.isDue());
    EXPECT_EQ(delivery.waitingCount(), 2U);
    addTold(delivery, 1);
    EXPECT_EQ(delivery.deliver(), 3U);
    EXPECT_EQ(mTold, (Ids{1, 2, 3}));
    EXPECT_EQ(delivery.waitingCount(), 0U);
}

TEST_F(PoolDelivery, collectsWhatHasNoCallback)
{
    nqPoolDelivery delivery(Order::Completion);
    delivery.add(outcome(1), {});
    addTold(delivery, 2);
    delivery.add(outcome(3), {});
    EXPECT_FALSE(delivery.take());
    EXPECT_EQ(delivery.deliver(), 3U);
    EXPECT_EQ(takeAll(delivery), (Ids{1, 3}));
    EXPECT_EQ(mTold, Ids{2});
}

TEST_F(PoolDelivery, goesOnBehindACallbackThatThrows)
{
    nqPoolDelivery delivery(Order::Completion);
    addTold(delivery, 1);
    delivery.add(outcome(2), [](nqOutcome&&) { throw std::runtime_error("thrown"); });
    addTold(delivery, 3);
    EXPECT_THROW(delivery.deliver(), std::runtime_error);
    EXPECT_EQ(mTold, Ids{1});
    EXPECT_EQ(delivery.deliver(), 1U);
    EXPECT_EQ(mTold, (Ids{1, 3}));
}

TEST_F(PoolDelivery, leavesWhatACallbackAddsToTheNextTime)
{
    nqPoolDelivery delivery(Order::Completion);
    delivery.add(outcome(1), [&](nqOutcome&&) { addTold(delivery, 2); });
    EXPECT_EQ(delivery.deliver(), 1U);
    EXPECT_TRUE(mTold.empty());
    EXPECT_EQ(delivery.deliver(), 1U);
    EXPECT_EQ(mTold, Ids{2});
}

} // namespace
