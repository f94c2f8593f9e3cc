#pragma once

#include "system/linux/nqAdaptiveSpin.h"
#include "system/linux/nqDescriptor.h"
#include "system/linux/nqPeer.h"
#include "system/linux/nqPipeSocket.h"
#include "system/nqNamedPipe.h"
#include "system/nqOwnerProcess.h"

#include <chrono>
#include <cstddef>
#include <poll.h>
#include <vector>

namespace nq {

/// The state of a pipe. Shared with the server, which makes pipes of the connections that it
/// accepts.
struct nqNamedPipe::Private {
    enum class Phase {
        closed, // no socket, nothing moves
        open,   // bytes may arrive
        ended,  // no more bytes arrive, but the incoming buffer may still hold some
    };

    nqOwnerProcess mOwner; // a forked child's copy moves nothing and ends nothing
    Phase mPhase = Phase::closed;
    nqDescriptor mSocket;      // open unless mPhase is closed
    nqPeer mPeer;              // the process at the other end
    bool mWriteFailed = false; // the peer receives nothing any more; what it sent may still come
    std::vector<char> mIncoming;
    std::vector<char> mOutgoing;
    bool mExpectsBulk = false;               // the last read filled the room it was given
    bool mCongested = false;                 // the last write was short or refused
    bool mSocketDrained = false;             // the last read took all that had arrived
    bool mSkippedReadAfterWrite = false;     // the last call wrote and did not read
    nqAdaptiveSpin mSpin;                    // before a wait sleeps
    bool mAnswersAreQuick = false;           // the last wait did not time out
    std::size_t mUnreadAfterLastCall = 0;    // size of mIncoming when the last call returned
    std::chrono::milliseconds mLastProbe{0}; // when the peer was last probed

    /// Opens the pipe over a connected socket.
    void adopt(nqDescriptor socket, nqPeer peer);

    /// Closes the socket and empties both buffers.
    void close();

    bool isConnected() const;
    bool isWriteChannelClosed() const;
    bool hasPendingWrite() const;
    bool isIncomingFull() const;

    /// One call of processNamedPipeEvents on a pipe that is not closed.
    void processEvents(int timeoutMs, bool wait);

private:
    bool isUndrained() const;
    bool probeEnd();
    bool probeHangUp();
    bool probePeer();
    bool writePending();
    bool isWritable() const;
    bool readAvailable(bool mayStopAtShortCount);
    nqTransfer readAside(std::size_t wanted);
    nqTransfer readInPlace(std::size_t wanted);
    void waitForActivity(int timeoutMs);
    bool pollFor(int timeoutMs, pollfd* watched, nfds_t count) const;
    void moveIntoRangeOfSelect();
};

} // namespace nq
