#include "include/nqScheduler.h"

#include "scheduler/nqSchedulerPrivate.h"
#include "supervision/nqWorkerLaunch.h"

#include <utility>

namespace nq {

bool nqScheduler::startWorker()
{
    nqSchedulerPrivate& state = *mPrivate;
    const nqWorkerLaunch launch{
        state.mExeUtf8Path,
        state.mArgumentsUtf8,
        state.mPrependChannelId,
        state.mPipeName,
        state.mStartProcessFlag,
        state.mWorkerConnectionTimeout,
        state.mMaxPhysicalMemory,
        state.mMaxCapMemory,
        state.mJobProcessTimeout,
        state.mMaxCapMemoryAfterProcessingAJob};
    std::unique_ptr<nqSchedulerWorker> worker =
        launchWorker(launch, state.mPipeServer, state.mQueues.get());
    if (worker == nullptr)
        return false;
    state.mWorkers.push_back(std::move(worker));
    return true;
}

} // namespace nq
