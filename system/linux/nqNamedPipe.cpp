#include "system/nqNamedPipe.h"

#include "system/linux/nqDeadline.h"
#include "system/linux/nqPipeSocket.h"
#include "system/linux/nqPipeState.h"
#include "system/linux/nqSystemCall.h"

#include <algorithm>
#include <cstddef>
#include <ctime>
#include <iterator>
#include <memory>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <utility>

namespace nq {

namespace {

using std::chrono::milliseconds;

constexpr std::size_t mebibyte = std::size_t{1} << 20;

// Large enough that a big payload takes few passes, small enough for hundreds of workers.
constexpr std::size_t outgoingLimitBytes = mebibyte;

// One flooding worker neither grows the host beyond this nor holds up the others for longer than
// it takes to copy it.
constexpr std::size_t incomingLimitBytes = mebibyte;

// One read empties most of what a kernel buffer holds, and the area stays in the processor's cache.
constexpr std::size_t stagingBytes = std::size_t{256} << 10;

// The kernel takes a whole outgoing buffer at once.
constexpr int kernelSendBufferBytes = static_cast<int>(outgoingLimitBytes);

// Soon enough to notice a dead worker, seldom enough to cost a busy pump nothing.
constexpr milliseconds peerLookInterval{20};

// Filling a vector in place would write zeros over every byte before it is received.
char* stagingArea()
{
    thread_local const std::unique_ptr<char[]> area(new char[stagingBytes]);
    return area.get();
}

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

void nqNamedPipe::State::adopt(nqDescriptor socket, nqPeer peer)
{
    close();
    mSocket = std::move(socket);
    mPeer = std::move(peer);
    mLastLookAt = coarseNow();
    mPhase = Phase::open;
    enlargeKernelBuffer(mSocket.get());
    moveIntoRangeOfSelect();
}

void nqNamedPipe::State::close()
{
    shutDownAndClose(mSocket);
    mPeer = nqPeer();
    mWriteFailed = false;
    mIncoming.clear();
    mOutgoing.clear();
    mLeftByLastCall = 0;
    mPhase = Phase::closed;
}

bool nqNamedPipe::State::isConnected() const
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

bool nqNamedPipe::State::isWriteChannelClosed() const
{
    return mWriteFailed || !isConnected();
}

bool nqNamedPipe::State::hasPendingWrite() const
{
    return !mOutgoing.empty() && !isWriteChannelClosed();
}

bool nqNamedPipe::State::isIncomingFull() const
{
    return mIncoming.size() >= incomingLimitBytes;
}

void nqNamedPipe::State::processEvents(int timeoutMs, bool wait)
{
    if (!isConnected() || isForsaken()) {
        close();
        return;
    }
    // Polling before writing would delay whatever is pending by a whole time-out. The end of the
    // stream is news for the caller, so it is not waited behind.
    if (!exchange() && wait && timeoutMs > 0 && mPhase == Phase::open) {
        waitForActivity(timeoutMs);
        exchange();
    }
    if (!isConnected())
        close();
    mLeftByLastCall = mIncoming.size();
}

// An idle worker that died leaving junk must not look alive for ever because nobody takes the junk.
// When there is more of it than the buffer holds, reading never gets to the end of the stream.
bool nqNamedPipe::State::isForsaken()
{
    const bool somebodyTookBytes = mIncoming.size() < mLeftByLastCall;
    if (mIncoming.empty() || somebodyTookBytes)
        return false;
    return mPhase == Phase::ended || (isIncomingFull() && hasPeerLeft());
}

// Returns whether there is anything new for the caller.
bool nqNamedPipe::State::exchange()
{
    const bool wrote = writePending();
    const bool read = readAvailable();
    return wrote || read;
}

bool nqNamedPipe::State::writePending()
{
    if (mWriteFailed)
        mOutgoing.clear();
    if (mOutgoing.empty())
        return false;
    const nqTransfer sent = sendOnce(mSocket.get(), mOutgoing.data(), mOutgoing.size());
    switch (sent.mOutcome) {
    case nqTransferOutcome::wouldBlock:
        return false;
    case nqTransferOutcome::closed:
        mWriteFailed = true;
        mOutgoing.clear();
        return true;
    case nqTransferOutcome::moved:
        break;
    }
    // Moves at most the buffer's limit, once for each call, however large the payload is.
    const auto begin = mOutgoing.begin();
    mOutgoing.erase(begin, std::next(begin, static_cast<std::ptrdiff_t>(sent.mCount)));
    return true;
}

// Reads on until the kernel says that it has nothing more, not only until a short count: a worker
// that answered and left is then known to have left, and is not given another job.
//
// A peer that has died has sent everything that it will ever send. Its stream ends where the kernel
// has nothing more, also when a process that it forked holds the socket open.
bool nqNamedPipe::State::readAvailable()
{
    bool anythingNew = false;
    while (mPhase == Phase::open && !isIncomingFull()) {
        const std::size_t wanted = std::min(stagingBytes, incomingLimitBytes - mIncoming.size());
        mIncoming.reserve(mIncoming.size() + wanted); // no byte is lost when this throws
        const bool peerWasDead = mPeer.isKnownDead();
        char* const staging = stagingArea();
        const nqTransfer received = receiveOnce(mSocket.get(), staging, wanted);
        switch (received.mOutcome) {
        case nqTransferOutcome::moved:
            mIncoming.insert(mIncoming.end(), staging, staging + received.mCount);
            anythingNew = true;
            break;
        case nqTransferOutcome::closed:
            mPhase = Phase::ended;
            anythingNew = true;
            break;
        case nqTransferOutcome::wouldBlock:
            if (peerWasDead)
                mPhase = Phase::ended;
            else if (!isPeerFoundDead())
                return anythingNew;
            anythingNew = true;
            break;
        }
    }
    return anythingNew;
}

// Looks now and then only, since a look costs a system call and most passes find nothing.
bool nqNamedPipe::State::isPeerFoundDead()
{
    const milliseconds now = coarseNow();
    if (now - mLastLookAt < peerLookInterval)
        return false;
    mLastLookAt = now;
    moveIntoRangeOfSelect();
    return mPeer.hasDied();
}

bool nqNamedPipe::State::hasPeerLeft()
{
    pollfd socket{mSocket.get(), POLLRDHUP, 0};
    return nqDeadline(0).poll(&socket, 1) > 0 || mPeer.hasDied();
}

void nqNamedPipe::State::waitForActivity(int timeoutMs)
{
    pollfd watched[] = {
        {mSocket.get(), isIncomingFull() ? short{POLLRDHUP} : short{POLLIN}, 0},
        {mPeer.watch(), POLLIN, 0}, // poll passes over a descriptor of -1
    };
    if (hasPendingWrite())
        watched[0].events = static_cast<short>(watched[0].events | POLLOUT);
    nqDeadline(timeoutMs).poll(watched, std::size(watched));
    if (watched[1].revents != 0)
        mPeer.hasDied();
}

// A number of FD_SETSIZE or more would make select() write outside its set. A lower one may be free
// later only, so this is tried again from time to time.
void nqNamedPipe::State::moveIntoRangeOfSelect()
{
    if (mSocket.get() >= FD_SETSIZE)
        mSocket.moveToLowNumber();
}

nqNamedPipe::nqNamedPipe()
    : mState(std::make_unique<State>())
{
}

nqNamedPipe::~nqNamedPipe()
{
    closeNamedPipe();
}

bool nqNamedPipe::connectToNamedPipeServerUtf8(const std::string& name)
{
    closeNamedPipe();
    nqDescriptor socket = connectTo(name);
    if (!socket.isOpen())
        return false;
    nqPeer server(socket.get());
    if (!server.belongsToThisUser())
        return false;
    mState->adopt(std::move(socket), std::move(server));
    return true;
}

void nqNamedPipe::processNamedPipeEvents(int timeoutMs, bool wait)
{
    if (mState->mPhase != State::Phase::closed)
        mState->processEvents(timeoutMs, wait);
}

bool nqNamedPipe::isConnected() const
{
    return mState->isConnected();
}

bool nqNamedPipe::isReadChannelClosed() const
{
    return !mState->isConnected();
}

bool nqNamedPipe::isWriteChannelClosed() const
{
    return mState->isWriteChannelClosed();
}

bool nqNamedPipe::hasPendingWrite() const
{
    return mState->hasPendingWrite();
}

std::vector<char>& nqNamedPipe::incomingBuffer()
{
    return mState->mIncoming;
}

const std::vector<char>& nqNamedPipe::incomingBuffer() const
{
    return mState->mIncoming;
}

std::vector<char>& nqNamedPipe::outgoingBuffer()
{
    return mState->mOutgoing;
}

const std::vector<char>& nqNamedPipe::outgoingBuffer() const
{
    return mState->mOutgoing;
}

std::uint64_t nqNamedPipe::outgoingBufferLimit() const
{
    return outgoingLimitBytes;
}

int nqNamedPipe::getSocket() const
{
    const int socket = mState->mSocket.get();
    const bool selectable =
        mState->isConnected() && !mState->isIncomingFull() && socket < FD_SETSIZE;
    return selectable ? socket : -1;
}

void nqNamedPipe::closeNamedPipe()
{
    if (mState->hasPendingWrite())
        sendOnce(mState->mSocket.get(), mState->mOutgoing.data(), mState->mOutgoing.size());
    mState->close();
}

} // namespace nq
