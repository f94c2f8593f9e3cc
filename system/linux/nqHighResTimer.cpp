#include "system/nqHighResTimer.h"

namespace nq {

void nqHighResTimer::start()
{
    mStart = std::chrono::steady_clock::now();
    mIsStarted = true;
}

double nqHighResTimer::getElapsedTimeInSec() const
{
    if (!mIsStarted)
        return 0;
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - mStart).count();
}

} // namespace nq
