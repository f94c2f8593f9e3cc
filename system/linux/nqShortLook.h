#pragma once

#include <poll.h>

namespace nq {

/// A short look at descriptors before a wait goes to sleep on them.
///
/// Waking a sleeping process on another processor takes several times as long as a small job, so
/// what arrives within some tens of microseconds is better not slept for. Where looking does not
/// pay, because the pool is at rest or the one who would answer needs this very processor, it soon
/// stops: each look in vain doubles the number of waits that go without one.
class nqShortLook {
public:
    /// Whether anything was reported; the results are then in `descriptors`, as poll() leaves them.
    bool findsActivity(pollfd* descriptors, nfds_t count);

private:
    unsigned int mWaitsToSkip = 0; // before the next look
    unsigned int mPenalty = 0;     // waits skipped after the last look in vain
};

} // namespace nq
