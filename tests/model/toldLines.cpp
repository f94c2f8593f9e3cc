#include "tests/model/toldLines.h"

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

void ToldLines::onEvent(const Event& event) noexcept
{
    mLines.push_back(lineOf(event));
    Promises::onEvent(event);
}

std::vector<std::string> ToldLines::takeLines()
{
    return std::exchange(mLines, {});
}

} // namespace model
