#include "nqNamedPipe.h"

#include "pipe_helpers.h"

#include <algorithm>
#include <memory>

using namespace pipe_test;
using nq::nqNamedPipe;

// Payloads that travel from and into their own memory.

namespace {

constexpr std::size_t large = mebibyte / 4;
constexpr std::size_t readAtOnce = std::size_t{36} << 10; // what one read takes into the buffer
constexpr std::size_t smallestRange = std::size_t{8} << 10;

std::string letters(std::size_t count, char first = 'a')
{
    std::string bytes(count, ' ');
    for (std::size_t i = 0; i < count; ++i)
        bytes[i] = static_cast<char>(first + static_cast<char>(i % 26));
    return bytes;
}

class NamedPipePayload : public LeavesNothingBehind {
protected:
    nqNamedPipe& pipe()
    {
        return *mLink->mPipe;
    }

    Descriptor& peer()
    {
        return mLink->mPeer;
    }

    void SetUp() override
    {
        LeavesNothingBehind::SetUp();
        mLink = std::make_unique<PipeToRawSocket>();
        ASSERT_TRUE(mLink->mPipe);
    }

    void TearDown() override
    {
        mLink.reset();
        LeavesNothingBehind::TearDown();
    }

    /// What arrives at the peer while the pipe works, until it is `count` bytes.
    std::string received(std::size_t count)
    {
        std::string all;
        while (all.size() < count) {
            pipe().processNamedPipeEvents(0, false);
            const std::string piece = rawReceive(peer());
            if (piece.empty())
                break;
            all += piece;
        }
        return all;
    }

    void peerSends(const std::string& bytes)
    {
        ASSERT_TRUE(rawSend(peer(), bytes));
    }

private:
    std::unique_ptr<PipeToRawSocket> mLink;
};

// A peer that leaves bytes unread resets the connection, which ends it like a hang-up.
TEST_F(NamedPipePayload, isKnownToBeTheLastOfAPeerThatHasLeftBytesUnread)
{
    for (const std::size_t size : {readAtOnce - 1, readAtOnce, readAtOnce + smallestRange}) {
        PipeToRawSocket other;
        ASSERT_TRUE(other.mPipe);
        other.mPipe->outgoingBuffer() = {'u', 'n', 'r', 'e', 'a', 'd'};
        other.mPipe->processNamedPipeEvents(0, false);
        ASSERT_TRUE(rawSend(other.mPeer, letters(size)));
        other.mPeer.close();
        other.mPipe->processNamedPipeEvents(0, false);
        other.mPipe->incomingBuffer().clear();
        std::string rest(smallestRange, '-');
        other.mPipe->fill(rest.data(), rest.size());
        other.mPipe->takeFilled();
        EXPECT_FALSE(other.mPipe->isConnected()) << size;
    }
}

TEST_F(NamedPipePayload, isReceivedInTheCallThatBringsItsFirstBytes)
{
    const std::string sent = letters(2 * readAtOnce);
    peerSends(sent);
    pipe().processNamedPipeEvents(0, false);
    EXPECT_EQ(pipe().incomingBuffer().size(), readAtOnce);
    pipe().incomingBuffer().clear();
    std::string payload(readAtOnce, '-');
    pipe().fill(payload.data(), payload.size());
    EXPECT_EQ(pipe().takeFilled(), payload.size());
    EXPECT_EQ(payload, sent.substr(readAtOnce));
}

TEST_F(NamedPipePayload, isNotReceivedInACallThatFoundNothingLeft)
{
    peerSends("head");
    pipe().processNamedPipeEvents(0, false);
    pipe().incomingBuffer().clear();
    peerSends(letters(readAtOnce));
    std::string payload(large, '-');
    pipe().fill(payload.data(), payload.size());
    EXPECT_EQ(pipe().takeFilled(), 0U);
}

TEST_F(NamedPipePayload, isNotPutIntoAnEarlierRangeWhenItsOwnIsDeclined)
{
    std::string earlier(large, '-');
    pipe().fill(earlier.data(), earlier.size());
    std::string small(1, '-');
    pipe().fill(small.data(), small.size());
    peerSends("bytes");
    pipe().processNamedPipeEvents(0, false);
    EXPECT_EQ(takeAll(pipe()), "bytes");
    EXPECT_EQ(earlier, std::string(large, '-'));
}

} // namespace

TEST_F(NamedPipePayload, isSentFromItsOwnMemoryBehindWhatTheBufferHolds)
{
    std::string payload = letters(large);
    append(pipe().outgoingBuffer(), "head");
    pipe().lend(payload.data(), payload.size());
    EXPECT_EQ(pipe().lentBytes(), large);
    EXPECT_EQ(pipe().unsentBytes(), 4 + large);
    EXPECT_TRUE(pipe().hasPendingWrite());
    payload[0] = 'A'; // it is not a copy that is sent
    const std::string sent = payload;
    EXPECT_EQ(received(4 + large), "head" + sent);
    EXPECT_EQ(pipe().lentBytes(), 0U);
    EXPECT_EQ(pipe().unsentBytes(), 0U);
    EXPECT_FALSE(pipe().hasPendingWrite());
}

TEST_F(NamedPipePayload, isCopiedWhenItIsSmall)
{
    std::string payload = "small";
    pipe().lend(payload.data(), payload.size());
    EXPECT_EQ(pipe().lentBytes(), 0U);
    payload = "other";
    EXPECT_EQ(received(5), "small");
}

TEST_F(NamedPipePayload, isLentSliceBySlice)
{
    const std::string payload = letters(2 * large);
    pipe().lend(payload.data(), large);
    pipe().lend(payload.data() + large, 10);
    EXPECT_EQ(pipe().lentBytes(), large + 10);
    pipe().lend(payload.data() + large + 10, large - 10);
    EXPECT_EQ(pipe().lentBytes(), 2 * large);
    EXPECT_EQ(received(2 * large), payload);
}

TEST_F(NamedPipePayload, keepsItsPlaceBeforeWhatIsSentAfterwards)
{
    const std::string first = letters(large);
    const std::string second = letters(large, 'A');
    pipe().lend(first.data(), first.size());
    pipe().lend("between", 7);
    pipe().lend(second.data(), second.size());
    EXPECT_EQ(pipe().unsentBytes(), 2 * large + 7);
    EXPECT_EQ(received(2 * large + 7), first + "between" + second);
}

TEST_F(NamedPipePayload, mayChangeOnceThePipeHasCopiedIt)
{
    std::string payload = letters(large);
    const std::string before = payload;
    pipe().lend(payload.data(), payload.size());
    pipe().copyLent();
    EXPECT_EQ(pipe().lentBytes(), 0U);
    payload.assign(large, '-');
    EXPECT_EQ(received(large), before);
}

TEST_F(NamedPipePayload, isForgottenWhenThePipeIsClosed)
{
    const std::string payload = letters(large);
    pipe().lend(payload.data(), payload.size());
    pipe().closeNamedPipe();
    EXPECT_EQ(pipe().lentBytes(), 0U);
    EXPECT_EQ(pipe().unsentBytes(), 0U);
    EXPECT_TRUE(rawSeesTheEnd(peer()));
}

TEST_F(NamedPipePayload, isForgottenWhenThePeerTakesNothingAnyMore)
{
    const std::string payload = letters(large);
    ASSERT_EQ(::shutdown(peer().get(), SHUT_RD), 0);
    pipe().lend(payload.data(), payload.size());
    pipe().processNamedPipeEvents(0, false);
    EXPECT_EQ(pipe().lentBytes(), 0U);
    EXPECT_TRUE(pipe().isWriteChannelClosed());
    EXPECT_TRUE(pipe().isConnected());
}

TEST_F(NamedPipePayload, isReceivedIntoItsOwnMemory)
{
    std::string payload(large, '-');
    pipe().fill(payload.data(), payload.size());
    peerSends(letters(1000));
    pipe().processNamedPipeEvents(0, false);
    EXPECT_EQ(pipe().untakenBytes(), 1000U);
    EXPECT_TRUE(pipe().incomingBuffer().empty());
    EXPECT_EQ(payload.substr(0, 1000), letters(1000));
    EXPECT_EQ(pipe().takeFilled(), 1000U);
    EXPECT_EQ(pipe().untakenBytes(), 0U);
    EXPECT_EQ(pipe().takeFilled(), 0U);
}

TEST_F(NamedPipePayload, growsFromCallToCall)
{
    std::string payload(large, '-');
    pipe().fill(payload.data(), payload.size());
    std::size_t taken = 0;
    while (taken < large) {
        const std::size_t count = std::min<std::size_t>(100'000, large - taken);
        peerSends(letters(large).substr(taken, count));
        pipe().processNamedPipeEvents(0, false);
        const std::size_t now = pipe().takeFilled();
        ASSERT_EQ(now, count);
        taken += now;
    }
    EXPECT_EQ(payload, letters(large));
}

TEST_F(NamedPipePayload, leavesTheBytesBehindItToTheBuffer)
{
    std::string payload(large, '-');
    pipe().fill(payload.data(), payload.size());
    Child sender([&] { return rawSend(peer(), letters(large) + "next") ? 0 : 1; });
    ASSERT_TRUE(pumpUntil(pipe(), [&] { return pipe().untakenBytes() == large + 4; }));
    EXPECT_EQ(text(pipe().incomingBuffer()), "next");
    EXPECT_EQ(pipe().takeFilled(), large);
    EXPECT_EQ(payload, letters(large));
    EXPECT_EQ(sender.wait(), 0);
}

TEST_F(NamedPipePayload, isLeftToTheBufferWhenItIsSmall)
{
    std::string payload(10, '-');
    pipe().fill(payload.data(), payload.size());
    peerSends("0123456789");
    pipe().processNamedPipeEvents(0, false);
    EXPECT_EQ(text(pipe().incomingBuffer()), "0123456789");
    EXPECT_EQ(payload, "----------");
}

TEST_F(NamedPipePayload, goesToTheFrontOfTheBufferWhenItsMemoryIsTakenBack)
{
    std::string payload(large, '-');
    pipe().fill(payload.data(), payload.size());
    peerSends("some, ");
    pipe().processNamedPipeEvents(0, false);
    pipe().stopFilling();
    payload.assign(large, '-');
    peerSends("more");
    pipe().processNamedPipeEvents(0, false);
    EXPECT_EQ(takeAll(pipe()), "some, more");
    EXPECT_EQ(pipe().takeFilled(), 0U);
    EXPECT_EQ(payload, std::string(large, '-'));
}

TEST_F(NamedPipePayload, hidesTheEndUntilItIsTaken)
{
    std::string payload(large, '-');
    pipe().fill(payload.data(), payload.size());
    peerSends("last words");
    peer().close();
    pipe().processNamedPipeEvents(0, false);
    EXPECT_TRUE(pipe().isConnected());
    EXPECT_FALSE(pipe().isReadChannelClosed());
    EXPECT_EQ(pipe().takeFilled(), 10U);
    EXPECT_FALSE(pipe().isConnected());
    EXPECT_TRUE(pipe().isReadChannelClosed());
}

TEST_F(NamedPipePayload, doesNotHideTheEndForGoodWhenNobodyTakesIt)
{
    std::string payload(large, '-');
    pipe().fill(payload.data(), payload.size());
    peerSends("junk");
    peer().close();
    pipe().processNamedPipeEvents(0, false);
    pipe().processNamedPipeEvents(0, false);
    EXPECT_FALSE(pipe().isConnected());
    EXPECT_EQ(pipe().untakenBytes(), 0U);
}

TEST_F(NamedPipePayload, isReceivedInBoundedSteps)
{
    std::string payload(64 * mebibyte, '-');
    pipe().fill(payload.data(), payload.size());
    Child flood([&] {
        const std::string bytes(mebibyte, 'x');
        while (rawSend(peer(), bytes))
            continue;
        return 0;
    });
    for (int pass = 0; pass < 20; ++pass) {
        pipe().processNamedPipeEvents(0, false);
        EXPECT_LE(pipe().takeFilled(), mebibyte);
    }
}

// A message as large as one read must not leave the end behind it unseen: a worker that has
// answered and left would be given another job.
TEST_F(NamedPipePayload, ofAnySizeIsKnownToBeTheLastInTheCallThatBringsIt)
{
    for (std::size_t size = 1; size <= large / 2; size *= 2) {
        PipeToRawSocket other;
        ASSERT_TRUE(other.mPipe);
        ASSERT_TRUE(rawSend(other.mPeer, letters(size)));
        other.mPeer.close();
        other.mPipe->processNamedPipeEvents(0, false);
        if (other.mPipe->incomingBuffer().size() < size) {
            std::string rest(size - other.mPipe->incomingBuffer().size(), '-');
            other.mPipe->incomingBuffer().clear();
            other.mPipe->fill(rest.data(), rest.size());
            EXPECT_EQ(other.mPipe->takeFilled(), rest.size());
        }
        other.mPipe->incomingBuffer().clear();
        EXPECT_FALSE(other.mPipe->isConnected()) << size;
    }
}
