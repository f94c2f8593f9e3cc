#include "tests/scripted/scriptedMachine.h"

#include "system/nqNamedPipe.h"
#include "tests/scripted/scriptedWaitSet.h"

#include <algorithm>
#include <string>
#include <utility>

namespace nq {

namespace {

void passOn(scripted::Pipe& pipe)
{
    if (!pipe.isConnected || pipe.isWriteChannelClosed)
        return;
    const auto count = std::min<std::uint64_t>(pipe.outgoing.size(), pipe.passedOnPerCall);
    const auto end = pipe.outgoing.begin() + static_cast<std::ptrdiff_t>(count);
    pipe.passedOn.insert(pipe.passedOn.end(), pipe.outgoing.begin(), end);
    pipe.outgoing.erase(pipe.outgoing.begin(), end);
    const auto lent = std::min<std::uint64_t>(pipe.lentSize, pipe.passedOnPerCall - count);
    pipe.passedOn.insert(pipe.passedOn.end(), pipe.lent, pipe.lent + lent);
    pipe.lent += lent;
    pipe.lentSize -= lent;
}

void takeIn(scripted::Pipe& pipe)
{
    if (pipe.arrivals.empty())
        return;
    const auto& bytes = pipe.arrivals.front();
    const std::size_t filled = std::min(bytes.size(), pipe.rangeSize - pipe.filled);
    std::copy_n(bytes.begin(), filled, pipe.range + pipe.filled);
    pipe.filled += filled;
    const auto rest = bytes.begin() + static_cast<std::ptrdiff_t>(filled);
    pipe.incoming.insert(pipe.incoming.end(), rest, bytes.end());
    pipe.arrivals.pop_front();
}

} // namespace

/// Binds a pipe object to its record.
struct nqNamedPipe::Private {
    std::shared_ptr<scripted::Pipe> pipe;
};

nqNamedPipe::nqNamedPipe()
    : mPrivate(std::make_unique<Private>(Private{scripted::machine().pipeForNewObject()}))
{
}

nqNamedPipe::~nqNamedPipe()
{
    mPrivate->pipe->isDestroyed = true;
    scripted::machine().call(mPrivate->pipe->name + ": destroyed");
}

bool nqNamedPipe::connectToNamedPipeServerUtf8(const std::string& name)
{
    scripted::Pipe& pipe = *mPrivate->pipe;
    scripted::machine().call(pipe.name + ": connectToNamedPipeServerUtf8(" + name + ")");
    pipe.isConnected = pipe.connects;
    pipe.isReadChannelClosed = !pipe.connects;
    pipe.isWriteChannelClosed = !pipe.connects;
    return pipe.connects;
}

void nqNamedPipe::processNamedPipeEvents(int timeoutMs, bool wait)
{
    scripted::Pipe& pipe = *mPrivate->pipe;
    scripted::machine().call(
        pipe.name + ": processNamedPipeEvents(" + std::to_string(timeoutMs) + ", " +
        (wait ? "true" : "false") + ")");
    passOn(pipe);
    pipe.isCongested = pipe.unsentBytes() != 0;
    takeIn(pipe);
    if (pipe.onEvents)
        pipe.onEvents(pipe);
}

bool nqNamedPipe::isConnected() const
{
    scripted::machine().query(mPrivate->pipe->name + ": isConnected()");
    return mPrivate->pipe->isConnected && !mPrivate->pipe->isAtItsEnd();
}

bool nqNamedPipe::isReadChannelClosed() const
{
    scripted::machine().query(mPrivate->pipe->name + ": isReadChannelClosed()");
    return mPrivate->pipe->isReadChannelClosed || mPrivate->pipe->isAtItsEnd();
}

bool nqNamedPipe::isWriteChannelClosed() const
{
    scripted::machine().query(mPrivate->pipe->name + ": isWriteChannelClosed()");
    return mPrivate->pipe->isWriteChannelClosed;
}

bool nqNamedPipe::hasPendingWrite() const
{
    scripted::machine().query(mPrivate->pipe->name + ": hasPendingWrite()");
    return mPrivate->pipe->isConnected && mPrivate->pipe->unsentBytes() != 0;
}

std::vector<char>& nqNamedPipe::incomingBuffer()
{
    return mPrivate->pipe->incoming;
}

const std::vector<char>& nqNamedPipe::incomingBuffer() const
{
    return mPrivate->pipe->incoming;
}

std::vector<char>& nqNamedPipe::outgoingBuffer()
{
    return mPrivate->pipe->outgoing;
}

const std::vector<char>& nqNamedPipe::outgoingBuffer() const
{
    return mPrivate->pipe->outgoing;
}

std::uint64_t nqNamedPipe::outgoingBufferLimit() const
{
    return mPrivate->pipe->outgoingLimit;
}

std::size_t nqNamedPipe::unsentBytes() const
{
    return mPrivate->pipe->unsentBytes();
}

void nqNamedPipe::lend(const char* bytes, std::size_t size)
{
    scripted::Pipe& pipe = *mPrivate->pipe;
    if (pipe.lentSize != 0 && pipe.lent + pipe.lentSize == bytes) {
        pipe.lentSize += size;
        return;
    }
    copyLent();
    if (size >= pipe.smallestLoan) {
        pipe.lent = bytes;
        pipe.lentSize = size;
    } else {
        pipe.outgoing.insert(pipe.outgoing.end(), bytes, bytes + size);
    }
}

std::size_t nqNamedPipe::lentBytes() const
{
    return mPrivate->pipe->lentSize;
}

void nqNamedPipe::copyLent()
{
    scripted::Pipe& pipe = *mPrivate->pipe;
    pipe.outgoing.insert(pipe.outgoing.end(), pipe.lent, pipe.lent + pipe.lentSize);
    pipe.lentSize = 0;
}

void nqNamedPipe::fill(char* bytes, std::size_t size)
{
    scripted::Pipe& pipe = *mPrivate->pipe;
    pipe.range = bytes;
    pipe.rangeSize = size < pipe.smallestRange ? 0 : size;
    pipe.filled = 0;
    if (pipe.fillsAtOnce && pipe.rangeSize != 0)
        takeIn(pipe);
}

std::size_t nqNamedPipe::untakenBytes() const
{
    return mPrivate->pipe->untakenBytes();
}

std::size_t nqNamedPipe::takeFilled()
{
    scripted::Pipe& pipe = *mPrivate->pipe;
    pipe.range += pipe.filled;
    pipe.rangeSize -= pipe.filled;
    return std::exchange(pipe.filled, 0);
}

void nqNamedPipe::stopFilling()
{
    scripted::Pipe& pipe = *mPrivate->pipe;
    pipe.incoming.insert(pipe.incoming.begin(), pipe.range, pipe.range + pipe.filled);
    pipe.filled = 0;
    pipe.rangeSize = 0;
}

int nqNamedPipe::getSocket() const
{
    scripted::machine().query(mPrivate->pipe->name + ": getSocket()");
    return mPrivate->pipe->socket;
}

bool nqNamedPipe::hasImmediateWork() const
{
    const scripted::Pipe& pipe = *mPrivate->pipe;
    if (!pipe.isConnected)
        return false;
    return pipe.endsWhenDrained || (pipe.unsentBytes() != 0 && !pipe.isCongested);
}

void nqNamedPipe::reportTo(nqWaitSet* set)
{
    scripted::Pipe& pipe = *mPrivate->pipe;
    pipe.reportsTo = set != nullptr && pipe.isConnected ? set->mPrivate->set.get() : nullptr;
}

void nqNamedPipe::closeNamedPipe()
{
    scripted::machine().call(mPrivate->pipe->name + ": closeNamedPipe()");
    mPrivate->pipe->lose();
}

} // namespace nq
