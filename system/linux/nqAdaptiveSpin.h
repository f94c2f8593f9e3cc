#pragma once

#include <poll.h>

namespace nq {

/// How often a wait begins with a spin: each miss doubles the number of waits that skip it, each
/// hit halves it.
class nqSpinBackoff {
public:
    /// Counts a wait. True when it begins with a spin, whose outcome is then noted by one of the
    /// operations below.
    bool countWait();

    /// Ready before the spin began. Sleeping would have been as fast, so this changes nothing.
    void noteReadyAtOnce();

    void noteHit();
    void noteMiss();

private:
    unsigned int mWaitsToSkip = 0; // before the next spin
    unsigned int mBackoff = 0;     // waits skipped after a spin
};

/// A short adaptive spin before a wait goes to sleep.
///
/// Waking a process on another processor takes several times as long as a small job, so an answer
/// that arrives within some tens of microseconds is better not slept for: 2.3 to 2.7 times as many
/// small jobs (`scripts/bench --only echo64-two-processors`). Where spinning does not pay, because
/// the pool is idle or the worker needs this very processor, it soon becomes rare.
class nqAdaptiveSpin {
public:
    /// Polls for a moment, unless the backoff skips this wait. True when anything was reported; the
    /// results are then in `descriptors`, as poll() leaves them.
    bool spin(pollfd* descriptors, nfds_t count);

private:
    nqSpinBackoff mBackoff;
};

} // namespace nq
