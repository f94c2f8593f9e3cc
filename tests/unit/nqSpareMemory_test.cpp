#include "support/nqSpareMemory.h"

#include "tests/common/refusedMemory.h"
#include "tests/unit/workerRecordFixture.h"

using common::RefusedMemory;
using nq::nqSpareMemory;
using namespace support;

namespace {

constexpr std::size_t large = std::size_t{64} << 10;
constexpr int manyPayloads = 64;
constexpr auto closely = nqSpareMemory::Fit::closely;
constexpr auto loosely = nqSpareMemory::Fit::loosely;

Bytes memoryOf(std::size_t capacity)
{
    Bytes memory;
    memory.reserve(capacity);
    return memory;
}

void takeSmallOnes(nqSpareMemory& spares, int count)
{
    for (int i = 0; i < count; ++i)
        spares.take(1);
}

TEST(SpareMemory, isEmptyAtFirst)
{
    nqSpareMemory spares{closely};
    EXPECT_TRUE(spares.isEmpty());
    EXPECT_EQ(spares.bytes(), 0U);
    EXPECT_EQ(spares.take(0).capacity(), 0U);
}

TEST(SpareMemory, servesTheNextPayloadThatFits)
{
    for (const std::size_t size : {std::size_t{10}, large}) {
        nqSpareMemory spares{closely};
        Bytes payload(size);
        const char* const memory = payload.data();
        spares.keep(std::move(payload));
        EXPECT_EQ(spares.take(size + 1).capacity(), 0U);
        EXPECT_EQ(spares.take(size - size / 4).data(), memory);
        EXPECT_TRUE(spares.isEmpty());
    }
}

TEST(SpareMemory, ofALargePayloadIsNotWastedOnAMuchSmallerOne)
{
    nqSpareMemory spares{closely};
    spares.keep(Bytes(large));
    EXPECT_EQ(spares.take(large / 2 - 1).capacity(), 0U);
    EXPECT_GE(spares.take(large / 2).capacity(), large);
}

TEST(SpareMemory, ofASmallPayloadServesAnySmallerOne)
{
    nqSpareMemory spares{closely};
    spares.keep(Bytes(large - 1));
    EXPECT_EQ(spares.take(0).capacity(), large - 1);
}

TEST(SpareMemory, isKeptOfTheLatestFewPayloadsOnly)
{
    nqSpareMemory spares{closely};
    for (std::size_t i = 0; i < 5; ++i)
        spares.keep(memoryOf(large + i));
    EXPECT_EQ(spares.bytes(), 4 * large + 1 + 2 + 3 + 4);
    for (std::size_t i = 4; i > 0; --i)
        EXPECT_EQ(spares.take(large).capacity(), large + i);
    EXPECT_TRUE(spares.isEmpty());
}

TEST(SpareMemory, isNotPushedOutByAnEmptyPayload)
{
    nqSpareMemory spares{closely};
    for (int i = 0; i < 4; ++i)
        spares.keep(Bytes(large));
    spares.keep({});
    EXPECT_EQ(spares.bytes(), 4 * large);
}

TEST(SpareMemory, leavesItsPlaceToAnotherWhenItIsTaken)
{
    nqSpareMemory spares{closely};
    for (std::size_t i = 0; i < 4; ++i)
        spares.keep(memoryOf(large + i));
    EXPECT_EQ(spares.take(large).capacity(), large + 3);
    spares.keep(memoryOf(large + 4));
    for (const std::size_t more : {4U, 2U, 1U, 0U})
        EXPECT_EQ(spares.take(large).capacity(), large + more);
}

TEST(SpareMemory, thatFitsLooselyServesAMuchSmallerPayloadToo)
{
    nqSpareMemory spares{loosely};
    spares.keep(Bytes(large));
    EXPECT_GE(spares.take(1).capacity(), large);
}

TEST(SpareMemory, thatFitsLooselyIsReleasedWhenItIsTooSmall)
{
    nqSpareMemory spares{loosely};
    spares.keep(Bytes(large));
    EXPECT_EQ(spares.take(large + 1).capacity(), 0U);
    EXPECT_TRUE(spares.isEmpty());
}

TEST(SpareMemory, isOutgrownWhenManyPayloadsInARowFitNone)
{
    nqSpareMemory spares{closely};
    spares.keep(Bytes(large));
    takeSmallOnes(spares, manyPayloads - 1);
    EXPECT_FALSE(spares.isOutgrown());
    takeSmallOnes(spares, 1);
    EXPECT_TRUE(spares.isOutgrown());
}

TEST(SpareMemory, isOutgrownWhenManyPayloadsInARowLeaveMostOfItUnused)
{
    nqSpareMemory spares{loosely};
    spares.keep(Bytes(4 * large));
    for (int i = 0; i < manyPayloads; ++i) {
        EXPECT_FALSE(spares.isOutgrown());
        spares.keep(spares.take(large));
    }
    EXPECT_TRUE(spares.isOutgrown());
}

TEST(SpareMemory, isOutgrownWhenManyPayloadsInARowAreSmall)
{
    nqSpareMemory spares{closely};
    spares.keep(Bytes(large - 1));
    for (int i = 0; i < manyPayloads; ++i) {
        EXPECT_FALSE(spares.isOutgrown());
        spares.keep(spares.take(large - 1));
    }
    EXPECT_TRUE(spares.isOutgrown());
}

TEST(SpareMemory, isNotOutgrownWhenItWasOfUseBetween)
{
    nqSpareMemory spares{closely};
    spares.keep(Bytes(large));
    takeSmallOnes(spares, manyPayloads - 1);
    spares.take(large);
    takeSmallOnes(spares, manyPayloads - 1);
    EXPECT_FALSE(spares.isOutgrown());
}

TEST(SpareMemory, isNotOutgrownRightAfterItsRelease)
{
    nqSpareMemory spares{closely};
    spares.keep(Bytes(large));
    takeSmallOnes(spares, manyPayloads);
    spares.release();
    EXPECT_TRUE(spares.isEmpty());
    EXPECT_FALSE(spares.isOutgrown());
}

/// The spare memory of the queues.
struct SpareMemoryOfTheQueues : testing::Test {
    nq::nqJobQueues queues;
    nqSpareMemory& spares = queues.spareMemory();

    SpareMemoryOfTheQueues()
    {
        queues.push(bytes("keeps the queues from being at rest"));
    }
};

TEST_F(SpareMemoryOfTheQueues, isWhatAPoppedIntoVectorHeldBefore)
{
    const Bytes result(large, 'r');
    queues.pushResult(result);
    Bytes popped(2 * large);
    ASSERT_TRUE(queues.pop(popped));
    EXPECT_TRUE(popped == result);
    EXPECT_GE(spares.take(2 * large).capacity(), 2 * large);
}

TEST_F(SpareMemoryOfTheQueues, isNotWhatAPoppedIntoVectorHeldOfMuchLargerPayloads)
{
    queues.pushResult(Bytes(large));
    Bytes popped(2 * large + 2);
    ASSERT_TRUE(queues.pop(popped));
    EXPECT_TRUE(spares.isEmpty());
}

TEST_F(SpareMemoryOfTheQueues, neverCostsAResultWhenThereIsNoMemory)
{
    if (!RefusedMemory::isPossible())
        GTEST_SKIP() << "this tool has its own allocator";
    queues.pushResult(bytes("first"));
    queues.pushResult(bytes("second"));
    Bytes popped(large, 'o');
    {
        const RefusedMemory refused(1);
        ASSERT_TRUE(queues.pop(popped));
    }
    EXPECT_EQ(popped, bytes("first"));
    EXPECT_EQ(queues.resultCount(), 1U);
}

TEST_F(SpareMemoryOfTheQueues, neverShowsItsOldBytesInAJob)
{
    spares.keep(Bytes(large, 'o'));
    queues.clearPendingJobs();
    const Bytes pushed(large - 1, 'n');
    queues.push(pushed);
    Bytes job;
    ASSERT_TRUE(queues.takeNextJob(job));
    EXPECT_TRUE(job == pushed);
}

TEST_F(SpareMemoryOfTheQueues, isReleasedWhenItIsOutgrown)
{
    spares.keep(Bytes(large));
    takeSmallOnes(spares, manyPayloads - 1);
    Bytes result;
    queues.pop(result);
    EXPECT_FALSE(spares.isEmpty());
    takeSmallOnes(spares, 1);
    queues.pop(result);
    EXPECT_TRUE(spares.isEmpty());
}

TEST_F(SpareMemoryOfTheQueues, isReleasedWhenNoJobAndNoResultIsLeft)
{
    spares.keep(Bytes(large));
    queues.clearPendingJobs();
    queues.push(bytes("job"));
    Bytes job;
    ASSERT_TRUE(queues.takeNextJob(job));
    queues.pushResult(bytes("result"));
    Bytes result;
    ASSERT_TRUE(queues.pop(result));
    EXPECT_FALSE(spares.isEmpty());
    EXPECT_FALSE(queues.pop(result));
    EXPECT_TRUE(spares.isEmpty());
}

TEST_F(SpareMemoryOfTheQueues, isKeptWhileAJobIsLeft)
{
    spares.keep(Bytes(large));
    Bytes result;
    EXPECT_FALSE(queues.pop(result));
    EXPECT_FALSE(spares.isEmpty());
}

TEST_F(SpareMemoryOfTheQueues, isKeptWhileAResultIsLeft)
{
    Bytes job;
    ASSERT_TRUE(queues.takeNextJob(job));
    queues.pushResult(bytes("the only one"));
    spares.keep(Bytes(large));
    Bytes result;
    ASSERT_TRUE(queues.pop(result)); // no job is left, but there was this result
    EXPECT_FALSE(spares.isEmpty());
}

TEST_F(SpareMemoryOfTheQueues, takesAPushedJobWithoutFreshMemory)
{
    if (!RefusedMemory::isPossible())
        GTEST_SKIP() << "this tool has its own allocator";
    const Bytes job(large, 'x');
    spares.keep(Bytes(large));
    const RefusedMemory refused(large);
    queues.push(job);
    EXPECT_EQ(queues.pendingJobCount(), 2U);
}

struct SpareMemoryOfARecord : WorkerRecordFixture {
    nqSpareMemory& spares = queues.spareMemory();
};

TEST_F(SpareMemoryOfARecord, isWhatItsJobsLeave)
{
    queues.push(Bytes(large));
    queues.push(bytes("next"));
    step();
    answer("result");
    step();
    EXPECT_GE(spares.take(large).capacity(), large);
}

TEST_F(SpareMemoryOfARecord, takesALargeResult)
{
    if (!RefusedMemory::isPossible())
        GTEST_SKIP() << "this tool has its own allocator";
    const std::string result(large, 'y');
    answer(result);
    dispatch();
    spares.keep(Bytes(large));
    {
        const RefusedMemory refused(large);
        step();
    }
    Bytes received;
    ASSERT_TRUE(queues.pop(received));
    EXPECT_TRUE(received == bytes(result));
}

} // namespace
