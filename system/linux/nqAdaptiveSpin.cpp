#include "system/linux/nqAdaptiveSpin.h"

#include <algorithm>
#include <chrono>

namespace nq {

namespace {

using std::chrono::steady_clock;

constexpr std::chrono::microseconds spinTime{60}; // twice what a virtual machine takes to wake one
constexpr unsigned int maxBackoff = 4095;         // misses then cost next to nothing

/// Leaves a processor's other hardware thread more to do while this one spins. Not a yield to the
/// scheduler: a worker that gets this processor would turn the spin into a hit where sleeping is
/// cheaper.
void relaxProcessor()
{
#if defined(__x86_64__)
    __builtin_ia32_pause();
#else
    asm volatile("yield"); // to the hardware thread, as pause is
#endif
}

} // namespace

bool nqSpinBackoff::countWait()
{
    if (mWaitsToSkip == 0)
        return true;
    --mWaitsToSkip;
    return false;
}

void nqSpinBackoff::noteReadyAtOnce()
{
    mWaitsToSkip = mBackoff;
}

// Halved and not reset: where everybody shares one processor, a spin hits now and then because the
// worker happened to be scheduled.
void nqSpinBackoff::noteHit()
{
    mBackoff /= 2;
    mWaitsToSkip = mBackoff;
}

void nqSpinBackoff::noteMiss()
{
    mBackoff = std::min(2 * mBackoff + 1, maxBackoff);
    mWaitsToSkip = mBackoff;
}

bool nqAdaptiveSpin::spin(pollfd* descriptors, nfds_t count)
{
    if (!mBackoff.countWait())
        return false;
    if (::poll(descriptors, count, 0) > 0) {
        mBackoff.noteReadyAtOnce();
        return true;
    }
    const steady_clock::time_point end = steady_clock::now() + spinTime;
    do {
        relaxProcessor();
        if (::poll(descriptors, count, 0) > 0) {
            mBackoff.noteHit();
            return true;
        }
    } while (steady_clock::now() < end);
    mBackoff.noteMiss();
    return false;
}

} // namespace nq
