#pragma once

#include "scheduler/nqJobQueues.h"
#include "supervision/nqEventLog.h"
#include "supervision/nqSchedulerWorker.h"
#include "supervision/nqStandardErrors.h"
#include "supervision/nqWorkerLaunch.h"
#include "system/nqNamedPipeServer.h"
#include "system/nqOwnerProcess.h"
#include "system/nqWaitSet.h"

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

namespace nq {

/// Everything a scheduler knows. The configuration is frozen while mStarted is set.
class nqSchedulerPrivate {
public:
    nqSchedulerPrivate();
    ~nqSchedulerPrivate();

    nqSchedulerPrivate(const nqSchedulerPrivate&) = delete;
    nqSchedulerPrivate& operator=(const nqSchedulerPrivate&) = delete;

    /// Whether an operation that starts, stops or pumps may run: not inside another one, from a
    /// logger that calls back, and not in a forked child, whose workers are the parent's.
    bool mayAct() const
    {
        return !mInOperation && mOwner.isThisProcess();
    }

    /// Started, and not half stopped.
    bool isPumped() const
    {
        return mStarted && !mDrained;
    }

    /// The bodies of those operations, without that check.
    bool start(std::uint64_t nbWorkers, std::int32_t workerConnectionTimeout);
    bool addWorker();
    void pump(int timeoutMs);
    bool heal();
    void drain();
    void stop();

    /// Whether another pump would find something to do by what is known already.
    bool hasImmediateWork() const;

    /// Brings the wait set, if there is one, up to date with the workers.
    void updateWaitSet();

    /// The same when only the queues have changed.
    void updateReadiness();

    /// The worker has ended: nobody will print to its standard error any more.
    void noteEnd(const nqSchedulerWorker& worker);

    nqWorkerLimits mLimits;
    nqEventLog mEvents;          // the workers refer to it
    const std::string mPipeName; // a UUID, the same for every start
    std::string mExeUtf8Path;
    nqNamedPipeServer mPipeServer;
    std::vector<std::string> mArgumentsUtf8;
    std::list<std::unique_ptr<nqSchedulerWorker>> mWorkers;
    std::unique_ptr<nqJobQueues> mQueues; // the workers refer to it
    std::uint64_t mNbWorkers = 0;         // asked for by the last start that got past listening
    std::int32_t mWorkerConnectionTimeout = 0; // milliseconds
    bool mStarted = false;
    // Set while drain() runs; mInOperation already keeps re-entry out.
    bool mWaitingForFinished = false;
    bool mStartProcessFlag = false;     // true silences the workers
    bool mPrependChannelId = true;      // the pipe's name is the first argument, else the last
    std::uint32_t mReplacementsDue = 0; // for records that ended, not launched yet
    bool mDrained = false;     // a stop has drained the jobs; it may have been interrupted since
    bool mInOperation = false; // one that may log is under way
    nqOwnerProcess mOwner;
    // Null until it is asked for. The workers' pipes report to it while the scheduler is pumped.
    std::unique_ptr<nqWaitSet> mWaitSet;
    bool mCapturesStandardError = false;
    nqStandardErrors mStandardErrors; // empty while not captured
};

} // namespace nq
