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
    socklen_t mSize; // counts the bytes of the name exactly, so that no name is padded into another

    const sockaddr* get() const
    {
        return reinterpret_cast<const sockaddr*>(&mAddress);
    }
};

/// Nothing for a name that is empty or longer than the kernel takes.
std::optional<nqPipeAddress> makePipeAddress(const std::string& name);

/// A stream socket, non-blocking and close-on-exec from birth; not open when there is none to have.
nqDescriptor openPipeSocket();

/// Shuts down, then closes: a process that was forked meanwhile may hold a copy of the descriptor,
/// and must not keep the stream alive with it.
void shutDownAndClose(nqDescriptor& socket);

enum class nqTransferOutcome {
    moved,      // the count says how many bytes, often fewer than offered
    wouldBlock, // nothing now, perhaps later
    closed,     // nothing will move in this direction any more
};

struct nqTransfer {
    nqTransferOutcome mOutcome;
    std::size_t mCount; // bytes moved
};

/// Offers `size` bytes, more than none, to the kernel once. A lost peer raises no SIGPIPE.
nqTransfer sendOnce(int socket, const char* bytes, std::size_t size);

/// Takes up to `size` bytes, more than none, from the kernel once.
nqTransfer receiveOnce(int socket, char* bytes, std::size_t size);

} // namespace nq
