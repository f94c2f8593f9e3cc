#pragma once

#include "system/linux/nqDescriptor.h"

#include <cstddef>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>

namespace nq {

/// The address of a pipe in the kernel's abstract socket namespace.
struct nqPipeAddress {
    sockaddr_un mAddress;
    socklen_t mSize; // exact, since padding would be a part of the name

    const sockaddr* get() const
    {
        return reinterpret_cast<const sockaddr*>(&mAddress);
    }
};

/// Nothing for a name that is empty or too long for the kernel.
std::optional<nqPipeAddress> makePipeAddress(const std::string& name);

/// A stream socket, non-blocking and close-on-exec from birth; not open when none can be made.
nqDescriptor openPipeSocket();

/// Shuts down, then closes, so that the stream ends even while a forked process holds a copy of the
/// descriptor.
void shutDownAndClose(nqDescriptor& socket);

enum class nqTransferOutcome {
    moved,      // mCount bytes, often fewer than offered
    wouldBlock, // nothing now, perhaps later
    closed,     // nothing will ever move in this direction again
};

struct nqTransfer {
    nqTransferOutcome mOutcome;
    std::size_t mCount; // bytes moved
};

/// Sends what the kernel takes at once of `size` bytes, at least 1. A lost peer raises no SIGPIPE.
nqTransfer sendOnce(int socket, const char* bytes, std::size_t size);

/// Receives up to `size` bytes, at least 1, that are there at once.
nqTransfer receiveOnce(int socket, char* bytes, std::size_t size);

/// What receiveOnce would bring, without taking it.
nqTransferOutcome peekOnce(int socket);

} // namespace nq
