#include "system/linux/nqPipeSocket.h"

#include "system/linux/nqSystemCall.h"

#include <cerrno>
#include <cstddef>
#include <cstring>

namespace nq {

namespace {

// An abstract name begins with a zero byte and does not end in one.
constexpr std::size_t maxNameBytes = sizeof(sockaddr_un::sun_path) - 1;

nqTransfer transferFailure()
{
    switch (errno) {
    case EAGAIN:
    case ENOBUFS:
    case ENOMEM:
        return {nqTransferOutcome::wouldBlock, 0};
    default:
        return {nqTransferOutcome::closed, 0};
    }
}

nqTransfer receive(int socket, char* bytes, std::size_t size, int flags)
{
    const ssize_t received = retryOnSignal([&] { return ::recv(socket, bytes, size, flags); });
    if (received < 0)
        return transferFailure(); // a reset is reported only after the last byte received
    if (received == 0)
        return {nqTransferOutcome::closed, 0};
    return {nqTransferOutcome::moved, static_cast<std::size_t>(received)};
}

} // namespace

std::optional<nqPipeAddress> makePipeAddress(const std::string& name)
{
    if (name.empty() || name.size() > maxNameBytes)
        return std::nullopt;
    nqPipeAddress address{};
    address.mAddress.sun_family = AF_UNIX;
    std::memcpy(address.mAddress.sun_path + 1, name.data(), name.size());
    address.mSize = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    return address;
}

nqDescriptor openPipeSocket()
{
    return nqDescriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

void shutDownAndClose(nqDescriptor& socket)
{
    if (socket.isOpen())
        ::shutdown(socket.get(), SHUT_RDWR);
    socket.close();
}

nqTransfer sendOnce(int socket, const char* bytes, std::size_t size)
{
    const ssize_t sent = retryOnSignal([&] { return ::send(socket, bytes, size, MSG_NOSIGNAL); });
    if (sent < 0)
        return transferFailure();
    return {nqTransferOutcome::moved, static_cast<std::size_t>(sent)};
}

nqTransfer receiveOnce(int socket, char* bytes, std::size_t size)
{
    return receive(socket, bytes, size, 0);
}

nqTransferOutcome peekOnce(int socket)
{
    char next = 0;
    return receive(socket, &next, sizeof next, MSG_PEEK).mOutcome;
}

} // namespace nq
