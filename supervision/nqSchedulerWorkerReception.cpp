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
    std::vector<char> spare;
    if (state.mResult.empty() && state.mQueues != nullptr)
        spare = state.mQueues->takeSpare(nqFrame::announcedBytes(*state.mPipe));
    if (!nqFrame::receive(*state.mPipe, state.mResult, state.mReceived, true, std::move(spare)))
        return false;

    // The record lets go of the job before the queue, which may find no memory, takes the result: a
    // job that is over must not be failed and counted down once more when the worker ends.
    std::vector<char> result;
    result.swap(state.mResult);
    std::vector<char> job;
    job.swap(state.mJob);
    state.mReadyForJob = true;
    state.mReceived = 0;
    if (state.mQueues != nullptr) {
        state.mQueues->pushResult(std::move(result));
        state.mQueues->recycle(std::move(job));
    }
    return true;
}

/// Ends the record, and hands the job in flight, if there is one, back as failed. The record is
/// over before anything can find no memory, for the same reason as above.
void nqSchedulerWorker::failCurrentJob()
{
    nqSchedulerWorkerPrivate& state = *mPrivate;
    const bool hadJob = !state.mReadyForJob;
    std::vector<char> job;
    job.swap(state.mJob);
    state.mReadyForJob = true;
    state.mFinished = true;
    if (!hadJob || state.mQueues == nullptr)
        return;
    try {
        nqLogObject(nqLog::Info, false)
            << "Job failed error (" << std::to_string(state.mFailReason) << ") "
            << state.mFailMessage << " (PID " << std::to_string(state.mPid) << ")";
    } catch (...) {
        // A line of the log may be lost for want of memory, but not the job.
        state.mQueues->pushFailedJob(std::move(job), state.mFailReason, state.mFailMessage);
        throw;
    }
    state.mQueues->pushFailedJob(std::move(job), state.mFailReason, state.mFailMessage);
}

} // namespace nq
