#include "include/nqScheduler.h"

#include "scheduler/nqSchedulerPrivate.h"

#include <algorithm>
#include <vector>

#include <sys/select.h>

namespace nq {

namespace {

/// What one pass over the workers found out.
struct Pass {
    std::vector<int> mDescriptors;
    bool mAnyPendingWrite = false;
    bool mAnyIdleOrReplaced = false;
    std::uint32_t mReplacedCount = 0;
};

/// Steps every worker and drops the ones that are over. A replacement counts as idle, since it can
/// take a pending job in the next pass.
Pass stepWorkers(std::list<std::unique_ptr<nqSchedulerWorker>>& workers)
{
    Pass pass;
    pass.mDescriptors.reserve(workers.size());
    for (auto it = workers.begin(); it != workers.end();) {
        nqSchedulerWorker& worker = **it;
        worker.superviseStep();
        if (worker.hasFinished()) {
            it->reset();
            it = workers.erase(it);
            ++pass.mReplacedCount;
            pass.mAnyIdleOrReplaced = true;
            continue;
        }
        if (!pass.mAnyPendingWrite)
            pass.mAnyPendingWrite = worker.pipe()->hasPendingWrite();
        const int descriptor = worker.pipe()->getSocket();
        if (descriptor != -1)
            pass.mDescriptors.push_back(descriptor);
        if (!pass.mAnyIdleOrReplaced)
            pass.mAnyIdleOrReplaced = worker.isReadyForJob();
        ++it;
    }
    return pass;
}

/// Sleeps until a worker says something. Why it woke up does not matter: the next pass looks at
/// every worker anyway. The platform reports no descriptor that is too large for a set.
void waitForWorkers(const std::vector<int>& descriptors, int timeoutMs)
{
    fd_set readable;
    fd_set exceptional;
    FD_ZERO(&readable);
    FD_ZERO(&exceptional);
    for (const int descriptor : descriptors) {
        FD_SET(descriptor, &readable);
        FD_SET(descriptor, &exceptional);
    }
    timeval timeout{};
    timeout.tv_sec = timeoutMs / 1000;
    timeout.tv_usec = (timeoutMs % 1000) * 1000;
    const int largest = *std::max_element(descriptors.begin(), descriptors.end());
    ::select(largest + 1, &readable, nullptr, &exceptional, &timeout);
}

} // namespace

void nqScheduler::processScheduler(int timeoutMs)
{
    if (!mPrivate->mStarted)
        return;
    mPrivate->mPipeServer.processPipeServerEvents(0);
    const Pass pass = stepWorkers(mPrivate->mWorkers);

    const bool resultWaits = mPrivate->mQueues->resultCount() != 0;
    const bool jobCanStart = mPrivate->mQueues->pendingJobCount() != 0 && pass.mAnyIdleOrReplaced;
    const bool workIsReady = pass.mAnyPendingWrite || resultWaits || jobCanStart;
    if (timeoutMs > 0 && !workIsReady && !pass.mDescriptors.empty())
        waitForWorkers(pass.mDescriptors, timeoutMs);

    // After the wait, so that the replacements get their first step in the next call. One that
    // cannot be launched is logged and not tried again: the pool is one worker smaller.
    for (std::uint32_t i = 0; i < pass.mReplacedCount; ++i)
        startWorker();
}

} // namespace nq
