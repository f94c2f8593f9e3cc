#pragma once

#include "system/linux/nqAdaptiveSpin.h"

#include <poll.h>

namespace nq {

/// Waits for a socket and for the death of the process behind it, which is the second descriptor.
class nqPipeWait {
public:
    /// Until either is reported, for at most `timeoutMs` milliseconds; the results are then in
    /// `watched`.
    void wait(pollfd (&watched)[2], int timeoutMs);

private:
    bool sleep(pollfd (&watched)[2], int timeoutMs) const;

    nqAdaptiveSpin mSpin;
    bool mLastWaitAnswered = false; // did not time out
};

} // namespace nq
