#include "include/nqScheduler.h"

#include "scheduler/nqSchedulerPrivate.h"
#include "support/nqLogObject.h"
#include "system/nqSystemUtils.h"

#include <algorithm>
#include <string>

namespace nq {

namespace {

constexpr int pumpSliceMs = 10;                 // keeps a wait for the last job responsive
constexpr unsigned int workerLeaveMs = 30'000;  // for a worker that saves its work before it leaves
constexpr std::int32_t smallestWorkerLimit = 4; // even one processor can overlap some waiting

std::uint64_t workerLimit()
{
    const std::int32_t twicePerThread = 2 * nqSystemUtils::GetIdealThreadCount();
    return static_cast<std::uint64_t>(std::int64_t{std::max(twicePerThread, smallestWorkerLimit)});
}

/// Sets a flag for as long as it lives.
class FlagGuard {
public:
    explicit FlagGuard(bool& flag)
        : mFlag(flag)
    {
        mFlag = true;
    }
    ~FlagGuard()
    {
        mFlag = false;
    }
    FlagGuard(const FlagGuard&) = delete;
    FlagGuard& operator=(const FlagGuard&) = delete;

private:
    bool& mFlag;
};

/// The closed pipe tells the worker to leave; only one that does not is killed.
void endWorker(nqSchedulerWorker& worker)
{
    nqProcess* process = worker.process();
    worker.closePipe();
    if (process->getState() != nqProcess::Running)
        return;
    process->waitForFinished(workerLeaveMs);
    if (process->getState() != nqProcess::Running)
        return;
    process->killProcess();
    process->waitForFinished(0);
}

} // namespace

nqScheduler::~nqScheduler()
{
    stopScheduler();
}

bool nqScheduler::startScheduler(unsigned long nbWorkers, int workerConnectionTimeout)
{
    if (mPrivate->mStarted) {
        nqLogObject(nqLog::Warning, true) << "Cannot startScheduler - already started";
        return false;
    }
    mPrivate->mWorkerConnectionTimeout = workerConnectionTimeout;
    if (!mPrivate->mPipeServer.listenUtf8(mPrivate->mPipeName)) {
        nqLogObject(nqLog::Error, true) << "Fail to startScheduler - cannot listen";
        return false;
    }

    const std::uint64_t limit = workerLimit();
    mPrivate->mNbWorkers = nbWorkers;
    if (nbWorkers > limit) {
        // A refusal, whatever the text says: nothing is launched, and the server stays open.
        nqLogObject(nqLog::Warning, true) << "Too many workers (" << std::to_string(nbWorkers)
                                          << "), limit to ideal thread count";
        return false;
    }

    bool allLaunched = true;
    for (std::uint64_t i = 0; i < mPrivate->mNbWorkers; ++i)
        allLaunched = startWorker() && allLaunched;
    mPrivate->mStarted = allLaunched;
    return allLaunched;
}

void nqScheduler::waitForFinished()
{
    if (!mPrivate->mStarted || mPrivate->mWaitingForFinished)
        return;
    const FlagGuard waiting(mPrivate->mWaitingForFinished);
    while (!mPrivate->mQueues->allJobsDone())
        processScheduler(pumpSliceMs);
    // A failure that has found no memory is not counted any more.
    for (const std::unique_ptr<nqSchedulerWorker>& worker : mPrivate->mWorkers)
        worker->storeOwedFailure();
}

bool nqScheduler::stopScheduler()
{
    if (!mPrivate->mStarted)
        return false;
    waitForFinished();
    mPrivate->mPipeServer.closeNamedPipeServer();
    for (std::unique_ptr<nqSchedulerWorker>& worker : mPrivate->mWorkers) {
        if (worker == nullptr)
            continue;
        endWorker(*worker);
        worker.reset();
    }
    mPrivate->mWorkers.clear();
    mPrivate->mStarted = false;
    return true;
}

} // namespace nq
