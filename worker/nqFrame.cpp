#include "worker/nqFrame.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>
#include <utility>

namespace nq {

namespace {

using Header = std::uint32_t;
static_assert(sizeof(Header) == nqFrame::headerBytes);

std::int32_t signedSize(const std::vector<char>& bytes)
{
    return static_cast<std::int32_t>(bytes.size());
}

/// How many of `count` bytes the pipe takes now.
std::size_t fitting(const nqNamedPipe& pipe, std::size_t count)
{
    if (!pipe.isConnected() || pipe.isWriteChannelClosed())
        return 0;
    const std::uint64_t limit = pipe.outgoingBufferLimit();
    const std::uint64_t unsent = pipe.unsentBytes();
    return std::min<std::uint64_t>(count, limit > unsent ? limit - unsent : 0);
}

void eraseFront(std::vector<char>& bytes, std::size_t count)
{
    bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count));
}

/// Old bytes of a spare are not cleared: each is overwritten before the payload is whole, and
/// clearing costs as much as receiving. A size that is negative for the counters counts as whole at
/// once, so its bytes are zeros.
std::vector<char> makePayload(std::size_t size, nqSpareMemory& spares)
{
    std::vector<char> payload = spares.take(size);
    if (size > std::numeric_limits<std::int32_t>::max())
        payload.clear();
    payload.resize(size);
    return payload;
}

/// Takes a header, if it is whole, and gives `payload` its size. False when no payload follows now.
bool startFrame(nqNamedPipe& pipe, std::vector<char>& payload, nqSpareMemory& spares)
{
    std::vector<char>& incoming = pipe.incomingBuffer();
    if (incoming.size() < nqFrame::headerBytes || !pipe.isConnected())
        return false;
    Header length = 0;
    std::memcpy(&length, incoming.data(), sizeof length);
    eraseFront(incoming, nqFrame::headerBytes);
    if (length == 0)
        return false;
    try {
        payload = makePayload(length, spares);
    } catch (...) {
        // The bytes that follow would be read as another header. A length that cannot be
        // allocated costs one job and one exception, and nothing after that.
        pipe.closeNamedPipe();
        throw;
    }
    return true;
}

/// Counts what the pipe has put into the payload, adds what its buffer holds, and offers the pipe
/// the memory for the rest.
void accumulate(nqNamedPipe& pipe, std::vector<char>& payload, std::int32_t& received)
{
    if (!pipe.isConnected())
        return;
    received += static_cast<std::int32_t>(pipe.takeFilled());
    std::vector<char>& incoming = pipe.incomingBuffer();
    const std::int32_t count = std::min(signedSize(incoming), signedSize(payload) - received);
    if (count > 0) {
        std::memcpy(payload.data() + received, incoming.data(), static_cast<std::size_t>(count));
        eraseFront(incoming, static_cast<std::size_t>(count));
        received += count;
    }
    if (received < signedSize(payload)) {
        pipe.fill(payload.data() + received, payload.size() - static_cast<std::size_t>(received));
        received +=
            static_cast<std::int32_t>(pipe.takeFilled()); // some may have been there already
    }
}

} // namespace

void nqFrame::sendHeader(nqNamedPipe& pipe, const std::vector<char>& payload)
{
    const Header length = static_cast<Header>(payload.size());
    char bytes[headerBytes];
    std::memcpy(bytes, &length, sizeof length);
    pipe.copyLent(); // or the header would be sent before what is lent
    std::vector<char>& outgoing = pipe.outgoingBuffer();
    outgoing.insert(outgoing.end(), bytes, bytes + fitting(pipe, sizeof bytes));
}

void nqFrame::sendPayload(nqNamedPipe& pipe, const std::vector<char>& payload, std::int32_t& sent)
{
    if (!isSendPending(payload, sent))
        return;
    const auto left = static_cast<std::size_t>(signedSize(payload) - sent);
    const std::size_t count = fitting(pipe, left);
    if (count == 0)
        return;
    pipe.lend(payload.data() + sent, count);
    sent += static_cast<std::int32_t>(count);
}

bool nqFrame::isSendPending(const std::vector<char>& payload, std::int32_t sent)
{
    return sent < signedSize(payload);
}

bool nqFrame::canReceive(const nqNamedPipe& pipe, const std::vector<char>& payload)
{
    return pipe.untakenBytes() >= (payload.empty() ? headerBytes : 1);
}

bool nqFrame::receive(
    nqNamedPipe& pipe,
    std::vector<char>& payload,
    std::int32_t& received,
    bool mayStart,
    nqSpareMemory& spares)
{
    if (payload.empty() && mayStart) {
        received = 0;
        if (!startFrame(pipe, payload, spares))
            return false;
    }
    accumulate(pipe, payload, received);
    return received >= signedSize(payload);
}

} // namespace nq
