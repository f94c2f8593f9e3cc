#pragma once

#include <poll.h>

namespace nq {

/// How often to look before a wait, learnt from what looks have found: each look in vain doubles
/// the number of waits that go without one, each that paid halves it.
class nqLookingHabit {
public:
    /// Whether this wait begins with a look. If so, one of the others is to be called afterwards.
    bool wantsToLook();

    /// It was there already. A wait would have returned as fast, so this says nothing about
    /// looking.
    void foundAtOnce();

    void foundWhileLooking();
    void foundNothing();

private:
    unsigned int mWaitsToSkip = 0; // before the next look
    unsigned int mPenalty = 0;     // waits skipped after a look
};

/// A short look at descriptors before a wait goes to sleep on them.
///
/// Waking a sleeping process on another processor takes several times as long as a small job, so
/// what arrives within some tens of microseconds is better not slept for. Where looking does not
/// pay, because the pool is at rest or the one who would answer needs this very processor, it soon
/// becomes rare.
class nqShortLook {
public:
    /// Whether anything was reported; the results are then in `descriptors`, as poll() leaves them.
    bool findsActivity(pollfd* descriptors, nfds_t count);

private:
    nqLookingHabit mHabit;
};

} // namespace nq
