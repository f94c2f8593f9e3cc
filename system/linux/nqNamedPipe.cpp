#include "system/nqNamedPipe.h"

#include "system/linux/nqNamedPipePrivate.h"
#include "system/linux/nqPipeSocket.h"
#include "system/linux/nqSystemCall.h"
#include "system/linux/nqWaitSetPrivate.h"

#include <cstddef>
#include <memory>
#include <sys/select.h>
#include <sys/socket.h>
#include <utility>

namespace nq {

namespace {

// How much a caller may have under way, so that a large payload does not starve the other workers.
// The page on top is for what frames a payload.
constexpr std::size_t outgoingLimitBytes = (std::size_t{1} << 20) + 4096;

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
    return mPrivate->mIncoming.buffer();
}

const std::vector<char>& nqNamedPipe::incomingBuffer() const
{
    return mPrivate->mIncoming.buffer();
}

std::vector<char>& nqNamedPipe::outgoingBuffer()
{
    return mPrivate->mOutgoing.buffer();
}

const std::vector<char>& nqNamedPipe::outgoingBuffer() const
{
    return mPrivate->mOutgoing.buffer();
}

std::uint64_t nqNamedPipe::outgoingBufferLimit() const
{
    return outgoingLimitBytes;
}

std::size_t nqNamedPipe::unsentBytes() const
{
    return mPrivate->mOutgoing.size();
}

void nqNamedPipe::lend(const char* bytes, std::size_t size)
{
    mPrivate->mOutgoing.lend(bytes, size);
}

std::size_t nqNamedPipe::lentBytes() const
{
    return mPrivate->mOutgoing.lentBytes();
}

void nqNamedPipe::copyLent()
{
    mPrivate->mOutgoing.copyLent();
}

void nqNamedPipe::fill(char* bytes, std::size_t size)
{
    mPrivate->fill(bytes, size);
}

std::size_t nqNamedPipe::untakenBytes() const
{
    return mPrivate->mIncoming.untakenBytes();
}

std::size_t nqNamedPipe::takeFilled()
{
    return mPrivate->mIncoming.takeFilled();
}

void nqNamedPipe::stopFilling()
{
    mPrivate->mIncoming.stopFilling();
}

int nqNamedPipe::getSocket() const
{
    if (!mPrivate->isConnected())
        return -1;
    // Nothing is read while the buffer is full, so the socket would keep a select from sleeping.
    // What is worth waking up for is then the peer's death.
    const int watched =
        mPrivate->mIncoming.isFull() ? mPrivate->mPeer.watch() : mPrivate->mSocket.get();
    return watched < FD_SETSIZE ? watched : -1;
}

bool nqNamedPipe::hasImmediateWork() const
{
    return mPrivate->hasImmediateWork();
}

void nqNamedPipe::reportTo(nqWaitSet* set)
{
    mPrivate->reportTo(set != nullptr ? &set->mPrivate->mEpoll : nullptr);
}

void nqNamedPipe::closeNamedPipe()
{
    mPrivate->close();
}

} // namespace nq
