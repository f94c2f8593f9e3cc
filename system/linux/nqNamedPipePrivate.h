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

/// What a pipe consists of. Shared by the pipe itself and the server, which makes pipes of the
/// connections that it accepts.
struct nqNamedPipe::Private {
    enum class Phase {
        closed, // no socket, nothing moves
        open,   // bytes may arrive
        ended,  // no more bytes arrive, but some in the incoming buffer may still be taken
    };

    nqOwnerProcess mOwner; // a forked child's copy moves nothing and ends nothing
    Phase mPhase = Phase::closed;
    nqDescriptor mSocket;      // open unless the phase is closed
    nqPeer mPeer;              // who is at the other end of it
    bool mWriteFailed = false; // the peer takes nothing any more; it may still have sent something
    std::vector<char> mIncoming;
    std::vector<char> mOutgoing;
    bool mExpectsMuch = false;                // the last read filled the room it was given
    bool mCongested = false;                  // the last write found too little room
    bool mSavedReadAfterWrite = false;        // the last call wrote and did not read
    bool mLeftDry = false;                    // the last read took all that the socket held
    nqAdaptiveSpin mSpin;                     // before a wait sleeps
    bool mWaitsAreShort = false;              // the last wait was not in vain
    std::size_t mLeftByLastCall = 0;          // bytes in mIncoming when the last call returned
    std::chrono::milliseconds mLastLookAt{0}; // when the peer's life was last looked at

    /// Makes a closed pipe an open one.
    void adopt(nqDescriptor socket, nqPeer peer);

    /// Gives up the socket and what both buffers hold.
    void close();

    bool isConnected() const;
    bool isWriteChannelClosed() const;
    bool hasPendingWrite() const;
    bool isIncomingFull() const;

    /// One call of processNamedPipeEvents on a pipe that is not closed.
    void processEvents(int timeoutMs, bool wait);

private:
    bool isForsaken();
    bool writePending();
    bool hasRoomForMore() const;
    bool readAvailable(bool mayStopAtShortCount);
    nqTransfer readAside(std::size_t wanted);
    nqTransfer readInPlace(std::size_t wanted);
    bool isPeerFoundDead();
    bool hasPeerLeft();
    void waitForActivity(int timeoutMs);
    bool isReportedWithin(int timeoutMs, pollfd* watched, nfds_t count) const;
    void moveIntoRangeOfSelect();
};

} // namespace nq
