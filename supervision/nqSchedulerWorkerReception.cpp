#include "supervision/nqSchedulerWorker.h"

#include "scheduler/nqJobQueues.h"
#include "supervision/nqSchedulerWorkerPrivate.h"
#include "support/nqLogObject.h"
#include "worker/nqFrame.h"

#include <utility>

namespace nq {

/// True when a whole result was taken in now. What a worker sends without a job stays unread.
bool nqSchedulerWorker::receiveStep()
{
    nqSchedulerWorkerPrivate& state = *mPrivate;
    if (state.mReadyForJob)
        return false;
    if (!nqFrame::receive(*state.mPipe, state.mResult, state.mReceived, true))
        return false;
    if (state.mQueues != nullptr)
        state.mQueues->pushResult(std::move(state.mResult));
    state.mResult.clear();
    state.mJob.clear();
    state.mReadyForJob = true;
    state.mReceived = 0;
    return true;
}

/// Ends the record, and hands the job in flight, if there is one, back as failed.
void nqSchedulerWorker::failCurrentJob()
{
    nqSchedulerWorkerPrivate& state = *mPrivate;
    if (!state.mReadyForJob) {
        if (state.mQueues != nullptr) {
            nqLogObject(nqLog::Info, false)
                << "Job failed error (" << std::to_string(state.mFailReason) << ") "
                << state.mFailMessage << " (PID " << std::to_string(state.mPid) << ")";
            state.mQueues->pushFailedJob(state.mJob, state.mFailReason, state.mFailMessage);
        }
        state.mReadyForJob = true;
        state.mJob.clear();
    }
    state.mFinished = true;
}

} // namespace nq
