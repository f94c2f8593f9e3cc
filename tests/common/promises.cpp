#include "tests/common/promises.h"

#include <utility>

namespace common {

using Event = nq::nqSchedulerEvent;
using Kind = Event::Kind;

void Promises::onEvent(const Event& event) noexcept
{
    switch (event.mKind) {
    case Kind::JobHandedOut:
        return onHandedOut(event);
    case Kind::ResultComplete:
        mResults.push_back(event.mBytes);
        return onOutcome(event);
    case Kind::ResultLost:
        return onOutcome(event);
    case Kind::JobFailed:
        mFailures.push_back({event.mBytes, event.mFailReason, std::string(event.mMessage)});
        mCondemned.insert(event.mPid);
        return onOutcome(event);
    case Kind::WorkerEnded:
        mCondemned.erase(event.mPid);
        require(mBusy.count(event.mPid) == 0, "a worker ends after the outcome of its job");
        return;
    case Kind::WorkerLaunched:
    case Kind::LaunchFailed:
        return;
    }
}

void Promises::onHandedOut(const Event& event)
{
    require(mBusy.insert(event.mPid).second, "between two jobs of a worker lies an outcome");
    const bool isNext = !mPushed.empty() && mPushed.front() == event.mBytes;
    require(isNext, "the n-th job handed out is the n-th pushed");
    if (isNext)
        mPushed.pop_front();
}

void Promises::onOutcome(const Event& event)
{
    require(mBusy.erase(event.mPid) == 1, "an outcome belongs to one job");
}

void Promises::onPush(const Bytes& job)
{
    if (!job.empty())
        mPushed.push_back(job.size());
}

void Promises::onClearPendingJobs()
{
    mPushed.clear();
}

void Promises::onPop(const Bytes& result)
{
    const bool isNext = !mResults.empty() && mResults.front() == result.size();
    require(isNext, "the n-th result told is the n-th popped");
    if (isNext)
        mResults.pop_front();
}

void Promises::onPopFail(const Failure& failure)
{
    const bool isNext = !mFailures.empty() && mFailures.front().bytes == failure.job.size() &&
                        mFailures.front().reason == failure.reason &&
                        mFailures.front().message == failure.message;
    require(isNext, "the n-th failure told is the n-th popped");
    if (isNext)
        mFailures.pop_front();
}

void Promises::onReturn()
{
    require(mCondemned.empty(), "the end of a failed job's worker is told in the same call");
}

std::string Promises::takeBroken()
{
    return std::exchange(mBroken, {});
}

void Promises::require(bool holds, const char* promise)
{
    if (!holds)
        mBroken += std::string("\n  the observer was promised that ") + promise;
}

} // namespace common
