#pragma once

#include "system/linux/nqDescriptor.h"
#include "system/linux/nqIncomingBytes.h"
#include "system/linux/nqOutgoingBytes.h"
#include "system/linux/nqPeer.h"
#include "system/linux/nqPipeWait.h"
#include "system/linux/nqSkippedRead.h"
#include "system/linux/nqWatchedDescriptor.h"
#include "system/nqNamedPipe.h"
#include "system/nqOwnerProcess.h"

#include <chrono>
#include <cstddef>

namespace nq {

/// What a pipe consists of. Shared by the pipe itself and the server, which makes pipes of the
/// connections that it accepts.
struct nqNamedPipe::Private {
    enum class Phase {
        closed, // no socket, nothing moves
        open,   // bytes may arrive
        ended,  // no more bytes arrive, but some may still be taken
    };

    nqOwnerProcess mOwner; // a forked child's copy moves nothing and ends nothing
    Phase mPhase = Phase::closed;
    nqWatchedDescriptor mSocket; // open unless the phase is closed
    nqPeer mPeer;                // who is at the other end of it
    nqOutgoingBytes mOutgoing;
    nqIncomingBytes mIncoming;
    bool mIsMoreForRange = false;       // the last read left bytes that a range could take
    bool mWriteFailed = false;          // the peer takes nothing any more; it may have sent bytes
    bool mIsCongested = false;          // the kernel had no room for all that waited
    std::size_t mUntakenByLastCall = 0; // of mIncoming, when the last call returned
    std::chrono::milliseconds mLastProbe{0}; // when the peer's life was last looked at
    bool mLastCallWasEmpty = false;          // it received nothing
    nqSkippedRead mSkippedRead;
    nqPipeWait mWait;

    /// Makes a closed pipe an open one.
    void adopt(nqDescriptor socket, nqPeer peer);

    /// Gives up the socket and all bytes.
    void close();

    bool isConnected() const
    {
        return mPhase == Phase::open || (mPhase == Phase::ended && mIncoming.untakenBytes() != 0);
    }
    bool isWriteChannelClosed() const;
    bool hasPendingWrite() const;
    bool hasImmediateWork() const;

    /// One call of processNamedPipeEvents on a pipe that is not closed.
    void processEvents(int timeoutMs, bool wait);

    void fill(char* bytes, std::size_t size);
    /// Keeps the entries in `set` up to date; null takes them out.
    void reportTo(nqEpoll* set);

private:
    bool write();
    bool read(bool mayStopAtShortCount);
    void peek();
    bool probePeer(bool hasReceived);
    void wait(int timeoutMs);

    bool probeAbandonment();
    void moveIntoRangeOfSelect();
};

} // namespace nq
