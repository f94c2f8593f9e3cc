// One call moves bytes in this order: write, read, and only if neither moved any, wait, then write
// and read once more. Bytes travel between the kernel and the two byte stores, which know whether a
// byte lies in a buffer or in a payload's own memory.
//
// What ends a pipe: the end of the stream, seen by read, once the bytes before it are taken; a peer
// that has died, also when others hold its socket open; an abandoned end. What must never happen: a
// byte lost that was received, an end that hides for good, a wait while there is something to do.
#include "system/linux/nqNamedPipePrivate.h"

#include "system/linux/nqDeadline.h"
#include "system/linux/nqPipeSocket.h"

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <iterator>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <thread>
#include <utility>

namespace nq {

namespace {

using std::chrono::milliseconds;

// What one call takes in, so that a large payload does not starve the other workers.
constexpr std::size_t bytesPerCall = std::size_t{1} << 20;

// Some calls' worth, so that neither end soon waits for the other.
constexpr int kernelSendBufferBytes = 1 << 20;

// Soon enough to notice a dead worker, seldom enough to cost a busy pump nothing.
constexpr milliseconds peerProbeInterval{250};

milliseconds coarseNow()
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return std::chrono::duration_cast<milliseconds>(
        std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec));
}

void enlargeKernelBuffer(int socket)
{
    const int wanted = kernelSendBufferBytes;
    if (::setsockopt(socket, SOL_SOCKET, SO_SNDBUFFORCE, &wanted, sizeof wanted) == 0)
        return;
    // Without the privilege the system's maximum applies. A smaller buffer is only slower.
    ::setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &wanted, sizeof wanted);
}

bool isReported(int socket, short events)
{
    pollfd watched{socket, events, 0};
    return nqDeadline(0).poll(&watched, 1) > 0;
}

} // namespace

void nqNamedPipe::Private::adopt(nqDescriptor socket, nqPeer peer)
{
    close();
    mSocket = std::move(socket);
    mPeer = std::move(peer);
    mLastProbe = coarseNow();
    mLastCallWasEmpty = false;
    mSkippedRead = nqSkippedRead();
    mWait = nqPipeWait();
    mPhase = Phase::open;
    enlargeKernelBuffer(mSocket.get());
    moveIntoRangeOfSelect();
}

void nqNamedPipe::Private::close()
{
    nqDescriptor socket = mSocket.release();
    if (mOwner.isThisProcess())
        shutDownAndClose(socket);
    mPeer = nqPeer();
    mWriteFailed = false;
    mIsMoreForRange = false;
    mIsCongested = false;
    mIncoming.clear();
    mOutgoing.clear();
    mUntakenByLastCall = 0;
    mPhase = Phase::closed;
}

bool nqNamedPipe::Private::isWriteChannelClosed() const
{
    return mWriteFailed || !isConnected();
}

bool nqNamedPipe::Private::hasPendingWrite() const
{
    return mOutgoing.size() != 0 && !isWriteChannelClosed();
}

// Not what the kernel refused, nor what is in the kernel still: a set reports when that changes.
bool nqNamedPipe::Private::hasImmediateWork() const
{
    switch (mPhase) {
    case Phase::closed:
        return false;
    case Phase::open:
        return mPeer.isKnownDead() || (hasPendingWrite() && !mIsCongested);
    case Phase::ended:
        return true;
    }
    return false;
}

void nqNamedPipe::Private::processEvents(int timeoutMs, bool wait)
{
    if (!mOwner.isThisProcess() || !isConnected() || probeAbandonment()) {
        close();
        return;
    }
    // The end of the stream is news for the caller, so it is not waited behind.
    const bool mayWait = wait && timeoutMs > 0 && mPhase == Phase::open;
    bool moved = write();
    if (!mSkippedRead.skips(moved, mayWait))
        moved = read(mayWait) || moved;
    if (!moved && mayWait) {
        this->wait(timeoutMs);
        write();
        read(mayWait);
    }
    // A caller that must not wait comes straight back while the peer has no room for more. The peer
    // may need this very processor to make some: 1.15 times as many echoes of 64 MiB on one
    // processor (`bench-ours --bytes 67108864 --processors 0`).
    if (!moved && !mayWait && hasPendingWrite())
        std::this_thread::yield();
    if (!isConnected())
        close();
    mPeer.keepInRangeOfSelect(mIncoming.isFull()); // for getSocket(), which only asks
    mUntakenByLastCall = mIncoming.untakenBytes();
}

// Sends the buffer, then what is lent. True when there is anything new for the caller.
bool nqNamedPipe::Private::write()
{
    bool moved = false;
    while (mOutgoing.size() != 0 && !mWriteFailed) {
        const nqOutgoingBytes::Piece piece = mOutgoing.front();
        const nqTransfer sent = sendOnce(mSocket.get(), piece.mBytes, piece.mSize);
        if (sent.mOutcome == nqTransferOutcome::wouldBlock)
            break;
        moved = true;
        mWriteFailed = sent.mOutcome == nqTransferOutcome::closed;
        mOutgoing.drop(sent.mCount);
        if (sent.mCount < piece.mSize)
            break;
    }
    if (mWriteFailed)
        mOutgoing.clear();
    mIsCongested = mOutgoing.size() != 0;
    return moved;
}

// Reads until the kernel says that it has nothing more, not only until a short count: a worker that
// answered and left is then known to have left, and is not given another job. A caller that waits
// comes back for the end anyway. A read that fills the buffer's share is the last one, since the
// consumer may have memory of its own for the rest. True when there is anything new for the caller.
bool nqNamedPipe::Private::read(bool mayStopAtShortCount)
{
    mSkippedRead.noteRead(false);
    mIsMoreForRange = false;
    if (mPhase != Phase::open)
        return false;
    std::size_t count = 0;
    while (count < bytesPerCall && !mIncoming.isFull()) {
        const bool peerWasDead = mPeer.isKnownDead();
        const bool isFilling = mIncoming.isFilling();
        const std::size_t wanted = std::min(mIncoming.room(), bytesPerCall - count);
        const nqTransfer received = mIncoming.receiveFrom(mSocket.get(), wanted);
        count += received.mCount;
        const bool isEmpty = received.mOutcome == nqTransferOutcome::wouldBlock;
        if (received.mOutcome == nqTransferOutcome::closed || (isEmpty && peerWasDead)) {
            mPhase = Phase::ended;
            return true;
        }
        if (isEmpty && probePeer(count != 0))
            continue; // one read more, for what it sent before it died
        const bool isShort = received.mCount < wanted;
        if (isEmpty || (isShort && mayStopAtShortCount && !peerWasDead)) {
            mSkippedRead.noteRead(true);
            return count != 0;
        }
        if (!isShort && !isFilling)
            break;
    }
    if (count != 0)
        peek();
    return count != 0;
}

// After a share that was read whole, which says nothing of what follows.
void nqNamedPipe::Private::peek()
{
    const nqTransferOutcome next = peekOnce(mSocket.get());
    if (next == nqTransferOutcome::closed)
        mPhase = Phase::ended;
    mSkippedRead.noteRead(next == nqTransferOutcome::wouldBlock);
    mIsMoreForRange = next == nqTransferOutcome::moved && !mIncoming.isFilling();
}

// A payload whose first bytes have just come in need not wait for the next call.
void nqNamedPipe::Private::fill(char* bytes, std::size_t size)
{
    mIncoming.fill(bytes, size);
    if (mIsMoreForRange && mIncoming.isFilling() && mOwner.isThisProcess())
        read(false);
}

// Whether the peer is found dead. Looks now and then only, since a look costs a system call and
// most passes find nothing. But a set that reports the death goes on until it is found: by the
// second call in a row that has received nothing, since one such call is part of every small job.
bool nqNamedPipe::Private::probePeer(bool hasReceived)
{
    const bool isSecondEmptyCall = !hasReceived && mLastCallWasEmpty;
    mLastCallWasEmpty = !hasReceived;
    const milliseconds now = coarseNow();
    const bool isDue = now - mLastProbe >= peerProbeInterval;
    if (isDue) {
        mLastProbe = now;
        moveIntoRangeOfSelect();
        mPeer.watchWith(mSocket.get());
    }
    return (isDue || (mPeer.isInSet() && isSecondEmptyCall)) && mPeer.probeDeath();
}

void nqNamedPipe::Private::wait(int timeoutMs)
{
    pollfd watched[] = {
        {mSocket.get(), mIncoming.isFull() ? short{POLLRDHUP} : short{POLLIN}, 0},
        {mPeer.watch(), POLLIN, 0}, // poll passes over a descriptor of -1
    };
    if (hasPendingWrite())
        watched[0].events = static_cast<short>(watched[0].events | POLLOUT);
    mWait.wait(watched, timeoutMs);
    if (watched[1].revents != 0)
        mPeer.probeDeath();
}

// No interest in what would be reported again and again without being acted on: bytes that have no
// room, and room while nothing waits for it.
void nqNamedPipe::Private::reportTo(nqEpoll* set)
{
    std::uint32_t events = EPOLLRDHUP;
    if (!mIncoming.isFull())
        events |= EPOLLIN;
    if (mIsCongested)
        events |= EPOLLOUT;
    mSocket.watchIn(set, events);
    mPeer.reportTo(set);
}

// An idle worker that died leaving junk must not look alive for good because nobody takes the junk.
// When there is more of it than the buffer holds, reading never gets to the end of the stream.
bool nqNamedPipe::Private::probeAbandonment()
{
    const std::size_t untaken = mIncoming.untakenBytes();
    if (untaken == 0 || untaken < mUntakenByLastCall)
        return false;
    if (mPhase == Phase::ended)
        return true;
    return mIncoming.isFull() && (isReported(mSocket.get(), POLLRDHUP) || mPeer.probeDeath());
}

// A number of FD_SETSIZE or more would make select() write outside its set. A lower one may be free
// later only, so this is tried again from time to time.
void nqNamedPipe::Private::moveIntoRangeOfSelect()
{
    if (mSocket.get() >= FD_SETSIZE)
        mSocket.moveToLowNumber();
}

} // namespace nq
