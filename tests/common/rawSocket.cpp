#include "tests/common/rawSocket.h"

#include "tests/common/waiting.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace common {

namespace {

constexpr int backlog = 8;

std::pair<sockaddr_un, socklen_t> addressOf(const std::string& name)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    return {address, static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size())};
}

bool sendAll(int socket, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t sent = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        } else if (errno == EAGAIN) {
            pollfd writable{socket, POLLOUT, 0};
            ::poll(&writable, 1, -1);
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

} // namespace

Descriptor rawSocket()
{
    return Descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

bool rawConnect(const Descriptor& socket, const std::string& name)
{
    const auto [address, size] = addressOf(name);
    return ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), size) == 0;
}

bool rawListen(const Descriptor& socket, const std::string& name)
{
    const auto [address, size] = addressOf(name);
    return ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), size) == 0 &&
           ::listen(socket.get(), backlog) == 0;
}

bool rawSend(const Descriptor& socket, std::string_view bytes)
{
    return sendAll(socket.get(), bytes);
}

std::string rawReceive(const Descriptor& socket)
{
    char bytes[4096];
    if (!becomesReadable(socket.get()))
        return {};
    const ssize_t count = ::recv(socket.get(), bytes, sizeof bytes, 0);
    return count > 0 ? std::string(bytes, static_cast<std::size_t>(count)) : std::string();
}

bool rawSeesTheEnd(const Descriptor& socket)
{
    char byte = 0;
    if (!becomesReadable(socket.get()))
        return false;
    return ::recv(socket.get(), &byte, 1, MSG_DONTWAIT) == 0;
}

int socketOfPipe()
{
    for (const int descriptor : openDescriptorNumbers()) {
        struct stat status {};
        if (descriptor > STDERR_FILENO && ::fstat(descriptor, &status) == 0 &&
            S_ISSOCK(status.st_mode))
            return descriptor;
    }
    std::fputs("no socket found\n", stderr);
    std::abort();
}

bool sendPastTheLibrary(std::string_view bytes)
{
    return sendAll(socketOfPipe(), bytes);
}

} // namespace common
