#include "system/linux/nqShortLook.h"

#include <algorithm>
#include <chrono>

namespace nq {

namespace {

using std::chrono::steady_clock;

constexpr std::chrono::microseconds patience{20}; // as long as a few small jobs take
constexpr unsigned int maxPenalty = 1023;         // looks in vain then cost next to nothing

} // namespace

bool nqShortLook::findsActivity(pollfd* descriptors, nfds_t count)
{
    if (mWaitsToSkip > 0) {
        --mWaitsToSkip;
        return false;
    }
    const steady_clock::time_point end = steady_clock::now() + patience;
    do {
        if (::poll(descriptors, count, 0) > 0) {
            // Not forgotten at once: where everybody shares one processor, a look succeeds now and
            // then because the answerer happened to be let in.
            mPenalty /= 2;
            mWaitsToSkip = mPenalty;
            return true;
        }
        // Not a yield: that would let the answerer run on this very processor and so be rewarded
        // where sleeping is cheaper.
        __builtin_ia32_pause();
    } while (steady_clock::now() < end);
    mPenalty = std::min(2 * mPenalty + 1, maxPenalty);
    mWaitsToSkip = mPenalty;
    return false;
}

} // namespace nq
