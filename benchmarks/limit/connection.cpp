#include "benchmarks/limit/connection.h"

#include <cerrno>
#include <cstring>

namespace bench {

namespace {

constexpr int sendBufferBytes = 4 << 20;

} // namespace

Address::Address(const std::string& name)
    : address{},
      size(static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size()))
{
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.data(), name.size());
}

const sockaddr* Address::get() const
{
    return reinterpret_cast<const sockaddr*>(&address);
}

void enlargeSendBuffer(int socket)
{
    const int wanted = sendBufferBytes;
    if (::setsockopt(socket, SOL_SOCKET, SO_SNDBUFFORCE, &wanted, sizeof wanted) != 0)
        ::setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &wanted, sizeof wanted);
}

bool IncomingFrame::receive(int socket, int flags)
{
    const bool headerIsThere = mReceived >= headerBytes;
    if (headerIsThere && mBuffer.size() < size())
        mBuffer.resize(size());
    const std::size_t end = headerIsThere ? size() : mBuffer.size();
    const int allOrSome = headerIsThere ? flags : flags & ~MSG_WAITALL;
    const ssize_t count = ::recv(socket, mBuffer.data() + mReceived, end - mReceived, allOrSome);
    if (count > 0)
        mReceived += static_cast<std::size_t>(count);
    return count > 0 || (count < 0 && (errno == EAGAIN || errno == EINTR));
}

bool IncomingFrame::isComplete() const
{
    return mReceived >= headerBytes && mReceived == size();
}

char* IncomingFrame::payload()
{
    return mBuffer.data() + headerBytes;
}

std::size_t IncomingFrame::payloadBytes() const
{
    std::uint32_t length = 0;
    std::memcpy(&length, mBuffer.data(), sizeof length);
    return length;
}

const char* IncomingFrame::bytes() const
{
    return mBuffer.data();
}

std::size_t IncomingFrame::size() const
{
    return headerBytes + payloadBytes();
}

void IncomingFrame::clear()
{
    mReceived = 0;
}

bool sendAll(int socket, const char* bytes, std::size_t size)
{
    while (size != 0) {
        const ssize_t sent = ::send(socket, bytes, size, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent < 0)
            return false;
        bytes += sent;
        size -= static_cast<std::size_t>(sent);
    }
    return true;
}

} // namespace bench
