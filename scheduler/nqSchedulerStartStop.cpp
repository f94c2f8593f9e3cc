#include "include/nqScheduler.h"

#include "scheduler/nqFlagGuard.h"
#include "scheduler/nqSchedulerPrivate.h"
#include "support/nqLogObject.h"
#include "system/nqSystemUtils.h"
#include "system/nqThread.h"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <utility>

namespace nq {

namespace {

constexpr int pumpSliceMs = 10;                 // keeps a wait for the last job responsive
constexpr std::int32_t smallestWorkerLimit = 4; // even one processor can overlap some waiting

std::uint64_t workerLimit()
{
    const std::int32_t twicePerThread = 2 * nqSystemUtils::GetIdealThreadCount();
    return static_cast<std::uint64_t>(std::int64_t{std::max(twicePerThread, smallestWorkerLimit)});
}

/// The closed pipe tells the worker to leave; only one that does not is killed.
void endWorker(nqSchedulerWorker& worker)
{
    nqProcess* process = worker.process();
    {
        const nqThread::Uncancellable held;
        worker.closePipe();
    }
    if (nqSchedulerWorker::leavesInTime(*process))
        return;
    process->killProcess();
    process->waitForFinished(0);
}

} // namespace

bool nqSchedulerPrivate::start(std::uint64_t nbWorkers, std::int32_t workerConnectionTimeout)
{
    if (mStarted) {
        nqLogObject(nqLog::Warning, true) << "Cannot startScheduler - already started";
        updateWaitSet(); // the logger may have pushed
        return false;
    }
    mStandardErrors.dropEnded();
    mWorkerConnectionTimeout = workerConnectionTimeout;
    if (!mPipeServer.listenUtf8(mPipeName)) {
        nqLogObject(nqLog::Error, true) << "Fail to startScheduler - cannot listen";
        return false;
    }

    const std::uint64_t limit = workerLimit();
    mNbWorkers = nbWorkers;
    if (nbWorkers > limit) {
        // A refusal, whatever the text says: nothing is launched, and the server stays open.
        nqLogObject(nqLog::Warning, true) << "Too many workers (" << std::to_string(nbWorkers)
                                          << "), limit to ideal thread count";
        return false;
    }

    bool allLaunched = true;
    for (std::uint64_t i = 0; i < mNbWorkers; ++i)
        allLaunched = addWorker() && allLaunched;
    mStarted = allLaunched;
    updateWaitSet();
    return allLaunched;
}

bool nqSchedulerPrivate::addWorker()
{
    mEvents.makeRoom(mWorkers.size() + 1);
    const nqWorkerLaunch launch{
        mExeUtf8Path,
        mArgumentsUtf8,
        mPrependChannelId,
        mPipeName,
        mStartProcessFlag,
        mWorkerConnectionTimeout,
        mLimits,
        mEvents,
        mCapturesStandardError ? &mStandardErrors : nullptr};
    std::unique_ptr<nqSchedulerWorker> worker = launchWorker(launch, mPipeServer, mQueues.get());
    const bool isLaunched = worker != nullptr;
    if (isLaunched) {
        mWorkers.push_back(std::move(worker));
        mStandardErrors.noteListed(mWorkers.back()->pid());
    }
    mEvents.deliver();
    return isLaunched;
}

// Replacements that a cancelled pump still owes are among those that lack.
bool nqSchedulerPrivate::heal()
{
    bool isLaunched = true;
    while (isLaunched && mWorkers.size() < mNbWorkers) {
        isLaunched = addWorker();
        if (isLaunched && mReplacementsDue != 0)
            --mReplacementsDue;
        updateWaitSet(); // of a launch that failed too: the logger may have pushed
    }
    return isLaunched;
}

void nqSchedulerPrivate::noteEnd(const nqSchedulerWorker& worker)
{
    if (!mStandardErrors.isEmpty())
        mStandardErrors.noteEnd(worker.process()->getPid());
}

void nqSchedulerPrivate::drain()
{
    const nqFlagGuard waiting(mWaitingForFinished);
    while (!mQueues->allJobsDone())
        pump(pumpSliceMs);
    // An owed failure is no longer counted as a job.
    for (const std::unique_ptr<nqSchedulerWorker>& worker : mWorkers)
        worker->storeOwedFailure();
    mEvents.deliver();
}

// May be interrupted anywhere and called again: the workers left in the list are complete. Once the
// jobs are drained, only stopping goes on.
void nqSchedulerPrivate::stop()
{
    mEvents.makeRoom(mWorkers.size());
    if (!mDrained)
        drain();
    mDrained = true;
    updateWaitSet();
    {
        const nqThread::Uncancellable held;
        mPipeServer.closeNamedPipeServer();
    }
    while (!mWorkers.empty()) {
        endWorker(*mWorkers.front());
        noteEnd(*mWorkers.front());
        mWorkers.pop_front();
        mEvents.deliver();
    }
    mReplacementsDue = 0;
    mDrained = false;
    mStarted = false;
}

// Cancellation is held off to the end, members included: it must not leave a destructor.
nqScheduler::~nqScheduler()
{
    const nqThread::Uncancellable held;
    if (mPrivate->mInOperation && mPrivate->mOwner.isThisProcess()) {
        // The operation would go on in freed memory.
        std::cerr << "nqScheduler: destroyed by a logger inside one of its own operations"
                  << std::endl;
        std::abort();
    }
    mPrivate->mEvents.setObserver(nullptr); // the host may have destroyed it
    try {
        stopScheduler();
    } catch (...) {
        std::terminate(); // which names the exception when it is called from here
    }
    mPrivate.reset();
}

bool nqScheduler::startScheduler(unsigned long nbWorkers, int workerConnectionTimeout)
{
    if (!mPrivate->mayAct())
        return false;
    const nqFlagGuard operation(mPrivate->mInOperation);
    return mPrivate->start(nbWorkers, workerConnectionTimeout);
}

bool nqScheduler::startWorker()
{
    if (!mPrivate->mayAct())
        return false;
    const nqFlagGuard operation(mPrivate->mInOperation);
    const bool isLaunched = mPrivate->addWorker();
    mPrivate->updateWaitSet();
    return isLaunched;
}

bool nqScheduler::healWorkers()
{
    if (!mPrivate->isPumped() || !mPrivate->mayAct())
        return false;
    const nqFlagGuard operation(mPrivate->mInOperation);
    return mPrivate->heal();
}

void nqScheduler::waitForFinished()
{
    if (!mPrivate->isPumped() || mPrivate->mWaitingForFinished || !mPrivate->mayAct())
        return;
    const nqFlagGuard operation(mPrivate->mInOperation);
    mPrivate->drain();
}

bool nqScheduler::stopScheduler()
{
    if (!mPrivate->mStarted || !mPrivate->mayAct())
        return false;
    const nqFlagGuard operation(mPrivate->mInOperation);
    mPrivate->stop();
    return true;
}

} // namespace nq
