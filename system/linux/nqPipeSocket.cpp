#include "system/linux/nqPipeSocket.h"

#include "system/linux/nqSystemCall.h"

#include <cerrno>
#include <cstddef>
#include <cstring>

namespace nq {

namespace {

// An abstract name begins with a zero byte and needs no other at its end.
constexpr std::size_t maxNameBytes = sizeof(sockaddr_un::sun_path) - 1;

nqTransfer refused()
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
        return refused();
    return {nqTransferOutcome::moved, static_cast<std::size_t>(sent)};
}

nqTransfer receiveOnce(int socket, char* bytes, std::size_t size)
{
    const ssize_t received = retryOnSignal([&] { return ::recv(socket, bytes, size, 0); });
    if (received < 0)
        return refused(); // a reset comes only after the last byte that the peer has sent
    if (received == 0)
        return {nqTransferOutcome::closed, 0};
    return {nqTransferOutcome::moved, static_cast<std::size_t>(received)};
}

} // namespace nq
