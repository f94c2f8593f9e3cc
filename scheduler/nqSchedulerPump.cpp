#include "include/nqScheduler.h"

#include "scheduler/nqFlagGuard.h"
#include "scheduler/nqSchedulerPrivate.h"
#include "system/nqThread.h"

#include <algorithm>
#include <cxxabi.h>
#include <exception>

#include <sys/select.h>

namespace nq {

namespace {

/// The sockets of one pass, gathered in place: a pass allocates nothing.
class WorkerSockets {
public:
    WorkerSockets()
    {
        FD_ZERO(&mSet);
    }

    /// The platform reports no descriptor that is too large for a set, and -1 for none.
    void add(int descriptor)
    {
        if (descriptor == -1)
            return;
        FD_SET(descriptor, &mSet);
        mLargest = std::max(mLargest, descriptor);
    }

    bool isEmpty() const
    {
        return mLargest == -1;
    }

    /// Sleeps until a worker says something. Why it woke up does not matter: the next pass looks at
    /// every worker anyway.
    void wait(int timeoutMs) const
    {
        fd_set readable = mSet;
        fd_set exceptional = mSet;
        timeval timeout{};
        timeout.tv_sec = timeoutMs / 1000;
        timeout.tv_usec = timeoutMs % 1000 * 1000L;
        ::select(mLargest + 1, &readable, nullptr, &exceptional, &timeout);
    }

private:
    fd_set mSet;
    int mLargest = -1;
};

/// What one pass over the workers found out.
struct Pass {
    WorkerSockets mSockets;
    bool mAnyPendingWrite = false;
    bool mAnyIdleOrReplaced = false;
    std::exception_ptr mFirstException;
};

/// Runs `action` and keeps the first exception for later: an allocation that fails for one worker
/// must cost neither the other workers their turn nor the pool a replacement.
template <typename Action>
void keepException(std::exception_ptr& first, Action action)
{
    try {
        action();
    } catch (abi::__forced_unwind&) {
        throw; // of a cancelled thread: keeping it would end the process
    } catch (...) {
        if (first == nullptr)
            first = std::current_exception();
    }
}

/// Steps every worker and drops the ones that are over. A replacement counts as idle, since it can
/// take a pending job in the next pass.
Pass stepWorkers(nqSchedulerPrivate& state)
{
    Pass pass;
    for (auto it = state.mWorkers.begin(); it != state.mWorkers.end();) {
        nqSchedulerWorker& worker = **it;
        keepException(pass.mFirstException, [&] { worker.superviseStep(); });
        if (worker.hasFinished()) {
            state.noteEnd(worker);
            it->reset();
            it = state.mWorkers.erase(it);
            ++state.mReplacementsDue;
            continue;
        }
        pass.mAnyPendingWrite = pass.mAnyPendingWrite || worker.pipe()->hasPendingWrite();
        pass.mSockets.add(worker.pipe()->getSocket());
        pass.mAnyIdleOrReplaced = pass.mAnyIdleOrReplaced || worker.isReadyForJob();
        ++it;
    }
    pass.mAnyIdleOrReplaced = pass.mAnyIdleOrReplaced || state.mReplacementsDue != 0;
    return pass;
}

} // namespace

void nqSchedulerPrivate::pump(int timeoutMs)
{
    nqThread::EndIfCancelled(); // further down, only waits are cancellation points
    Pass pass;
    {
        const nqThread::Uncancellable held;
        mEvents.makeRoom(mWorkers.size());
        mPipeServer.processPipeServerEvents(0);
        mStandardErrors.dropEnded();
        pass = stepWorkers(*this);
        mEvents.deliver(); // before the queues are looked at, since an observer may push and pop
        updateWaitSet();
    }

    const bool resultWaits = mQueues->resultCount() != 0;
    const bool jobCanStart = mQueues->pendingJobCount() != 0 && pass.mAnyIdleOrReplaced;
    const bool somethingIsNew =
        pass.mAnyPendingWrite || resultWaits || jobCanStart || pass.mFirstException != nullptr;
    if (timeoutMs > 0 && !somethingIsNew && !pass.mSockets.isEmpty())
        pass.mSockets.wait(timeoutMs);

    // After the wait, so that the replacements get their first step in the next call. One that
    // cannot be launched is logged and not tried again: the pool is one worker smaller. What a
    // cancelled thread leaves is due in the next call.
    for (; mReplacementsDue != 0; --mReplacementsDue)
        keepException(pass.mFirstException, [&] { addWorker(); });
    updateWaitSet();
    if (pass.mFirstException != nullptr)
        std::rethrow_exception(pass.mFirstException);
}

void nqScheduler::processScheduler(int timeoutMs)
{
    if (!mPrivate->isPumped() || !mPrivate->mayAct())
        return;
    const nqFlagGuard operation(mPrivate->mInOperation);
    mPrivate->pump(timeoutMs);
}

} // namespace nq
