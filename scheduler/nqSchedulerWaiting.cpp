#include "include/nqScheduler.h"

#include "scheduler/nqFlagGuard.h"
#include "scheduler/nqSchedulerPrivate.h"

#include <algorithm>
#include <memory>
#include <utility>

namespace nq {

bool nqSchedulerPrivate::hasImmediateWork() const
{
    if (!isPumped())
        return false;
    const bool jobWaits = mQueues->pendingJobCount() != 0;
    const auto hasWork = [&](const auto& worker) { return worker->hasImmediateWork(jobWaits); };
    return mReplacementsDue != 0 || std::any_of(mWorkers.begin(), mWorkers.end(), hasWork);
}

// A pipe that nobody pumps must not report: its news would keep the set readable for good.
void nqSchedulerPrivate::updateWaitSet()
{
    if (mWaitSet == nullptr)
        return;
    for (const std::unique_ptr<nqSchedulerWorker>& worker : mWorkers) {
        if (nqNamedPipe* pipe = worker->pipe())
            pipe->reportTo(isPumped() ? mWaitSet.get() : nullptr);
    }
    mWaitSet->setReady(hasImmediateWork());
}

// Inside an operation the list of workers may be halfway through a change; it updates the set
// later.
void nqSchedulerPrivate::updateReadiness()
{
    if (mWaitSet != nullptr && !mInOperation)
        mWaitSet->setReady(hasImmediateWork());
}

int nqScheduler::waitDescriptor()
{
    if (mPrivate->mWaitSet == nullptr) {
        if (!mPrivate->mayAct())
            return -1;
        const nqFlagGuard operation(mPrivate->mInOperation); // a failure is logged
        auto made = std::make_unique<nqWaitSet>();
        if (made->descriptor() == -1)
            return -1;
        mPrivate->mWaitSet = std::move(made);
        mPrivate->updateWaitSet();
    }
    return mPrivate->mWaitSet->descriptor();
}

bool nqScheduler::hasImmediateWork() const
{
    return mPrivate->mayAct() && mPrivate->hasImmediateWork();
}

} // namespace nq
