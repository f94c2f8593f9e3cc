#include "system/linux/nqShortLook.h"

#include <algorithm>
#include <chrono>

namespace nq {

namespace {

using std::chrono::steady_clock;

constexpr std::chrono::microseconds patience{60}; // twice what a virtual machine takes to wake one
constexpr unsigned int maxPenalty = 4095;         // looks in vain then cost next to nothing

} // namespace

bool nqLookingHabit::wantsToLook()
{
    if (mWaitsToSkip == 0)
        return true;
    --mWaitsToSkip;
    return false;
}

void nqLookingHabit::foundAtOnce()
{
    mWaitsToSkip = mPenalty;
}

// Not forgotten at once: where everybody shares one processor, a look succeeds now and then because
// the answerer happened to be let in.
void nqLookingHabit::foundWhileLooking()
{
    mPenalty /= 2;
    mWaitsToSkip = mPenalty;
}

void nqLookingHabit::foundNothing()
{
    mPenalty = std::min(2 * mPenalty + 1, maxPenalty);
    mWaitsToSkip = mPenalty;
}

bool nqShortLook::findsActivity(pollfd* descriptors, nfds_t count)
{
    if (!mHabit.wantsToLook())
        return false;
    if (::poll(descriptors, count, 0) > 0) {
        mHabit.foundAtOnce();
        return true;
    }
    const steady_clock::time_point end = steady_clock::now() + patience;
    do {
        // Not a yield: that would let the answerer run on this very processor and so be rewarded
        // where sleeping is cheaper.
        __builtin_ia32_pause();
        if (::poll(descriptors, count, 0) > 0) {
            mHabit.foundWhileLooking();
            return true;
        }
    } while (steady_clock::now() < end);
    mHabit.foundNothing();
    return false;
}

} // namespace nq
