#include "supervision/nqSchedulerWorker.h"

#include "scheduler/nqJobQueues.h"
#include "supervision/nqSchedulerWorkerPrivate.h"
#include "support/nqLogObject.h"
#include "worker/nqFrame.h"

#include <string_view>

namespace nq {

namespace {

constexpr std::string_view unexpectedCrash = "Unexpected crash";

} // namespace

void nqSchedulerWorker::sendStep(bool jobJustCompleted)
{
    nqSchedulerWorkerPrivate& state = *mPrivate;
    if (state.mReadyForJob) {
        if (state.mQueues == nullptr)
            return;
        if (jobJustCompleted && restartIfTooMuchRam())
            return;
        state.mSent = 0;
        // A job starts only when everything before it has left the buffer: its header needs room.
        if (!state.mPipe->outgoingBuffer().empty() || !startNextJob())
            return;
    }
    nqFrame::sendPayload(*state.mPipe, state.mJob, state.mSent);
}

/// The memory check right after a job, while the worker holds none, so that no job is lost. The
/// closed pipe tells the worker to leave; the pump waits for it and launches the replacement.
bool nqSchedulerWorker::restartIfTooMuchRam()
{
    nqSchedulerWorkerPrivate& state = *mPrivate;
    if (state.mMaxCapMemoryAfterProcessingAJob == 0)
        return false;
    const std::uint64_t ramInUse = state.mProcess->getCurrentRamInUse();
    if (ramInUse <= state.mMaxCapMemoryAfterProcessingAJob)
        return false;

    closePipe();
    state.mFinished = true;
    nqLogObject(nqLog::Info, false)
        << "restarting scheduler worker : using too much RAM after job processing ("
        << memoryText(ramInUse) << ") (no job lost) (PID " << std::to_string(state.mPid) << ")";
    return true;
}

/// Takes the oldest pending job and sends its header. An empty job is dropped here: it is never
/// sent, and the queues count it as in progress for ever.
bool nqSchedulerWorker::startNextJob()
{
    nqSchedulerWorkerPrivate& state = *mPrivate;
    // What can run out of memory comes first: once taken, the job must have its failure armed and
    // its header sent.
    state.mFailMessage.reserve(unexpectedCrash.size());
    state.mPipe->outgoingBuffer().reserve(nqFrame::headerBytes);
    if (state.mKilled || !state.mQueues->takeNextJob(state.mJob) || state.mJob.empty())
        return false;
    state.mReadyForJob = false;
    state.mFailReason = nqScheduler::UnexpectedCrash;
    state.mFailMessage = unexpectedCrash;
    state.mJobTimer.start();
    nqFrame::sendHeader(*state.mPipe, state.mJob);
    return true;
}

} // namespace nq
