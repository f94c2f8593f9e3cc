#include "pool/nqWorkFailure.h"

namespace nq {

nqJobFailure::nqJobFailure(nqAttempt::Reason why, const std::string& message)
    : std::runtime_error(message),
      reason(why)
{
}

// Here, so that its type information exists once.
nqJobFailure::~nqJobFailure() = default;

nqAttempt::Reason reasonToTell(nqAttempt::Reason reason)
{
    using Reason = nqAttempt::Reason;
    switch (reason) {
    case Reason::Crashed:
    case Reason::Exited:
    case Reason::MemoryCap:
    case Reason::Timeout:
    case Reason::Exception:
        return reason;
    case Reason::None:
    case Reason::Deadline:
    case Reason::ResultLost:
    case Reason::NoWorker:
    case Reason::Cancelled:
    case Reason::Stopped:
    case Reason::Lost:
        break;
    }
    return Reason::Exception;
}

nqAttempt attemptOf(const nqJobFailure& failure)
{
    nqAttempt told;
    told.reason = reasonToTell(failure.reason);
    told.toldByWorker = true;
    told.exitStatus = failure.exitStatus;
    told.signal = failure.signal;
    told.dumpedCore = failure.dumpedCore;
    told.peakMemory = failure.peakMemory;
    return told;
}

} // namespace nq
