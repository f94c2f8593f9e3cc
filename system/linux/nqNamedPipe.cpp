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

namespace nq {

namespace {

using std::chrono::milliseconds;

// What the producer appends is still in the processor's cache when the kernel takes it, and the
// other end begins with it while the rest follows. The page on top is for what frames a payload.
constexpr std::size_t outgoingLimitBytes = (std::size_t{256} << 10) + 4096;

// One flooding worker does not grow the host beyond this. Some calls' worth, and no more: a
// consumer that takes little at a time moves the rest to the front each time.
constexpr std::size_t incomingLimitBytes = std::size_t{256} << 10;

// A message of this size is received aside and appended. More than that is received in place, into
// room that the buffer fills with zeros first, which is less work than copying.
constexpr std::size_t smallReadBytes = std::size_t{4} << 10;

// What one call takes in. Small enough that these bytes are still in the processor's cache when the
// consumer takes them, and that the other end fills the socket again meanwhile.
constexpr std::size_t bytesPerCall = std::size_t{128} << 10;

// Some outgoing buffers' worth, so that neither end soon waits for the other.
constexpr int kernelSendBufferBytes = 1 << 20;

// Soon enough to notice a dead worker, seldom enough to cost a busy pump nothing.
constexpr milliseconds peerLookInterval{250};

// Longer than most jobs, shorter than anybody waits for the news of a death.
constexpr int briefWaitMs = 10;

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
    mLastLookAt = coarseNow();
    mLeftDry = false;
    mSavedReadAfterWrite = false;
    mCongested = false;
    mExpectsMuch = false;
    mSpin = nqAdaptiveSpin();
    mWaitsAreShort = false;
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
    mLeftByLastCall = 0;
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
    if (!mOwner.isThisProcess() || !isConnected() || isForsaken()) {
        close();
        return;
    }
    // Polling before writing would delay whatever is pending by a whole time-out. The end of the
    // stream is news for the caller, so it is not waited behind.
    const bool mayWait = wait && timeoutMs > 0 && mPhase == Phase::open;
    bool moved = writePending();
    // A read that can hardly find anything is saved: right after a write, because the last call
    // left the socket dry and the peer has yet to see what was written, and before a wait, which
    // looks by itself. Not twice in a row after writes: what has come in spite of that is found by
    // the next call.
    const bool canSaveRead = mLeftDry && (moved ? !mSavedReadAfterWrite : mayWait);
    mSavedReadAfterWrite = moved && canSaveRead;
    if (!canSaveRead)
        moved = readAvailable(mayWait) || moved;
    if (!moved && mayWait) {
        waitForActivity(timeoutMs);
        writePending();
        readAvailable(mayWait);
    }
    // A caller that must not wait comes straight back while the peer has no room for more. It may
    // need this very processor to make some.
    if (!moved && !mayWait && hasPendingWrite())
        std::this_thread::yield();
    if (!isConnected())
        close();
    mPeer.keepInRangeOfSelect(isIncomingFull()); // for getSocket(), which only asks
    mLeftByLastCall = mIncoming.size();
}

// An idle worker that died leaving junk must not look alive for ever because nobody takes the junk.
// When there is more of it than the buffer holds, reading never gets to the end of the stream.
bool nqNamedPipe::Private::isForsaken()
{
    const bool somebodyTookBytes = mIncoming.size() < mLeftByLastCall;
    if (mIncoming.empty() || somebodyTookBytes)
        return false;
    return mPhase == Phase::ended || (isIncomingFull() && hasPeerLeft());
}

// Returns whether there is anything new for the caller, and so does readAvailable.
bool nqNamedPipe::Private::writePending()
{
    if (mWriteFailed)
        mOutgoing.clear();
    if (mOutgoing.empty() || (mCongested && !hasRoomForMore()))
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

// The kernel reports room only when most of its buffer is free. Sending into every little gap would
// move the rest of a large payload to the front of the outgoing buffer again and again.
bool nqNamedPipe::Private::hasRoomForMore() const
{
    pollfd socket{mSocket.get(), POLLOUT, 0};
    return nqDeadline(0).poll(&socket, 1) > 0;
}

// Reads on until the kernel says that it has nothing more, not only until a short count: a worker
// that answered and left is then known to have left, and is not given another job. A caller that
// waits comes back for the end anyway.
//
// A peer that has died has sent everything that it will ever send. Its stream ends where the kernel
// has nothing more, also when a process that it forked holds the socket open.
bool nqNamedPipe::Private::readAvailable(bool mayStopAtShortCount)
{
    bool anythingNew = false;
    const std::size_t enough = std::min(mIncoming.size() + bytesPerCall, incomingLimitBytes);
    mLeftDry = false;
    while (mPhase == Phase::open && mIncoming.size() < enough) {
        const bool peerWasDead = mPeer.isKnownDead();
        const std::size_t room = enough - mIncoming.size();
        const std::size_t wanted = mExpectsMuch ? room : std::min(smallReadBytes, room);
        const nqTransfer received = mExpectsMuch ? readInPlace(wanted) : readAside(wanted);
        switch (received.mOutcome) {
        case nqTransferOutcome::moved:
            anythingNew = true;
            mExpectsMuch = received.mCount == wanted;
            mLeftDry = !mExpectsMuch && mayStopAtShortCount && !peerWasDead;
            if (mLeftDry)
                return true;
            break;
        case nqTransferOutcome::closed:
            mPhase = Phase::ended;
            anythingNew = true;
            break;
        case nqTransferOutcome::wouldBlock:
            if (!peerWasDead && !isPeerFoundDead()) {
                mLeftDry = true;
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

// In both, room is made first: no byte is lost when that throws.
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

// Looks now and then only, since a look costs a system call and most passes find nothing.
bool nqNamedPipe::Private::isPeerFoundDead()
{
    const milliseconds now = coarseNow();
    if (now - mLastLookAt < peerLookInterval)
        return false;
    mLastLookAt = now;
    moveIntoRangeOfSelect();
    mPeer.watchWith(mSocket.get());
    return mPeer.hasDied();
}

bool nqNamedPipe::Private::hasPeerLeft()
{
    pollfd socket{mSocket.get(), POLLRDHUP, 0};
    return nqDeadline(0).poll(&socket, 1) > 0 || mPeer.hasDied();
}

void nqNamedPipe::Private::waitForActivity(int timeoutMs)
{
    pollfd watched[] = {
        {mSocket.get(), isIncomingFull() ? short{POLLRDHUP} : short{POLLIN}, 0},
        {mPeer.watch(), POLLIN, 0}, // poll passes over a descriptor of -1
    };
    if (hasPendingWrite())
        watched[0].events = static_cast<short>(watched[0].events | POLLOUT);
    mWaitsAreShort = mSpin.spin(watched, std::size(watched)) ||
                     isReportedWithin(timeoutMs, watched, std::size(watched));
    if (watched[1].revents != 0)
        mPeer.hasDied();
}

// Where answers come quickly, the first part of a wait watches the socket alone, which costs less.
// A peer that dies then, and leaves its socket to others, is noticed that much later.
bool nqNamedPipe::Private::isReportedWithin(int timeoutMs, pollfd* watched, nfds_t count) const
{
    const nqDeadline deadline(timeoutMs);
    if (mWaitsAreShort && timeoutMs > briefWaitMs && ::poll(watched, 1, briefWaitMs) > 0)
        return true;
    return deadline.poll(watched, count) > 0;
}

// A number of FD_SETSIZE or more would make select() write outside its set. A lower one may be free
// later only, so this is tried again from time to time.
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
    // Nothing is read while the buffer is full, so the socket would keep a select from sleeping.
    // What is worth waking up for is then the peer's death.
    const int watched =
        mPrivate->isIncomingFull() ? mPrivate->mPeer.watch() : mPrivate->mSocket.get();
    return watched < FD_SETSIZE ? watched : -1;
}

void nqNamedPipe::closeNamedPipe()
{
    mPrivate->close();
}

} // namespace nq
