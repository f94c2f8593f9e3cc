#include "system/nqNamedPipe.h"

#include "system/linux/nqDeadline.h"
#include "system/linux/nqNamedPipePrivate.h"
#include "system/linux/nqPipeSocket.h"
#include "system/linux/nqSystemCall.h"

#include <algorithm>
#include <cstddef>
#include <ctime>
#include <iterator>
#include <memory>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <thread>
#include <utility>

// One call of processNamedPipeEvents writes, reads, and only if neither moved anything may wait.
// - A pipe goes from open to ended when the kernel reports the end of the stream, or when the peer
//   is dead and its socket is drained: a process that it forked may hold the socket open for ever.
// - The caller sees the end only once the incoming buffer is empty; a buffer that nobody empties is
//   dropped with the pipe.
// - A dead peer is noticed by a probe now and then, because each probe costs a system call.
// - No byte is lost over an exception, and no number of FD_SETSIZE or more reaches select().

namespace nq {

namespace {

using std::chrono::milliseconds;

// Small enough that the bytes are still in the processor's cache when the kernel copies them, and
// that the peer starts on them while the rest follows. The extra page is for what frames a payload.
constexpr std::size_t outgoingLimitBytes = (std::size_t{256} << 10) + 4096;

// Bounds what one flooding worker costs the host. No more than two calls' worth: a consumer that
// takes little at a time moves the rest to the front each time.
constexpr std::size_t incomingLimitBytes = std::size_t{256} << 10;

// Up to this size a message is received on the stack and appended. A larger one is received in
// place: the buffer fills the room with zeros first, which is cheaper than a copy.
constexpr std::size_t smallReadBytes = std::size_t{4} << 10;

// What one call reads. Small enough that the bytes are still in the processor's cache when the
// consumer takes them, and that the peer refills the socket meanwhile.
constexpr std::size_t bytesPerCall = std::size_t{128} << 10;

// Several outgoing buffers' worth, so that neither end has to wait for the other soon.
constexpr int kernelSendBufferBytes = 1 << 20;

// Notices a dead worker soon, and costs a busy pump nothing.
constexpr milliseconds peerProbeInterval{250};

// Longer than most jobs take, and soon enough for the news of a death.
constexpr int quickAnswerMs = 10;

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
    // Without the privilege the system's maximum applies; a smaller buffer is merely slower.
    ::setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &wanted, sizeof wanted);
}

nqDescriptor connectTo(const std::string& name)
{
    const auto address = makePipeAddress(name);
    if (!address)
        return {};
    nqDescriptor socket = openPipeSocket();
    if (!socket.isOpen())
        return {};
    const auto connect = [&] { return ::connect(socket.get(), address->get(), address->mSize); };
    if (retryOnSignal(connect) != 0)
        return {};
    return socket;
}

} // namespace

void nqNamedPipe::Private::adopt(nqDescriptor socket, nqPeer peer)
{
    close();
    mSocket = std::move(socket);
    mPeer = std::move(peer);
    mLastProbe = coarseNow();
    mSocketDrained = false;
    mSkippedReadAfterWrite = false;
    mCongested = false;
    mExpectsBulk = false;
    mSpin = nqAdaptiveSpin();
    mAnswersAreQuick = false;
    mPhase = Phase::open;
    enlargeKernelBuffer(mSocket.get());
    moveIntoRangeOfSelect();
}

void nqNamedPipe::Private::close()
{
    if (mOwner.isThisProcess())
        shutDownAndClose(mSocket);
    mSocket.close();
    mPeer = nqPeer();
    mWriteFailed = false;
    mIncoming.clear();
    mOutgoing.clear();
    mUnreadAfterLastCall = 0;
    mPhase = Phase::closed;
}

bool nqNamedPipe::Private::isConnected() const
{
    switch (mPhase) {
    case Phase::closed:
        return false;
    case Phase::open:
        return true;
    case Phase::ended:
        return !mIncoming.empty();
    }
    return false;
}

bool nqNamedPipe::Private::isWriteChannelClosed() const
{
    return mWriteFailed || !isConnected();
}

bool nqNamedPipe::Private::hasPendingWrite() const
{
    return !mOutgoing.empty() && !isWriteChannelClosed();
}

bool nqNamedPipe::Private::isIncomingFull() const
{
    return mIncoming.size() >= incomingLimitBytes;
}

void nqNamedPipe::Private::processEvents(int timeoutMs, bool wait)
{
    if (!mOwner.isThisProcess() || !isConnected() || (isUndrained() && probeEnd())) {
        close();
        return;
    }
    // Writes come first: a wait before them would delay what is pending by a whole time-out. There
    // is no wait after the end of the stream, which is news for the caller.
    const bool mayWait = wait && timeoutMs > 0 && mPhase == Phase::open;
    bool moved = writePending();
    // The read of a drained socket is skipped right after a write, which the peer has yet to
    // answer, and before a wait, which polls the socket anyway. Never after two writes in a row:
    // the next call has to find what came unasked.
    const bool skipRead = mSocketDrained && (moved ? !mSkippedReadAfterWrite : mayWait);
    mSkippedReadAfterWrite = moved && skipRead;
    if (!skipRead)
        moved = readAvailable(mayWait) || moved;
    if (!moved && mayWait) {
        waitForActivity(timeoutMs);
        writePending();
        readAvailable(mayWait);
    }
    // A caller that must not wait comes straight back while the peer's side is full. The peer may
    // need this very processor to drain it.
    if (!moved && !mayWait && hasPendingWrite())
        std::this_thread::yield();
    if (!isConnected())
        close();
    mPeer.keepInRangeOfSelect(isIncomingFull()); // for getSocket(), which changes nothing
    mUnreadAfterLastCall = mIncoming.size();
}

// Whether the last call left bytes and nobody has taken any of them since.
bool nqNamedPipe::Private::isUndrained() const
{
    return !mIncoming.empty() && mIncoming.size() >= mUnreadAfterLastCall;
}

// Of an undrained pipe: an idle worker that died leaving junk must not look alive for ever because
// nobody takes the junk. With a full buffer, reads never reach the end of the stream.
bool nqNamedPipe::Private::probeEnd()
{
    return mPhase == Phase::ended || (isIncomingFull() && probeHangUp());
}

// True when there is news for the caller; likewise in readAvailable.
bool nqNamedPipe::Private::writePending()
{
    if (mWriteFailed)
        mOutgoing.clear();
    if (mOutgoing.empty() || (mCongested && !isWritable()))
        return false;
    const nqTransfer sent = sendOnce(mSocket.get(), mOutgoing.data(), mOutgoing.size());
    switch (sent.mOutcome) {
    case nqTransferOutcome::wouldBlock:
        mCongested = true;
        return false;
    case nqTransferOutcome::closed:
        mWriteFailed = true;
        mOutgoing.clear();
        return true;
    case nqTransferOutcome::moved:
        break;
    }
    mCongested = sent.mCount < mOutgoing.size();
    const auto begin = mOutgoing.begin();
    mOutgoing.erase(begin, std::next(begin, static_cast<std::ptrdiff_t>(sent.mCount)));
    return true;
}

// The kernel reports room only when most of its buffer is free. Filling every small gap instead
// would move the rest of a large payload to the front of the outgoing buffer again and again.
bool nqNamedPipe::Private::isWritable() const
{
    pollfd socket{mSocket.get(), POLLOUT, 0};
    return nqDeadline(0).poll(&socket, 1) > 0;
}

// Reads until the kernel has nothing more, not only until a short count, so that a worker that
// answered and exited is not given another job. A caller that waits may stop at a short count,
// since it comes back for the end anyway.
//
// The stream of a dead peer ends where the kernel has nothing more, even if a process that it
// forked holds the socket open.
bool nqNamedPipe::Private::readAvailable(bool mayStopAtShortCount)
{
    bool anythingNew = false;
    const std::size_t enough = std::min(mIncoming.size() + bytesPerCall, incomingLimitBytes);
    mSocketDrained = false;
    while (mPhase == Phase::open && mIncoming.size() < enough) {
        const bool peerWasDead = mPeer.isKnownDead();
        const std::size_t room = enough - mIncoming.size();
        const std::size_t wanted = mExpectsBulk ? room : std::min(smallReadBytes, room);
        const nqTransfer received = mExpectsBulk ? readInPlace(wanted) : readAside(wanted);
        switch (received.mOutcome) {
        case nqTransferOutcome::moved:
            anythingNew = true;
            mExpectsBulk = received.mCount == wanted;
            mSocketDrained = !mExpectsBulk && mayStopAtShortCount && !peerWasDead;
            if (mSocketDrained)
                return true;
            break;
        case nqTransferOutcome::closed:
            mPhase = Phase::ended;
            anythingNew = true;
            break;
        case nqTransferOutcome::wouldBlock:
            if (!peerWasDead && !probePeer()) {
                mSocketDrained = true;
                return anythingNew;
            }
            if (peerWasDead)
                mPhase = Phase::ended;
            anythingNew = true;
            break;
        }
    }
    return anythingNew;
}

// Both ways of reading make room first, so that no byte is lost if that throws.
nqTransfer nqNamedPipe::Private::readAside(std::size_t wanted)
{
    mIncoming.reserve(mIncoming.size() + wanted);
    char aside[smallReadBytes];
    const nqTransfer received = receiveOnce(mSocket.get(), aside, wanted);
    mIncoming.insert(mIncoming.end(), aside, aside + received.mCount);
    return received;
}

nqTransfer nqNamedPipe::Private::readInPlace(std::size_t wanted)
{
    const std::size_t before = mIncoming.size();
    mIncoming.resize(before + wanted);
    const nqTransfer received = receiveOnce(mSocket.get(), mIncoming.data() + before, wanted);
    mIncoming.resize(before + received.mCount);
    return received;
}

// Whether the peer was found dead. Only once per interval, since a probe costs a system call; what
// was short of descriptors earlier is tried again then.
bool nqNamedPipe::Private::probePeer()
{
    const milliseconds now = coarseNow();
    if (now - mLastProbe < peerProbeInterval)
        return false;
    mLastProbe = now;
    moveIntoRangeOfSelect();
    mPeer.watchWith(mSocket.get());
    return mPeer.probeDeath();
}

bool nqNamedPipe::Private::probeHangUp()
{
    pollfd socket{mSocket.get(), POLLRDHUP, 0};
    return nqDeadline(0).poll(&socket, 1) > 0 || mPeer.probeDeath();
}

void nqNamedPipe::Private::waitForActivity(int timeoutMs)
{
    pollfd watched[] = {
        {mSocket.get(), isIncomingFull() ? short{POLLRDHUP} : short{POLLIN}, 0},
        {mPeer.watch(), POLLIN, 0}, // poll ignores a descriptor of -1
    };
    if (hasPendingWrite())
        watched[0].events = static_cast<short>(watched[0].events | POLLOUT);
    mAnswersAreQuick =
        mSpin.spin(watched, std::size(watched)) || pollFor(timeoutMs, watched, std::size(watched));
    if (watched[1].revents != 0)
        mPeer.probeDeath();
}

// Where answers are quick, the first part of a wait polls the socket alone, which is cheaper. A
// peer that dies then, while others hold its socket open, is noticed that much later.
bool nqNamedPipe::Private::pollFor(int timeoutMs, pollfd* watched, nfds_t count) const
{
    const nqDeadline deadline(timeoutMs);
    if (mAnswersAreQuick && timeoutMs > quickAnswerMs && ::poll(watched, 1, quickAnswerMs) > 0)
        return true;
    return deadline.poll(watched, count) > 0;
}

// With a number of FD_SETSIZE or more, select() would write outside its set. A lower number may be
// free only later, so probePeer() tries again.
void nqNamedPipe::Private::moveIntoRangeOfSelect()
{
    if (mSocket.get() >= FD_SETSIZE)
        mSocket.moveToLowNumber();
}

nqNamedPipe::nqNamedPipe()
    : mPrivate(std::make_unique<Private>())
{
}

nqNamedPipe::~nqNamedPipe()
{
    closeNamedPipe();
}

bool nqNamedPipe::connectToNamedPipeServerUtf8(const std::string& name)
{
    closeNamedPipe();
    if (!mPrivate->mOwner.isThisProcess())
        return false;
    nqDescriptor socket = connectTo(name);
    if (!socket.isOpen())
        return false;
    nqPeer server(socket.get());
    if (!server.belongsToThisUser())
        return false;
    mPrivate->adopt(std::move(socket), std::move(server));
    return true;
}

void nqNamedPipe::processNamedPipeEvents(int timeoutMs, bool wait)
{
    if (mPrivate->mPhase != Private::Phase::closed)
        mPrivate->processEvents(timeoutMs, wait);
}

bool nqNamedPipe::isConnected() const
{
    return mPrivate->isConnected();
}

bool nqNamedPipe::isReadChannelClosed() const
{
    return !mPrivate->isConnected();
}

bool nqNamedPipe::isWriteChannelClosed() const
{
    return mPrivate->isWriteChannelClosed();
}

bool nqNamedPipe::hasPendingWrite() const
{
    return mPrivate->hasPendingWrite();
}

std::vector<char>& nqNamedPipe::incomingBuffer()
{
    return mPrivate->mIncoming;
}

const std::vector<char>& nqNamedPipe::incomingBuffer() const
{
    return mPrivate->mIncoming;
}

std::vector<char>& nqNamedPipe::outgoingBuffer()
{
    return mPrivate->mOutgoing;
}

const std::vector<char>& nqNamedPipe::outgoingBuffer() const
{
    return mPrivate->mOutgoing;
}

std::uint64_t nqNamedPipe::outgoingBufferLimit() const
{
    return outgoingLimitBytes;
}

int nqNamedPipe::getSocket() const
{
    if (!mPrivate->isConnected())
        return -1;
    // While the buffer is full nothing is read, and the socket would keep select() from sleeping.
    // Only the peer's death is worth waking up for then.
    const int watched =
        mPrivate->isIncomingFull() ? mPrivate->mPeer.watch() : mPrivate->mSocket.get();
    return watched < FD_SETSIZE ? watched : -1;
}

void nqNamedPipe::closeNamedPipe()
{
    mPrivate->close();
}

} // namespace nq
