#include "pool/nqEndNames.h"

#include "pool/include/nqPoolStatistics.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace nq {

namespace {

using Reason = nqAttempt::Reason;

constexpr std::array<std::string_view, nqPoolStatistics::reasons> reasonNames{
    "done",
    "crashed",
    "exited",
    "memory_cap",
    "timeout",
    "deadline",
    "exception",
    "result_lost",
    "no_worker",
    "cancelled",
    "stopped",
    "lost"};

} // namespace

std::string_view nameOf(Reason reason)
{
    return reasonNames[static_cast<std::size_t>(reason)];
}

Reason reasonNamed(std::string_view name)
{
    const auto found = std::find(reasonNames.begin(), reasonNames.end(), name);
    return found == reasonNames.end() ? Reason::ResultLost
                                      : static_cast<Reason>(found - reasonNames.begin());
}

std::string_view nameOf(nqWorkerEnd end)
{
    switch (end) {
    case nqWorkerEnd::Crashed:
        return "crashed";
    case nqWorkerEnd::Exited:
        return "exited";
    case nqWorkerEnd::MemoryCap:
        return "memory_cap";
    case nqWorkerEnd::Timeout:
        return "timeout";
    case nqWorkerEnd::Deadline:
        return "deadline";
    case nqWorkerEnd::Cancelled:
        return "cancelled";
    case nqWorkerEnd::OutOfStep:
        return "out_of_step";
    case nqWorkerEnd::Recycled:
        return "recycled";
    case nqWorkerEnd::LaunchFailed:
        return "launch_failed";
    case nqWorkerEnd::Stopped:
        return "stopped";
    }
    return "stopped";
}

nqWorkerEnd endFor(Reason reason)
{
    switch (reason) {
    case Reason::Exited:
        return nqWorkerEnd::Exited;
    case Reason::MemoryCap:
        return nqWorkerEnd::MemoryCap;
    case Reason::Timeout:
        return nqWorkerEnd::Timeout;
    case Reason::Deadline:
        return nqWorkerEnd::Deadline;
    case Reason::ResultLost:
        return nqWorkerEnd::OutOfStep;
    case Reason::Cancelled:
        return nqWorkerEnd::Cancelled;
    case Reason::Stopped:
        return nqWorkerEnd::Stopped;
    case Reason::Crashed:
    case Reason::None:
    case Reason::Exception:
    case Reason::NoWorker:
    case Reason::Lost:
        return nqWorkerEnd::Crashed;
    }
    return nqWorkerEnd::Crashed;
}

} // namespace nq
