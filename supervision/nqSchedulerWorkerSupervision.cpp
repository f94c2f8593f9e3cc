#include "supervision/nqSchedulerWorker.h"

#include "supervision/nqSchedulerWorkerPrivate.h"
#include "system/nqStringUtils.h"

namespace nq {

namespace {

constexpr std::uint64_t msPerSecond = 1000;

/// Truncated, so that a time-out of T seconds acts once T + 1 seconds have passed.
std::uint64_t elapsedWholeSeconds(const nqHighResTimer& timer)
{
    return static_cast<std::uint64_t>(timer.getElapsedTimeInSec());
}

std::string timeoutMessage(std::uint64_t elapsedSeconds)
{
    return "killing scheduler worker : timeout (" +
           nqStringUtils::humanizeDuration<unsigned long>(elapsedSeconds * msPerSecond, 1, false) +
           ")";
}

} // namespace

void nqSchedulerWorker::superviseStep()
{
    nqSchedulerWorkerPrivate& state = *mPrivate;
    if (state.mPipe == nullptr || state.mFinished) {
        state.mFinished = true;
        return;
    }
    if (state.mFailureOwed) {
        storeOwedFailure();
        return;
    }
    state.mPipe->processNamedPipeEvents(0, false);
    if (exceedsLimit()) {
        state.mProcess->killProcess();
        state.mKilled = true;
        return; // the death is noticed by a later step
    }

    const bool hasBytes =
        !state.mPipe->isReadChannelClosed() && !state.mPipe->incomingBuffer().empty();
    const bool jobJustCompleted = hasBytes && receiveStep();
    const bool isLost =
        state.mPipe->isReadChannelClosed() && state.mProcess->getState() != nqProcess::Running;
    if (!isLost && state.mPipe->isConnected())
        sendStep(jobJustCompleted);
    else
        failCurrentJob();
}

/// Whether the worker must be killed now, with the reason stored for the job it may hold. At most
/// once per record. When memory and time are both exceeded, the time-out is what the job reports.
bool nqSchedulerWorker::exceedsLimit()
{
    nqSchedulerWorkerPrivate& state = *mPrivate;
    bool exceeded = false;
    if (state.mMaxCapMemory != 0) {
        const std::uint64_t ramInUse = state.mProcess->getCurrentRamInUse();
        if (ramInUse > state.mMaxCapMemory && !state.mKilled) {
            state.mFailMessage = "using too much RAM (" + memoryText(ramInUse) + ")";
            state.mFailReason = nqScheduler::TooMuchRam; // after the text, which may find no memory
            exceeded = true;
        }
    }
    if (state.mJobProcessTimeout != 0 && !state.mReadyForJob) {
        const std::uint64_t elapsed = elapsedWholeSeconds(state.mJobTimer);
        if (elapsed > state.mJobProcessTimeout && !state.mKilled) {
            state.mFailMessage = timeoutMessage(elapsed);
            state.mFailReason = nqScheduler::Timeout;
            exceeded = true;
        }
    }
    return exceeded;
}

} // namespace nq
