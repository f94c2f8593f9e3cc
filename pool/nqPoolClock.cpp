#include "pool/nqPoolClock.h"

namespace nq {

nqPoolClock::TimePoint nqPoolClock::now()
{
    return std::chrono::steady_clock::now();
}

} // namespace nq
