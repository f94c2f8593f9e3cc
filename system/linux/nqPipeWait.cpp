#include "system/linux/nqPipeWait.h"

#include "system/linux/nqDeadline.h"

#include <iterator>

namespace nq {

namespace {

// Longer than most jobs take, and soon enough for the news of a death.
constexpr int socketOnlyPollMs = 10;

} // namespace

void nqPipeWait::wait(pollfd (&watched)[2], int timeoutMs)
{
    mLastWaitAnswered = mSpin.spin(watched, std::size(watched)) || sleep(watched, timeoutMs);
}

// Where answers come quickly, the first part of a wait watches the socket alone, which costs less:
// 1.06 times as many small jobs for a processor (`scripts/bench --only echo64-one-processor`). A
// peer that dies then, and leaves its socket to others, is noticed that much later.
bool nqPipeWait::sleep(pollfd (&watched)[2], int timeoutMs) const
{
    const nqDeadline deadline(timeoutMs);
    if (mLastWaitAnswered && timeoutMs > socketOnlyPollMs &&
        ::poll(watched, 1, socketOnlyPollMs) > 0)
        return true;
    return deadline.poll(watched, std::size(watched)) > 0;
}

} // namespace nq
