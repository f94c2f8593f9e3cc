#include "tests/model/promises.h"

#include <utility>

namespace model {

namespace {

using Event = nq::nqSchedulerEvent;
using Kind = Event::Kind;

const char* endReasonText(Event::EndReason reason)
{
    switch (reason) {
    case Event::EndReason::Lost:
        return "lost";
    case Event::EndReason::Timeout:
        return "timeout";
    case Event::EndReason::TooMuchMemory:
        return "too much memory";
    case Event::EndReason::MemoryAfterJob:
        return "memory after a job";
    case Event::EndReason::Stopped:
        return "stopped";
    case Event::EndReason::KilledByTheHost:
        return "killed by the host";
    }
    return "?";
}

std::string lineOf(const Event& event)
{
    const std::string message(event.mMessage);
    switch (event.mKind) {
    case Kind::WorkerLaunched:
        return told::launched(event.mPid);
    case Kind::LaunchFailed:
        return told::launchFailed(event.mPid, message);
    case Kind::JobHandedOut:
        return told::handedOut(event.mPid, event.mBytes, event.mUnreadBytes);
    case Kind::ResultComplete:
        return told::result(event.mPid, event.mBytes);
    case Kind::ResultLost:
        return "a result was lost";
    case Kind::JobFailed:
        return told::failed(event.mPid, event.mBytes, event.mFailReason, message);
    case Kind::WorkerEnded:
        return told::ended(
            event.mPid, endReasonText(event.mEndReason), event.mLargestReading.value_or(0));
    }
    return "?";
}

} // namespace

Promises::Promises(std::ostream& report)
    : mReport(report)
{
}

void Promises::onEvent(const Event& event) noexcept
{
    mLines.push_back(lineOf(event));
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
        expect(mBusy.count(event.mPid) == 0, "a worker ends after the outcome of its job");
        return;
    case Kind::WorkerLaunched:
    case Kind::LaunchFailed:
        return;
    }
}

void Promises::onHandedOut(const Event& event)
{
    expect(mBusy.insert(event.mPid).second, "between two jobs of a worker lies an outcome");
    const bool isNext = !mPushed.empty() && mPushed.front() == event.mBytes;
    expect(isNext, "the n-th job handed out is the n-th pushed");
    if (isNext)
        mPushed.pop_front();
}

void Promises::onOutcome(const Event& event)
{
    expect(mBusy.erase(event.mPid) == 1, "an outcome belongs to one job");
}

void Promises::onPush(const common::Bytes& job)
{
    if (!job.empty())
        mPushed.push_back(job.size());
}

void Promises::onClearPendingJobs()
{
    mPushed.clear();
}

void Promises::onPop(const common::Bytes& result)
{
    const bool isNext = !mResults.empty() && mResults.front() == result.size();
    expect(isNext, "the n-th result told is the n-th popped");
    if (isNext)
        mResults.pop_front();
}

void Promises::onPopFail(const common::Failure& failure)
{
    const bool isNext = !mFailures.empty() && mFailures.front().bytes == failure.job.size() &&
                        mFailures.front().reason == failure.reason &&
                        mFailures.front().message == failure.message;
    expect(isNext, "the n-th failure told is the n-th popped");
    if (isNext)
        mFailures.pop_front();
}

void Promises::onReturn()
{
    expect(mCondemned.empty(), "the end of a failed job's worker is told in the same call");
}

std::vector<std::string> Promises::takeLines()
{
    return std::exchange(mLines, {});
}

void Promises::expect(bool holds, const char* promise)
{
    if (!holds)
        mReport << "\n  the observer was promised that " << promise;
}

} // namespace model
