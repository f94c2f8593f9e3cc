#include "nqNamedPipe.h"

#include "pipe_helpers.h"

#include <optional>

using namespace pipe_test;
using nq::nqNamedPipe;
using nq::nqNamedPipeServer;

namespace {

class NamedPipeEnd : public LeavesNothingBehind {};

void expectClosed(const nqNamedPipe& pipe)
{
    EXPECT_TRUE(pipe.isReadChannelClosed());
    EXPECT_FALSE(pipe.isConnected());
    EXPECT_TRUE(pipe.isWriteChannelClosed());
    EXPECT_FALSE(pipe.hasPendingWrite());
    EXPECT_EQ(pipe.getSocket(), -1);
}

// Puts more into the kernel than an incoming buffer holds. The socket must not block.
std::size_t sendMoreThanABufferHolds(const Descriptor& peer)
{
    const std::string piece(64 << 10, 'j');
    std::size_t sent = 0;
    for (;;) {
        const ssize_t count =
            ::send(peer.get(), piece.data(), piece.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0)
            return sent;
        sent += static_cast<std::size_t>(count);
    }
}

// A connection whose peer is full of junk and gone, and whose incoming buffer is full.
struct FloodedByADeadPeer {
    FloodedByADeadPeer()
    {
        const int bytes = 4 << 20;
        ::setsockopt(mLink.mPeer.get(), SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof bytes);
        ::setsockopt(mLink.mPeer.get(), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
        while (mLink.mPipe->incomingBuffer().size() < incomingLimit) {
            mSent += sendMoreThanABufferHolds(mLink.mPeer);
            mLink.mPipe->processNamedPipeEvents(0, false);
        }
        mSent += sendMoreThanABufferHolds(mLink.mPeer);
        mLink.mPeer.close();
    }

    PipeToRawSocket mLink;
    std::size_t mSent = 0;
};

// A worker that has died while somebody else, here the test itself, holds its socket open.
class DeadPeerWithLivingSocket {
public:
    explicit DeadPeerWithLivingSocket(bool isLastDescriptorForThePipe = false)
    {
        const DescriptorLimit limit;
        nqNamedPipe().closeNamedPipe(); // a sanitizer that meets a class needs descriptors itself
        nqNamedPipeServer server;
        const std::string name = freshName();
        if (!server.listenUtf8(name))
            return;
        mWorker.emplace([&] {
            if (!rawConnect(mSocket, name) || !mMayDie.await())
                return 1;
            return rawSend(mSocket, "last words") ? 0 : 2;
        });
        if (!isLastDescriptorForThePipe || limit.exhaustButOne())
            mPipe = acceptOne(server);
    }

    void letDie()
    {
        mMayDie.raise();
        EXPECT_EQ(mWorker->wait(), 0);
    }

    nqNamedPipe& pipe()
    {
        return *mPipe;
    }

    // Dies while the pipe waits, so that nothing but its death can be what ends the wait.
    void letDieSoon()
    {
        mMayDie.raise();
    }

    void killIt() const
    {
        mWorker->kill();
    }

    const Descriptor& socket() const
    {
        return mSocket;
    }

private:
    Descriptor mSocket = rawSocket();
    Event mMayDie;
    // Not on the heap: to a leak checker the copy in the child would have no owner.
    std::optional<Child> mWorker;
    std::unique_ptr<nqNamedPipe> mPipe;
};

} // namespace

TEST_F(NamedPipeEnd, isNoticedAtOnceWhenNothingIsLeftToTake)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    link.mPeer.close();
    link.mPipe->processNamedPipeEvents(0, false);
    expectClosed(*link.mPipe);
}

TEST_F(NamedPipeEnd, isNewsForWhichAWaitingCallReturns)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    link.mPeer.close();
    const auto start = steady_clock::now();
    link.mPipe->processNamedPipeEvents(ampleMs, true);
    EXPECT_LT(elapsedSince(start), milliseconds(ampleMs / 2));
    expectClosed(*link.mPipe);
}

TEST_F(NamedPipeEnd, deliversTheLastBytesOfAPeerThatDiedAtOnce)
{
    nqNamedPipeServer server;
    const std::string name = freshName();
    ASSERT_TRUE(server.listenUtf8(name));
    Child worker([&] {
        nqNamedPipe pipe;
        if (!pipe.connectToNamedPipeServerUtf8(name))
            return 1;
        append(pipe.outgoingBuffer(), "answer");
        pipe.processNamedPipeEvents(0, false);
        ::kill(::getpid(), SIGKILL);
        return 2;
    });
    const auto pipe = acceptOne(server);
    worker.wait();
    ASSERT_TRUE(pipe);
    pipe->processNamedPipeEvents(0, false);
    EXPECT_TRUE(pipe->isConnected());
    EXPECT_FALSE(pipe->isReadChannelClosed());
    EXPECT_EQ(takeAll(*pipe), "answer");
    expectClosed(*pipe);
}

TEST_F(NamedPipeEnd, becomesVisibleInTheMomentWhenTheLastByteIsTaken)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    ASSERT_TRUE(rawSend(link.mPeer, "ab"));
    link.mPeer.close();
    link.mPipe->processNamedPipeEvents(0, false);
    EXPECT_EQ(take(*link.mPipe, 1), "a");
    EXPECT_FALSE(link.mPipe->isReadChannelClosed());
    EXPECT_TRUE(link.mPipe->isConnected());
    EXPECT_EQ(take(*link.mPipe, 1), "b");
    expectClosed(*link.mPipe);
}

TEST_F(NamedPipeEnd, closesForGoodWhenNobodyTakesTheLastBytes)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    ASSERT_TRUE(rawSend(link.mPeer, "junk"));
    link.mPeer.close();
    link.mPipe->processNamedPipeEvents(0, false);
    EXPECT_TRUE(link.mPipe->isConnected());
    link.mPipe->processNamedPipeEvents(0, false);
    expectClosed(*link.mPipe);
    EXPECT_TRUE(link.mPipe->incomingBuffer().empty());
}

TEST_F(NamedPipeEnd, staysHiddenForAsLongAsSomebodyTakesTheLastBytes)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    ASSERT_TRUE(rawSend(link.mPeer, "12345"));
    link.mPeer.close();
    link.mPipe->processNamedPipeEvents(0, false);
    for (const char* expected : {"1", "2", "3", "4"}) {
        EXPECT_EQ(take(*link.mPipe, 1), expected);
        link.mPipe->processNamedPipeEvents(0, false);
        EXPECT_TRUE(link.mPipe->isConnected());
    }
    link.mPipe->processNamedPipeEvents(0, false);
    expectClosed(*link.mPipe);
}

TEST_F(NamedPipeEnd, isNotWaitedBehind)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    ASSERT_TRUE(rawSend(link.mPeer, "ab"));
    link.mPeer.close();
    link.mPipe->processNamedPipeEvents(ampleMs, true);
    take(*link.mPipe, 1);
    const auto start = steady_clock::now();
    link.mPipe->processNamedPipeEvents(ampleMs, true);
    EXPECT_LT(elapsedSince(start), milliseconds(ampleMs / 2));
    EXPECT_TRUE(link.mPipe->isConnected());
}

TEST_F(NamedPipeEnd, leavesTheWriteChannelOpenWhenThePeerOnlyStopsSending)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    ASSERT_TRUE(rawSend(link.mPeer, "question"));
    ASSERT_EQ(::shutdown(link.mPeer.get(), SHUT_WR), 0);
    link.mPipe->processNamedPipeEvents(0, false);
    EXPECT_FALSE(link.mPipe->isWriteChannelClosed());
    take(*link.mPipe, 1);
    append(link.mPipe->outgoingBuffer(), "answer");
    link.mPipe->processNamedPipeEvents(0, false);
    EXPECT_EQ(rawReceive(link.mPeer), "answer");
}

TEST_F(NamedPipeEnd, closesForGoodWhenADeadPeerLeftMoreJunkThanTheBufferHolds)
{
    FloodedByADeadPeer flood;
    ASSERT_GT(flood.mSent, incomingLimit);
    flood.mLink.mPipe->processNamedPipeEvents(0, false);
    expectClosed(*flood.mLink.mPipe);
}

TEST_F(NamedPipeEnd, deliversEveryByteOfADeadPeerThatLeftMoreThanTheBufferHolds)
{
    FloodedByADeadPeer flood;
    std::size_t taken = 0;
    while (flood.mLink.mPipe->isConnected()) {
        taken += takeAll(*flood.mLink.mPipe).size();
        flood.mLink.mPipe->processNamedPipeEvents(0, false);
    }
    EXPECT_EQ(taken, flood.mSent);
}

TEST_F(NamedPipeEnd, isNotSeenBehindAFullBufferWhileSomebodyTakesBytes)
{
    FloodedByADeadPeer flood;
    for (int pass = 0; pass < 100; ++pass) {
        take(*flood.mLink.mPipe, 1);
        flood.mLink.mPipe->processNamedPipeEvents(0, false);
        ASSERT_TRUE(flood.mLink.mPipe->isConnected());
    }
}

TEST_F(NamedPipeEnd, isNotAssumedBehindAFullBufferWhileThePeerLives)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    while (link.mPipe->incomingBuffer().size() < incomingLimit) {
        sendMoreThanABufferHolds(link.mPeer);
        link.mPipe->processNamedPipeEvents(0, false);
    }
    for (int pass = 0; pass < 100; ++pass)
        link.mPipe->processNamedPipeEvents(0, false);
    EXPECT_TRUE(link.mPipe->isConnected());
}

TEST_F(NamedPipeEnd, aFailedWriteClosesTheWriteChannelAndReadingGoesOn)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    ASSERT_TRUE(rawSend(link.mPeer, "answer"));
    link.mPeer.close();
    append(link.mPipe->outgoingBuffer(), "nobody reads this");
    link.mPipe->processNamedPipeEvents(0, false);
    EXPECT_TRUE(link.mPipe->isWriteChannelClosed());
    EXPECT_FALSE(link.mPipe->hasPendingWrite());
    EXPECT_TRUE(link.mPipe->outgoingBuffer().empty());
    EXPECT_FALSE(link.mPipe->isReadChannelClosed());
    EXPECT_EQ(takeAll(*link.mPipe), "answer");
    expectClosed(*link.mPipe);
}

TEST_F(NamedPipeEnd, aFailedWriteIsForgottenByTheNextConnection)
{
    nqNamedPipeServer server;
    const std::string name = freshName();
    ASSERT_TRUE(server.listenUtf8(name));
    nqNamedPipe pipe;
    ASSERT_TRUE(pipe.connectToNamedPipeServerUtf8(name));
    acceptOne(server).reset();
    append(pipe.outgoingBuffer(), "nobody reads this");
    pipe.processNamedPipeEvents(0, false);
    expectClosed(pipe);

    ASSERT_TRUE(pipe.connectToNamedPipeServerUtf8(name));
    const auto other = acceptOne(server);
    ASSERT_TRUE(other);
    EXPECT_FALSE(pipe.isWriteChannelClosed());
    append(pipe.outgoingBuffer(), "somebody reads this");
    pipe.processNamedPipeEvents(0, false);
    other->processNamedPipeEvents(0, false);
    EXPECT_EQ(takeAll(*other), "somebody reads this");
}

TEST_F(NamedPipeEnd, comesToThePeerOfADestroyedPipeThoughAForkedChildHoldsItsSocket)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    Event mayEnd;
    Child holder([&] { return mayEnd.await() ? 0 : 1; });
    link.mPipe.reset();
    EXPECT_TRUE(rawSeesTheEnd(link.mPeer));
    mayEnd.raise();
    EXPECT_EQ(holder.wait(), 0);
}

TEST_F(NamedPipeEnd, leavesNoDescriptorOpenInThePipe)
{
    nqNamedPipeServer server;
    const std::string name = freshName();
    ASSERT_TRUE(server.listenUtf8(name));
    Event mayDie;
    Child worker([&] {
        nqNamedPipe pipe;
        return pipe.connectToNamedPipeServerUtf8(name) && mayDie.await() ? 0 : 1;
    });
    const std::set<int> before = openDescriptorNumbers();
    const auto pipe = acceptOne(server);
    ASSERT_TRUE(pipe);
    EXPECT_NE(openDescriptorNumbers(), before);
    mayDie.raise();
    EXPECT_TRUE(pumpUntilClosed(*pipe));
    EXPECT_EQ(openDescriptorNumbers(), before);
}

TEST_F(NamedPipeEnd, aClosedWriteChannelKeepsTheReadChannelOfALivingPeerOpen)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    ASSERT_EQ(::shutdown(link.mPeer.get(), SHUT_RD), 0);
    append(link.mPipe->outgoingBuffer(), "nobody reads this");
    link.mPipe->processNamedPipeEvents(0, false);
    EXPECT_TRUE(link.mPipe->isWriteChannelClosed());
    EXPECT_FALSE(link.mPipe->isReadChannelClosed());
    append(link.mPipe->outgoingBuffer(), "nor this");
    EXPECT_FALSE(link.mPipe->hasPendingWrite());
    ASSERT_TRUE(rawSend(link.mPeer, "still here"));
    link.mPipe->processNamedPipeEvents(0, false);
    EXPECT_EQ(takeAll(*link.mPipe), "still here");
    EXPECT_TRUE(link.mPipe->isConnected());
}

TEST_F(NamedPipeEnd, writingToADeadPeerRaisesNoSignal)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    static volatile sig_atomic_t signals = 0;
    struct sigaction counting {};
    struct sigaction before {};
    counting.sa_handler = [](int) { signals = signals + 1; };
    ::sigaction(SIGPIPE, &counting, &before);
    link.mPeer.close();
    append(link.mPipe->outgoingBuffer(), "x");
    link.mPipe->processNamedPipeEvents(0, false);
    ::sigaction(SIGPIPE, &before, nullptr);
    EXPECT_EQ(signals, 0);
    expectClosed(*link.mPipe);
}

TEST_F(NamedPipeEnd, closingAfterThePeerHasDiedRaisesNoSignal)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    static volatile sig_atomic_t signals = 0;
    struct sigaction counting {};
    struct sigaction before {};
    counting.sa_handler = [](int) { signals = signals + 1; };
    ::sigaction(SIGPIPE, &counting, &before);
    link.mPeer.close();
    append(link.mPipe->outgoingBuffer(), "x");
    link.mPipe->closeNamedPipe();
    ::sigaction(SIGPIPE, &before, nullptr);
    EXPECT_EQ(signals, 0);
}

TEST_F(NamedPipeEnd, aResetCountsAsTheEndAfterTheLastByte)
{
    PipeToRawSocket link;
    ASSERT_TRUE(link.mPipe);
    append(link.mPipe->outgoingBuffer(), "never read by the peer");
    link.mPipe->processNamedPipeEvents(0, false);
    ASSERT_TRUE(rawSend(link.mPeer, "answer"));
    link.mPeer.close(); // with unread bytes: the kernel reports a reset
    link.mPipe->processNamedPipeEvents(0, false);
    EXPECT_TRUE(link.mPipe->isConnected());
    EXPECT_EQ(takeAll(*link.mPipe), "answer");
    expectClosed(*link.mPipe);
}

TEST_F(NamedPipeEnd, isNoticedThoughSomebodyHoldsTheSocketOfTheDeadPeer)
{
    DeadPeerWithLivingSocket peer;
    peer.letDie();
    ASSERT_TRUE(pumpUntil(peer.pipe(), [&] { return !peer.pipe().incomingBuffer().empty(); }));
    EXPECT_EQ(takeAll(peer.pipe()), "last words");
    EXPECT_TRUE(pumpUntilClosed(peer.pipe()));
    expectClosed(peer.pipe());
}

TEST_F(NamedPipeEnd, isNoticedThoughThereWasNoDescriptorToWatchThePeerWith)
{
    DeadPeerWithLivingSocket peer(true); // its pipe took the last one
    peer.letDie();
    ASSERT_TRUE(pumpUntil(peer.pipe(), [&] { return !peer.pipe().incomingBuffer().empty(); }));
    EXPECT_EQ(takeAll(peer.pipe()), "last words");
    EXPECT_TRUE(pumpUntilClosed(peer.pipe()));
    expectClosed(peer.pipe());
}

TEST_F(NamedPipeEnd, isNoticedByCallsThatNeverWait)
{
    DeadPeerWithLivingSocket peer;
    peer.letDie();
    std::string taken;
    const auto start = steady_clock::now();
    while (peer.pipe().isConnected() && elapsedSince(start) < milliseconds(ampleMs)) {
        peer.pipe().processNamedPipeEvents(0, false);
        taken += takeAll(peer.pipe());
    }
    EXPECT_EQ(taken, "last words");
    expectClosed(peer.pipe());
}

TEST_F(NamedPipeEnd, wakesACallThatWaitsForAPeerWhoseSocketSomebodyHolds)
{
    DeadPeerWithLivingSocket peer;
    peer.letDieSoon();
    const auto start = steady_clock::now();
    std::string taken;
    while (peer.pipe().isConnected() && elapsedSince(start) < milliseconds(ampleMs)) {
        peer.pipe().processNamedPipeEvents(ampleMs, true);
        taken += takeAll(peer.pipe());
    }
    EXPECT_EQ(taken, "last words");
    EXPECT_LT(elapsedSince(start), milliseconds(ampleMs / 2));
}

TEST_F(NamedPipeEnd, ofAPeerWhoseSocketSomebodyHoldsIsSeenBehindAFullBuffer)
{
    DeadPeerWithLivingSocket peer;
    while (peer.pipe().incomingBuffer().size() < incomingLimit) {
        sendMoreThanABufferHolds(peer.socket());
        peer.pipe().processNamedPipeEvents(0, false);
    }
    peer.pipe().processNamedPipeEvents(0, false);
    ASSERT_TRUE(peer.pipe().isConnected());
    peer.killIt();
    EXPECT_TRUE(pumpUntilClosed(peer.pipe()));
}

TEST_F(NamedPipeEnd, ofTheServersProcessIsNoticedThoughSomebodyHoldsItsSocket)
{
    const std::string name = freshName();
    Event listening;
    Event mayDie;
    const Descriptor listener = rawSocket();
    Child host([&] {
        if (!rawListen(listener, name))
            return 1;
        listening.raise();
        return mayDie.await() ? 0 : 2;
    });
    ASSERT_TRUE(listening.await());
    nqNamedPipe pipe;
    ASSERT_TRUE(pipe.connectToNamedPipeServerUtf8(name));
    const Descriptor held(::accept(listener.get(), nullptr, nullptr));
    ASSERT_GE(held.get(), 0);
    mayDie.raise();
    const auto start = steady_clock::now();
    pipe.processNamedPipeEvents(ampleMs, true);
    EXPECT_LT(elapsedSince(start), milliseconds(ampleMs / 2));
    expectClosed(pipe);
}

TEST_F(NamedPipeEnd, isNotAssumedOfAPeerInTheSameProcess)
{
    PipePair pair;
    ASSERT_TRUE(pair.mServerSide);
    pair.mClient.processNamedPipeEvents(40, true);
    pair.mClient.processNamedPipeEvents(0, false);
    EXPECT_TRUE(pair.mClient.isConnected());
}
