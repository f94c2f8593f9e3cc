#include "include/nqScheduler.h"

#include "scheduler/nqFlagGuard.h"
#include "scheduler/nqSchedulerPrivate.h"
#include "supervision/nqWorkerLaunch.h"

#include <utility>

namespace nq {

bool nqSchedulerPrivate::addWorker()
{
    const nqWorkerLaunch launch{
        mExeUtf8Path,
        mArgumentsUtf8,
        mPrependChannelId,
        mPipeName,
        mStartProcessFlag,
        mWorkerConnectionTimeout,
        mMaxPhysicalMemory,
        mMaxCapMemory,
        mJobProcessTimeout,
        mMaxCapMemoryAfterProcessingAJob};
    std::unique_ptr<nqSchedulerWorker> worker = launchWorker(launch, mPipeServer, mQueues.get());
    if (worker == nullptr)
        return false;
    mWorkers.push_back(std::move(worker));
    return true;
}

bool nqScheduler::startWorker()
{
    if (!mPrivate->mayAct())
        return false;
    const nqFlagGuard pass(mPrivate->mInPass);
    return mPrivate->addWorker();
}

} // namespace nq
