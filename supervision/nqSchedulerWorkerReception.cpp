#include "supervision/nqSchedulerWorker.h"

#include "scheduler/nqJobQueues.h"
#include "supervision/nqSchedulerWorkerPrivate.h"
#include "support/nqLogObject.h"
#include "worker/nqFrame.h"

#include <exception>
#include <utility>

namespace nq {

namespace {

/// Writes the line about the job in flight. One that finds no memory is lost, but must not cost the
/// job; its exception is returned.
std::exception_ptr reportFailure(const nqSchedulerWorkerPrivate& state)
{
    try {
        nqLogObject(nqLog::Info, false)
            << "Job failed error (" << std::to_string(state.mFailReason) << ") "
            << state.mFailMessage << " (PID " << std::to_string(state.mPid) << ")";
        return nullptr;
    } catch (const std::exception&) {
        return std::current_exception();
    }
}

} // namespace

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

/// Hands the job in flight, if there is one, back as failed, and ends the record. A failure that
/// finds no memory leaves the record as it is, to be stepped again until the failure is stored.
void nqSchedulerWorker::failCurrentJob()
{
    nqSchedulerWorkerPrivate& state = *mPrivate;
    std::exception_ptr lostLine;
    if (!state.mReadyForJob && state.mQueues != nullptr) {
        if (!state.mFailureOwed)
            lostLine = reportFailure(state);
        handBackFailedJob();
    }
    state.mReadyForJob = true;
    state.mJob.clear();
    state.mFinished = true;
    if (lostLine != nullptr)
        std::rethrow_exception(lostLine);
}

/// Counts the job down when it is called first, and never again.
void nqSchedulerWorker::handBackFailedJob()
{
    nqSchedulerWorkerPrivate& state = *mPrivate;
    nqJobQueues& queues = *state.mQueues;
    if (std::exchange(state.mFailureOwed, true))
        queues.storeFailedJob(std::move(state.mJob), state.mFailReason, state.mFailMessage);
    else
        queues.pushFailedJob(std::move(state.mJob), state.mFailReason, state.mFailMessage);
    state.mFailureOwed = false;
}

void nqSchedulerWorker::storeOwedFailure()
{
    if (mPrivate->mFailureOwed)
        failCurrentJob();
}

} // namespace nq
