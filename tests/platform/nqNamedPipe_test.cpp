#include "nqNamedPipe.h"

#include "pipe_helpers.h"

#include <algorithm>
#include <fstream>
#include <random>

using namespace pipe_test;
using nq::nqNamedPipe;
using nq::nqNamedPipeServer;

namespace {

class NamedPipe : public LeavesNothingBehind {};

void expectAsNeverConnected(const nqNamedPipe& pipe)
{
    EXPECT_TRUE(pipe.isReadChannelClosed());
    EXPECT_FALSE(pipe.isConnected());
    EXPECT_TRUE(pipe.isWriteChannelClosed());
    EXPECT_FALSE(pipe.hasPendingWrite());
    EXPECT_EQ(pipe.getSocket(), -1);
    EXPECT_TRUE(pipe.incomingBuffer().empty());
    EXPECT_TRUE(pipe.outgoingBuffer().empty());
}

void expectOpen(const nqNamedPipe& pipe)
{
    EXPECT_FALSE(pipe.isReadChannelClosed());
    EXPECT_TRUE(pipe.isConnected());
    EXPECT_FALSE(pipe.isWriteChannelClosed());
    EXPECT_FALSE(pipe.hasPendingWrite());
    EXPECT_GE(pipe.getSocket(), 0);
}

// Fills the kernel's buffer towards a peer that reads nothing, until bytes stay pending.
void pumpUntilTheKernelIsFull(nqNamedPipe& pipe)
{
    while (!pipe.hasPendingWrite()) {
        pipe.outgoingBuffer().resize(pipe.outgoingBufferLimit());
        pipe.processNamedPipeEvents(0, false);
    }
}

std::vector<char> randomBytes(std::size_t count)
{
    std::mt19937_64 generator(count);
    std::vector<char> bytes(count);
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(generator()); });
    return bytes;
}

// Hands over as much of `payload` as the outgoing buffer has room for.
void post(nqNamedPipe& pipe, const std::vector<char>& payload, std::size_t& posted)
{
    auto& buffer = pipe.outgoingBuffer();
    const auto room = static_cast<std::size_t>(pipe.outgoingBufferLimit()) - buffer.size();
    const auto begin = payload.begin() + static_cast<std::ptrdiff_t>(posted);
    const std::size_t count = std::min(room, payload.size() - posted);
    buffer.insert(buffer.end(), begin, begin + static_cast<std::ptrdiff_t>(count));
    posted += count;
}

// Takes what has come and compares it with the place in `payload` where it belongs.
bool collect(nqNamedPipe& pipe, const std::vector<char>& payload, std::size_t& collected)
{
    auto& buffer = pipe.incomingBuffer();
    if (collected + buffer.size() > payload.size())
        return false;
    const bool same = std::memcmp(buffer.data(), payload.data() + collected, buffer.size()) == 0 ||
                      buffer.empty();
    collected += buffer.size();
    buffer.clear();
    return same;
}

} // namespace

TEST_F(NamedPipe, startsNotConnected)
{
    const nqNamedPipe pipe;
    expectAsNeverConnected(pipe);
}

TEST_F(NamedPipe, isOpenInBothDirectionsOnceConnected)
{
    PipePair pair;
    ASSERT_TRUE(pair.mServerSide);
    expectOpen(pair.mClient);
    expectOpen(*pair.mServerSide);
}

TEST_F(NamedPipe, carriesBytesInBothDirections)
{
    PipePair pair;
    ASSERT_TRUE(pair.mServerSide);
    append(pair.mClient.outgoingBuffer(), "from the client");
    append(pair.mServerSide->outgoingBuffer(), "from the server");
    pair.mClient.processNamedPipeEvents(0, false);
    pair.mServerSide->processNamedPipeEvents(0, false);
    pair.mClient.processNamedPipeEvents(0, false);
    EXPECT_EQ(text(pair.mServerSide->incomingBuffer()), "from the client");
    EXPECT_EQ(text(pair.mClient.incomingBuffer()), "from the server");
}

TEST_F(NamedPipe, movesBytesOnlyWhenItIsCalled)
{
    PipePair pair;
    ASSERT_TRUE(pair.mServerSide);
    append(pair.mClient.outgoingBuffer(), "later");
    EXPECT_TRUE(pair.mClient.hasPendingWrite());
    pair.mServerSide->processNamedPipeEvents(0, false);
    EXPECT_TRUE(pair.mServerSide->incomingBuffer().empty());
}

TEST_F(NamedPipe, appendsToBytesThatNobodyHasTakenYet)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    ASSERT_TRUE(rawSend(link.mPeer, "ab"));
    link.mPipe->processNamedPipeEvents(0, false);
    ASSERT_TRUE(rawSend(link.mPeer, "cd"));
    link.mPipe->processNamedPipeEvents(0, false);
    EXPECT_EQ(text(link.mPipe->incomingBuffer()), "abcd");
}

TEST_F(NamedPipe, refusesAnEmptyName)
{
    nqNamedPipe pipe;
    EXPECT_FALSE(pipe.connectToNamedPipeServerUtf8(""));
    expectAsNeverConnected(pipe);
}

TEST_F(NamedPipe, takesANameOf107BytesAndRefusesOneMore)
{
    std::string name = freshName();
    name.resize(107, 'x');
    nqNamedPipeServer server;
    ASSERT_TRUE(server.listenUtf8(name));
    nqNamedPipe pipe;
    EXPECT_FALSE(pipe.connectToNamedPipeServerUtf8(name + 'x'));
    EXPECT_TRUE(pipe.connectToNamedPipeServerUtf8(name));
}

TEST_F(NamedPipe, takesTheNameByItsExactLength)
{
    const std::string name = freshName();
    nqNamedPipeServer server;
    ASSERT_TRUE(server.listenUtf8(name));
    nqNamedPipe pipe;
    EXPECT_FALSE(pipe.connectToNamedPipeServerUtf8(name.substr(0, name.size() - 1)));
    EXPECT_FALSE(pipe.connectToNamedPipeServerUtf8(name + std::string(1, '\0')));
}

TEST_F(NamedPipe, staysClosedWhenNobodyListens)
{
    nqNamedPipe pipe;
    EXPECT_FALSE(pipe.connectToNamedPipeServerUtf8(freshName()));
    expectAsNeverConnected(pipe);
}

TEST_F(NamedPipe, closesThePreviousConnectionBeforeItConnectsAgain)
{
    PipePair pair;
    ASSERT_TRUE(pair.mServerSide);
    EXPECT_FALSE(pair.mClient.connectToNamedPipeServerUtf8(freshName()));
    expectAsNeverConnected(pair.mClient);
    EXPECT_TRUE(pumpUntilClosed(*pair.mServerSide));
}

TEST_F(NamedPipe, connectsAgainAfterAnEnd)
{
    nqNamedPipeServer server;
    const std::string name = freshName();
    ASSERT_TRUE(server.listenUtf8(name));
    nqNamedPipe pipe;
    ASSERT_TRUE(pipe.connectToNamedPipeServerUtf8(name));
    acceptOne(server).reset();
    ASSERT_TRUE(pumpUntilClosed(pipe));
    ASSERT_TRUE(pipe.connectToNamedPipeServerUtf8(name));
    expectOpen(pipe);
}

TEST_F(NamedPipe, dropsAServerOfAnotherUser)
{
    if (!mayChangeUser())
        GTEST_SKIP() << "only root can start a process of another user";
    const std::string name = freshName();
    Event listening;
    Event done;
    Child foreigner([&] {
        nqNamedPipeServer server;
        if (!becomeForeignUser() || !server.listenUtf8(name))
            return 1;
        listening.raise();
        return done.await() ? 0 : 2;
    });
    ASSERT_TRUE(listening.await());
    nqNamedPipe pipe;
    EXPECT_FALSE(pipe.connectToNamedPipeServerUtf8(name));
    expectAsNeverConnected(pipe);
    done.raise();
    EXPECT_EQ(foreigner.wait(), 0);
}

TEST_F(NamedPipe, returnsAtOnceWhenItIsClosed)
{
    nqNamedPipe pipe;
    const auto start = steady_clock::now();
    pipe.processNamedPipeEvents(ampleMs, true);
    EXPECT_LT(elapsedSince(start), milliseconds(ampleMs / 2));
    expectAsNeverConnected(pipe);
}

TEST_F(NamedPipe, waitsOnlyIfAskedToAndIfThereIsTime)
{
    PipePair pair;
    ASSERT_TRUE(pair.mServerSide);
    const auto start = steady_clock::now();
    pair.mClient.processNamedPipeEvents(ampleMs, false);
    pair.mClient.processNamedPipeEvents(0, true);
    pair.mClient.processNamedPipeEvents(-1, true);
    EXPECT_LT(elapsedSince(start), milliseconds(ampleMs / 2));
}

TEST_F(NamedPipe, writesBeforeItWaitsAndDoesNotWaitAfterwards)
{
    PipePair pair;
    ASSERT_TRUE(pair.mServerSide);
    append(pair.mClient.outgoingBuffer(), "x");
    const auto start = steady_clock::now();
    pair.mClient.processNamedPipeEvents(ampleMs, true);
    EXPECT_LT(elapsedSince(start), milliseconds(ampleMs / 2));
    pair.mServerSide->processNamedPipeEvents(0, false);
    EXPECT_EQ(text(pair.mServerSide->incomingBuffer()), "x");
}

TEST_F(NamedPipe, doesNotWaitWhenBytesWereThereToRead)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    ASSERT_TRUE(rawSend(link.mPeer, "x"));
    const auto start = steady_clock::now();
    link.mPipe->processNamedPipeEvents(ampleMs, true);
    EXPECT_LT(elapsedSince(start), milliseconds(ampleMs / 2));
    EXPECT_EQ(text(link.mPipe->incomingBuffer()), "x");
}

TEST_F(NamedPipe, waitsTheWholeTimeWhenNothingHappensAndNothingIsPending)
{
    PipePair pair;
    ASSERT_TRUE(pair.mServerSide);
    const auto start = steady_clock::now();
    pair.mClient.processNamedPipeEvents(60, true);
    EXPECT_GE(elapsedSince(start), milliseconds(60));
    expectOpen(pair.mClient);
}

TEST_F(NamedPipe, waitsTheWholeTimeInAStormOfSignals)
{
    PipePair pair;
    ASSERT_TRUE(pair.mServerSide);
    const SignalStorm storm;
    const auto start = steady_clock::now();
    pair.mClient.processNamedPipeEvents(120, true);
    EXPECT_GE(elapsedSince(start), milliseconds(120));
    EXPECT_LT(elapsedSince(start), milliseconds(ampleMs / 2));
}

TEST_F(NamedPipe, waitsTheWholeTimeAlsoWhenTheWaitBeforeWasShort)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    ASSERT_TRUE(isAnsweredAtOnce(link));
    const auto start = steady_clock::now();
    link.mPipe->processNamedPipeEvents(60, true);
    EXPECT_GE(elapsedSince(start), milliseconds(60));
}

TEST_F(NamedPipe, readsWhatArrivesWhileItWaitsAfterAShortWait)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    for (const int delayMs : {0, 0, 1, 50}) { // the last comes later than a short wait lasts
        Child sender([&] {
            ::poll(nullptr, 0, delayMs);
            return rawSend(link.mPeer, "x") ? 0 : 1;
        });
        link.mPipe->processNamedPipeEvents(ampleMs, true);
        EXPECT_EQ(takeAll(*link.mPipe), "x");
        EXPECT_EQ(sender.wait(), 0);
    }
}

TEST_F(NamedPipe, waitsTheWholeTimeInAStormOfSignalsAlsoWhenTheWaitBeforeWasShort)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    ASSERT_TRUE(isAnsweredAtOnce(link));
    const SignalStorm storm;
    const auto start = steady_clock::now();
    link.mPipe->processNamedPipeEvents(120, true);
    EXPECT_GE(elapsedSince(start), milliseconds(120));
    EXPECT_LT(elapsedSince(start), milliseconds(ampleMs / 2));
}

TEST_F(NamedPipe, readsWhatArrivesWhileItWaits)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    Child sender([&] { return rawSend(link.mPeer, "x") ? 0 : 1; });
    link.mPipe->processNamedPipeEvents(ampleMs, true);
    EXPECT_EQ(text(link.mPipe->incomingBuffer()), "x");
    EXPECT_EQ(sender.wait(), 0);
}

TEST_F(NamedPipe, findsWhatArrivesAfterACallThatOnlyWrote)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    link.mPipe->processNamedPipeEvents(0, false); // finds nothing
    append(link.mPipe->outgoingBuffer(), "question");
    link.mPipe->processNamedPipeEvents(0, false);
    ASSERT_EQ(rawReceive(link.mPeer), "question");
    ASSERT_TRUE(rawSend(link.mPeer, "x"));
    link.mPipe->processNamedPipeEvents(0, false);
    EXPECT_EQ(text(link.mPipe->incomingBuffer()), "x");
}

TEST_F(NamedPipe, findsWhatCrossedTheBytesThatItWrote)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    link.mPipe->processNamedPipeEvents(0, false); // finds nothing
    ASSERT_TRUE(rawSend(link.mPeer, "x"));
    append(link.mPipe->outgoingBuffer(), "question");
    link.mPipe->processNamedPipeEvents(0, false);
    link.mPipe->processNamedPipeEvents(0, false);
    EXPECT_EQ(text(link.mPipe->incomingBuffer()), "x");
    EXPECT_EQ(rawReceive(link.mPeer), "question");
}

TEST_F(NamedPipe, doesNotWaitForWhatArrivedSinceItFoundNothing)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    const auto start = steady_clock::now();
    // Waits in vain first, a few more each time, so that a wait may do without looking.
    for (int inVain = 0; inVain < 6; ++inVain) {
        for (int i = 0; i < inVain; ++i)
            link.mPipe->processNamedPipeEvents(1, true);
        ASSERT_TRUE(rawSend(link.mPeer, "x"));
        link.mPipe->processNamedPipeEvents(ampleMs, true);
        EXPECT_EQ(takeAll(*link.mPipe), "x");
    }
    EXPECT_LT(elapsedSince(start), milliseconds(ampleMs / 2));
}

TEST_F(NamedPipe, doesNotWaitForTheAnswerThatArrivedSinceItWrote)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    link.mPipe->processNamedPipeEvents(0, false); // finds nothing
    const auto start = steady_clock::now();
    append(link.mPipe->outgoingBuffer(), "question");
    link.mPipe->processNamedPipeEvents(ampleMs, true);
    ASSERT_EQ(rawReceive(link.mPeer), "question");
    ASSERT_TRUE(rawSend(link.mPeer, "answer"));
    link.mPipe->processNamedPipeEvents(ampleMs, true);
    EXPECT_EQ(text(link.mPipe->incomingBuffer()), "answer");
    EXPECT_LT(elapsedSince(start), milliseconds(ampleMs / 2));
}

TEST_F(NamedPipe, waitsForRoomWhenBytesArePending)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    pumpUntilTheKernelIsFull(*link.mPipe);
    const std::size_t pendingBefore = link.mPipe->outgoingBuffer().size();
    Child reader([&] {
        while (!rawReceive(link.mPeer).empty())
            continue;
        return 0;
    });
    const auto start = steady_clock::now();
    link.mPipe->processNamedPipeEvents(ampleMs, true);
    EXPECT_LT(elapsedSince(start), milliseconds(ampleMs / 2));
    EXPECT_LT(link.mPipe->outgoingBuffer().size(), pendingBefore);
    link.mPipe->closeNamedPipe();
    EXPECT_EQ(reader.wait(), 0);
}

TEST_F(NamedPipe, keepsWhatThePeerHasNoRoomForInOrder)
{
    PipePair pair;
    ASSERT_TRUE(pair.mServerSide);
    const auto payload = randomBytes(8 * mebibyte);
    std::size_t posted = 0;
    std::size_t collected = 0;
    while (collected < payload.size()) {
        post(pair.mClient, payload, posted);
        pair.mClient.processNamedPipeEvents(0, false);
        EXPECT_EQ(pair.mClient.hasPendingWrite(), !pair.mClient.outgoingBuffer().empty());
        pair.mServerSide->processNamedPipeEvents(0, false);
        ASSERT_TRUE(collect(*pair.mServerSide, payload, collected));
    }
    EXPECT_FALSE(pair.mClient.hasPendingWrite());
}

TEST_F(NamedPipe, carriesLargePayloadsBothWaysAtOnce)
{
    PipePair pair;
    ASSERT_TRUE(pair.mServerSide);
    const auto payload = randomBytes(64 * mebibyte);
    std::size_t postedThere = 0;
    std::size_t postedBack = 0;
    std::size_t collectedThere = 0;
    std::size_t collectedBack = 0;
    while (collectedThere < payload.size() || collectedBack < payload.size()) {
        post(pair.mClient, payload, postedThere);
        pair.mClient.processNamedPipeEvents(0, false);
        ASSERT_TRUE(collect(pair.mClient, payload, collectedBack));
        post(*pair.mServerSide, payload, postedBack);
        pair.mServerSide->processNamedPipeEvents(0, false);
        ASSERT_TRUE(collect(*pair.mServerSide, payload, collectedThere));
    }
}

TEST_F(NamedPipe, readsThoughEveryCallHasSomethingToWrite)
{
    PipePair pair;
    ASSERT_TRUE(pair.mServerSide);
    pair.mServerSide->processNamedPipeEvents(0, false); // leaves the socket dry
    append(pair.mClient.outgoingBuffer(), "question");
    pair.mClient.processNamedPipeEvents(0, false);
    for (int call = 0; call < 2; ++call) {
        append(pair.mServerSide->outgoingBuffer(), "talk");
        pair.mServerSide->processNamedPipeEvents(0, false);
    }
    EXPECT_EQ(text(pair.mServerSide->incomingBuffer()), "question");
}

TEST_F(NamedPipe, carriesALargePayloadThatArrivesInSmallPieces)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    std::string received;
    for (int i = 0; i < 1'000; ++i) {
        ASSERT_TRUE(rawSend(link.mPeer, std::string(1, static_cast<char>('a' + i % 26))));
        link.mPipe->processNamedPipeEvents(ampleMs, true);
        received += takeAll(*link.mPipe);
    }
    ASSERT_EQ(received.size(), 1'000U);
    EXPECT_EQ(received.substr(0, 27), "abcdefghijklmnopqrstuvwxyza");
}

TEST_F(NamedPipe, hasAnOutgoingLimitThatTakesAMebibyteAndItsHeaderAtOnce)
{
    const nqNamedPipe pipe;
    EXPECT_GE(pipe.outgoingBufferLimit(), mebibyte + 4);
    EXPECT_LE(pipe.outgoingBufferLimit(), 2 * mebibyte);
}

TEST_F(NamedPipe, asksTheKernelForABufferThatTakesSeveralOutgoingBuffers)
{
    PipePair pair;
    ASSERT_TRUE(pair.mServerSide);
    std::size_t systemMaximum = 0;
    std::ifstream("/proc/sys/net/core/wmem_max") >> systemMaximum;
    const std::size_t granted = std::min(mebibyte, systemMaximum);
    for (const int socket : {pair.mClient.getSocket(), pair.mServerSide->getSocket()}) {
        int bytes = 0;
        socklen_t size = sizeof bytes;
        ASSERT_EQ(::getsockopt(socket, SOL_SOCKET, SO_SNDBUF, &bytes, &size), 0);
        EXPECT_GE(static_cast<std::size_t>(bytes), granted);
    }
}

TEST_F(NamedPipe, readsABoundedNumberOfBytesFromAPeerThatFloodsIt)
{
    PipePair pair;
    ASSERT_TRUE(pair.mServerSide);
    std::size_t before = 0;
    for (int pass = 0; pass < 100; ++pass) {
        pumpUntilTheKernelIsFull(pair.mClient);
        pair.mServerSide->processNamedPipeEvents(0, false);
        const std::size_t now = pair.mServerSide->incomingBuffer().size();
        EXPECT_LE(now - before, incomingLimit / 2);
        before = now;
    }
    EXPECT_EQ(pair.mServerSide->incomingBuffer().size(), incomingLimit);
    EXPECT_TRUE(pair.mServerSide->isConnected());
}

TEST_F(NamedPipe, isNotWaitedOnWhileItsIncomingBufferIsFull)
{
    PipePair pair;
    ASSERT_TRUE(pair.mServerSide);
    while (pair.mServerSide->incomingBuffer().size() < incomingLimit) {
        pumpUntilTheKernelIsFull(pair.mClient);
        pair.mServerSide->processNamedPipeEvents(0, false);
    }
    EXPECT_EQ(pair.mServerSide->getSocket(), -1);
    take(*pair.mServerSide, 1);
    EXPECT_GE(pair.mServerSide->getSocket(), 0);
}

TEST_F(NamedPipe, waitsAlsoWhileItsIncomingBufferIsFull)
{
    PipePair pair;
    ASSERT_TRUE(pair.mServerSide);
    while (pair.mServerSide->incomingBuffer().size() < incomingLimit) {
        pumpUntilTheKernelIsFull(pair.mClient);
        pair.mServerSide->processNamedPipeEvents(0, false);
    }
    const auto start = steady_clock::now();
    pair.mServerSide->processNamedPipeEvents(60, true);
    EXPECT_GE(elapsedSince(start), milliseconds(60));
    EXPECT_TRUE(pair.mServerSide->isConnected());
}

TEST_F(NamedPipe, isAsNeverConnectedAfterItWasClosed)
{
    PipePair pair;
    ASSERT_TRUE(pair.mServerSide);
    append(pair.mServerSide->outgoingBuffer(), "unread");
    pair.mServerSide->processNamedPipeEvents(0, false);
    pair.mClient.processNamedPipeEvents(0, false);
    append(pair.mClient.outgoingBuffer(), "unsent");
    pair.mClient.closeNamedPipe();
    expectAsNeverConnected(pair.mClient);
    pair.mClient.closeNamedPipe();
    expectAsNeverConnected(pair.mClient);
}

TEST_F(NamedPipe, sendsNothingWhenItIsClosed)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    append(link.mPipe->outgoingBuffer(), "half a result");
    link.mPipe->closeNamedPipe();
    EXPECT_EQ(rawReceive(link.mPeer), "");
    EXPECT_TRUE(rawSeesTheEnd(link.mPeer));
}

TEST_F(NamedPipe, isClosedWithoutTakingBackWhatItHasSent)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    append(link.mPipe->outgoingBuffer(), "farewell");
    link.mPipe->processNamedPipeEvents(0, false);
    link.mPipe->closeNamedPipe();
    EXPECT_EQ(rawReceive(link.mPeer), "farewell");
}

TEST_F(NamedPipe, closesWithoutBlockingWhenThePeerReadsNothing)
{
    PipePair pair;
    ASSERT_TRUE(pair.mServerSide);
    pumpUntilTheKernelIsFull(pair.mClient);
    const auto start = steady_clock::now();
    pair.mClient.closeNamedPipe();
    EXPECT_LT(elapsedSince(start), milliseconds(ampleMs / 2));
    expectAsNeverConnected(pair.mClient);
}

TEST_F(NamedPipe, endsTheStreamEvenIfSomebodyHoldsACopyOfItsSocket)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    const Descriptor copy(::dup(link.mPipe->getSocket()));
    link.mPipe->closeNamedPipe();
    EXPECT_TRUE(rawSeesTheEnd(link.mPeer));
}

TEST_F(NamedPipe, endsTheStreamWhenItIsDestroyed)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    append(link.mPipe->outgoingBuffer(), "unsent");
    link.mPipe.reset();
    EXPECT_EQ(rawReceive(link.mPeer), "");
    EXPECT_TRUE(rawSeesTheEnd(link.mPeer));
}
