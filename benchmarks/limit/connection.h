#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <vector>

namespace bench {

/// The frame that every pool here speaks: the payload's length, then the payload.
constexpr std::size_t headerBytes = sizeof(std::uint32_t);

/// One read of a small frame brings header and payload at once.
constexpr std::size_t smallestBufferBytes = std::size_t{64} << 10;

struct Address {
    sockaddr_un address;
    socklen_t size;

    /// In the abstract namespace.
    explicit Address(const std::string& name);
    const sockaddr* get() const;
};

/// As large as the system grants: a sender that blocks less switches less.
void enlargeSendBuffer(int socket);

/// A frame that arrives into one buffer, which is kept from frame to frame.
class IncomingFrame {
public:
    /// Takes what one system call brings, or on a blocking socket and in the middle of a frame
    /// all that is missing. False when the peer has gone.
    bool receive(int socket, int flags);

    bool isComplete() const;
    char* payload();
    std::size_t payloadBytes() const;

    /// The header and the payload, as they go back on the wire.
    const char* bytes() const;
    std::size_t size() const;

    /// Begins the next one.
    void clear();

private:
    std::vector<char> mBuffer = std::vector<char>(smallestBufferBytes);
    std::size_t mReceived = 0;
};

/// Sends all of it on a blocking socket. False when the peer has gone.
bool sendAll(int socket, const char* bytes, std::size_t size);

} // namespace bench
