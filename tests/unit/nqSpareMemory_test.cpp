#include "tests/common/refusedMemory.h"
#include "tests/unit/workerRecordFixture.h"

using common::RefusedMemory;
using namespace support;

namespace {

constexpr std::size_t large = std::size_t{64} << 10;

struct SpareMemory : testing::Test {
    nq::nqJobQueues queues;

    SpareMemory()
    {
        queues.push(bytes("keeps the queues from being at rest"));
    }
};

TEST_F(SpareMemory, ofALargePayloadServesTheNextOfAboutItsSize)
{
    Bytes payload(large);
    const char* const memory = payload.data();
    queues.recycle(std::move(payload));
    EXPECT_EQ(queues.takeSpare(large - large / 4).data(), memory);
}

TEST_F(SpareMemory, isNotWastedOnAMuchSmallerPayload)
{
    queues.recycle(Bytes(large));
    EXPECT_EQ(queues.takeSpare(large / 2 - 1).capacity(), 0U);
    EXPECT_EQ(queues.takeSpare(large + 1).capacity(), 0U);
    EXPECT_GE(queues.takeSpare(large).capacity(), large);
    queues.recycle(Bytes(large));
    EXPECT_GE(queues.takeSpare(large / 2).capacity(), large);
}

TEST_F(SpareMemory, ofASmallPayloadIsLeftToTheAllocator)
{
    queues.recycle(Bytes(large - 1));
    EXPECT_EQ(queues.takeSpare(large - 1).capacity(), 0U);
}

TEST_F(SpareMemory, isKeptForTheLatestFewPayloadsOnly)
{
    for (std::size_t i = 0; i < 5; ++i)
        queues.recycle(Bytes(large + i));
    for (std::size_t i = 4; i > 0; --i)
        EXPECT_EQ(queues.takeSpare(large).capacity(), large + i);
    EXPECT_EQ(queues.takeSpare(large).capacity(), 0U);
}

TEST_F(SpareMemory, isNotPushedOutByASmallPayload)
{
    for (int i = 0; i < 4; ++i)
        queues.recycle(Bytes(large));
    queues.recycle(Bytes(large - 1));
    for (int i = 0; i < 4; ++i)
        EXPECT_GE(queues.takeSpare(large).capacity(), large);
}

TEST_F(SpareMemory, leavesItsPlaceToAnotherWhenItIsTaken)
{
    for (std::size_t i = 0; i < 4; ++i)
        queues.recycle(Bytes(large + i));
    EXPECT_EQ(queues.takeSpare(large).capacity(), large + 3);
    queues.recycle(Bytes(large + 4));
    for (const std::size_t more : {4U, 2U, 1U, 0U})
        EXPECT_EQ(queues.takeSpare(large).capacity(), large + more);
}

TEST_F(SpareMemory, isWhatAPoppedIntoVectorHeldBefore)
{
    const Bytes result(large, 'r');
    queues.pushResult(result);
    Bytes popped(2 * large);
    ASSERT_TRUE(queues.pop(popped));
    EXPECT_TRUE(popped == result);
    EXPECT_GE(queues.takeSpare(2 * large).capacity(), 2 * large);
}

TEST_F(SpareMemory, isNotWhatAPoppedIntoVectorHeldOfMuchLargerPayloads)
{
    queues.pushResult(Bytes(large));
    Bytes popped(2 * large + 2);
    ASSERT_TRUE(queues.pop(popped));
    EXPECT_EQ(queues.takeSpare(2 * large + 2).capacity(), 0U);
}

TEST_F(SpareMemory, isGivenBackWhenManyPayloadsInARowHadNoUseForIt)
{
    queues.recycle(Bytes(large));
    for (int i = 0; i < 63; ++i)
        EXPECT_EQ(queues.takeSpare(1).capacity(), 0U);
    EXPECT_GE(queues.takeSpare(large).capacity(), large);
    queues.recycle(Bytes(large));
    for (int i = 0; i < 64; ++i)
        EXPECT_EQ(queues.takeSpare(1).capacity(), 0U);
    EXPECT_EQ(queues.takeSpare(large).capacity(), 0U);
}

TEST_F(SpareMemory, isKeptWhenPayloadsWithoutUseForItAndFreshSparesTakeTurns)
{
    for (int turn = 0; turn < 2; ++turn) {
        queues.recycle(Bytes(large));
        for (int i = 0; i < 63; ++i)
            EXPECT_EQ(queues.takeSpare(1).capacity(), 0U);
    }
    EXPECT_GE(queues.takeSpare(large).capacity(), large);
}

TEST_F(SpareMemory, neverCostsAResultWhenThereIsNoMemory)
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

TEST_F(SpareMemory, neverShowsItsOldBytesInAJob)
{
    queues.recycle(Bytes(large, 'o'));
    queues.clearPendingJobs();
    const Bytes pushed(large - 1, 'n');
    queues.push(pushed);
    Bytes job;
    ASSERT_TRUE(queues.takeNextJob(job));
    EXPECT_TRUE(job == pushed);
}

TEST_F(SpareMemory, isGivenBackWhenNoJobAndNoResultIsLeft)
{
    queues.recycle(Bytes(large));
    queues.clearPendingJobs();
    queues.push(bytes("job"));
    Bytes job;
    ASSERT_TRUE(queues.takeNextJob(job));
    queues.pushResult(bytes("result"));
    Bytes result;
    ASSERT_TRUE(queues.pop(result));
    EXPECT_FALSE(queues.pop(result));
    EXPECT_EQ(queues.takeSpare(large).capacity(), 0U);
}

TEST_F(SpareMemory, isKeptWhileAJobIsLeft)
{
    queues.recycle(Bytes(large));
    Bytes result;
    EXPECT_FALSE(queues.pop(result));
    EXPECT_GE(queues.takeSpare(large).capacity(), large);
}

TEST_F(SpareMemory, isKeptWhileAResultIsLeft)
{
    Bytes job;
    ASSERT_TRUE(queues.takeNextJob(job));
    queues.pushResult(bytes("the only one"));
    queues.recycle(Bytes(large));
    Bytes result;
    ASSERT_TRUE(queues.pop(result)); // no job is left, but there was this result
    EXPECT_GE(queues.takeSpare(large).capacity(), large);
}

TEST_F(SpareMemory, takesAPushedJobWithoutFreshMemory)
{
    if (!RefusedMemory::isPossible())
        GTEST_SKIP() << "this tool has its own allocator";
    const Bytes job(large, 'x');
    queues.recycle(Bytes(large));
    const RefusedMemory refused(large);
    queues.push(job);
    EXPECT_EQ(queues.pendingJobCount(), 2U);
}

struct SpareMemoryOfARecord : WorkerRecordFixture {};

TEST_F(SpareMemoryOfARecord, isWhatItsJobsLeave)
{
    queues.push(Bytes(large));
    queues.push(bytes("next"));
    step();
    answer("result");
    step();
    EXPECT_GE(queues.takeSpare(large).capacity(), large);
}

TEST_F(SpareMemoryOfARecord, takesALargeResult)
{
    if (!RefusedMemory::isPossible())
        GTEST_SKIP() << "this tool has its own allocator";
    const std::string result(large, 'y');
    answer(result);
    dispatch();
    queues.recycle(Bytes(large));
    {
        const RefusedMemory refused(large);
        step();
    }
    Bytes received;
    ASSERT_TRUE(queues.pop(received));
    EXPECT_TRUE(received == bytes(result));
}

} // namespace
