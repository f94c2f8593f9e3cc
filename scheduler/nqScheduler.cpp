#include "include/nqScheduler.h"

#include "scheduler/nqFlagGuard.h"
#include "scheduler/nqSchedulerPrivate.h"
#include "system/nqSystemUtils.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace nq {

nqSchedulerPrivate::nqSchedulerPrivate()
    : mPipeName(nqSystemUtils::CreateUuid(true)),
      mQueues(std::make_unique<nqJobQueues>())
{
}

// The order is fixed: the workers that a failed start left behind end before the members, while the
// queues they refer to still exist.
nqSchedulerPrivate::~nqSchedulerPrivate()
{
    mExeUtf8Path.clear();
    mArgumentsUtf8.clear();
    mWorkers.clear();
}

nqScheduler::nqScheduler()
    : mPrivate(std::make_unique<nqSchedulerPrivate>())
{
}

nqScheduler::nqScheduler(
    const std::string& exePathUtf8,
    bool startProcessFlag,
    const std::vector<std::string>& argumentsUtf8,
    bool prependChannelId)
    : nqScheduler()
{
    mPrivate->mStartProcessFlag = startProcessFlag;
    mPrivate->mExeUtf8Path = exePathUtf8;
    mPrivate->mArgumentsUtf8 = argumentsUtf8;
    mPrivate->mPrependChannelId = prependChannelId;
}

bool nqScheduler::setMaxCapMemory(unsigned long bytes)
{
    if (mPrivate->mStarted)
        return false;
    mPrivate->mLimits.mMaxCapMemory = bytes;
    return true;
}

bool nqScheduler::setJobProcessTimeout(unsigned long seconds)
{
    if (mPrivate->mStarted)
        return false;
    mPrivate->mLimits.mJobProcessTimeout = seconds;
    return true;
}

bool nqScheduler::setMaxCapMemoryAfterProcessingAJob(unsigned long bytes)
{
    if (mPrivate->mStarted)
        return false;
    mPrivate->mLimits.mMaxCapMemoryAfterProcessingAJob = bytes;
    return true;
}

bool nqScheduler::setMaxPhysicalMemory(unsigned long bytes)
{
    if (mPrivate->mStarted)
        return false;
    mPrivate->mLimits.mMaxPhysicalMemory = bytes;
    return true;
}

bool nqScheduler::setCaptureStandardError(bool isCaptured)
{
    if (mPrivate->mStarted)
        return false;
    mPrivate->mCapturesStandardError = isCaptured;
    return true;
}

void nqScheduler::setExePathUtf8(const std::string& exePathUtf8)
{
    if (mPrivate->mStarted)
        return;
    mPrivate->mExeUtf8Path = exePathUtf8;
}

void nqScheduler::setArgumentsUtf8(
    const std::vector<std::string>& argumentsUtf8, bool prependChannelId)
{
    if (mPrivate->mStarted)
        return;
    mPrivate->mArgumentsUtf8 = argumentsUtf8;
    mPrivate->mPrependChannelId = prependChannelId;
}

bool nqScheduler::setObserver(nqSchedulerObserver* observer)
{
    if (mPrivate->mStarted || !mPrivate->mayAct())
        return false;
    mPrivate->mEvents.setObserver(observer);
    return true;
}

const std::string& nqScheduler::exeUtf8Path() const
{
    return mPrivate->mExeUtf8Path;
}

const std::vector<std::string>& nqScheduler::argumentsUtf8() const
{
    return mPrivate->mArgumentsUtf8;
}

bool nqScheduler::prependChannelId() const
{
    return mPrivate->mPrependChannelId;
}

void nqScheduler::push(const std::vector<char>& job)
{
    mPrivate->mQueues->push(job);
    mPrivate->updateReadiness();
}

void nqScheduler::push(std::vector<char>&& job)
{
    mPrivate->mQueues->push(std::move(job));
    mPrivate->updateReadiness();
}

bool nqScheduler::pop(std::vector<char>& result)
{
    return mPrivate->mQueues->pop(result);
}

bool nqScheduler::popFail(std::vector<char>& job, FailReason& reason, std::string& message)
{
    return mPrivate->mQueues->popFail(job, reason, message);
}

bool nqScheduler::takeStandardError(std::int64_t& pid, int& descriptor)
{
    return mPrivate->mStandardErrors.take(pid, descriptor);
}

unsigned long nqScheduler::jobCount() const
{
    return mPrivate->mQueues->jobCount();
}

unsigned long nqScheduler::resultCount() const
{
    return mPrivate->mQueues->resultCount();
}

unsigned long nqScheduler::failCount() const
{
    return mPrivate->mQueues->failCount();
}

unsigned long nqScheduler::pendingJobCount() const
{
    return mPrivate->mQueues->pendingJobCount();
}

void nqScheduler::clearPendingJobs()
{
    mPrivate->mQueues->clearPendingJobs();
    mPrivate->updateReadiness();
}

bool nqScheduler::takePendingJob(std::vector<char>& job)
{
    const bool isThere = mPrivate->mQueues->takeBack(job);
    mPrivate->updateReadiness();
    return isThere;
}

namespace {

/// None while the pump destroys it: a logger may ask at that very moment.
bool isThere(const std::unique_ptr<nqSchedulerWorker>& worker)
{
    return worker != nullptr && !worker->hasFinished();
}

bool isOfAFailure(nqScheduler::FailReason reason)
{
    switch (reason) {
    case nqScheduler::UnexpectedCrash:
    case nqScheduler::TooMuchRam:
    case nqScheduler::Timeout:
        return true;
    case nqScheduler::NoFailure:
        return false;
    }
    return false; // any other number that a caller has made into a reason
}

nqWorkerStatus statusOf(const nqSchedulerWorker& worker)
{
    nqWorkerStatus status;
    status.mPid = worker.pid();
    status.mResidentMemory = worker.process()->getCurrentRamInUse();
    if (!worker.isReadyForJob()) {
        status.mState = nqWorkerStatus::State::Busy;
        status.mTimeInJob = std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::duration<double>(worker.secondsInJob()));
    }
    if (!worker.isLive())
        status.mState = nqWorkerStatus::State::Leaving;
    return status;
}

} // namespace

unsigned long nqScheduler::workerCount() const
{
    const auto& all = mPrivate->mWorkers;
    return static_cast<unsigned long>(std::count_if(all.begin(), all.end(), isThere));
}

unsigned long nqScheduler::busyWorkerCount() const
{
    const auto& all = mPrivate->mWorkers;
    return static_cast<unsigned long>(std::count_if(all.begin(), all.end(), [](const auto& worker) {
        return isThere(worker) && !worker->isReadyForJob();
    }));
}

std::vector<nqWorkerStatus> nqScheduler::workers() const
{
    std::vector<nqWorkerStatus> all;
    for (const auto& worker : mPrivate->mWorkers) {
        if (isThere(worker))
            all.push_back(statusOf(*worker));
    }
    return all;
}

bool nqScheduler::killWorker(std::int64_t pid, FailReason reason, const std::string& message)
{
    if (!mPrivate->mayAct() || !isOfAFailure(reason))
        return false;
    const nqFlagGuard operation(mPrivate->mInOperation);
    const auto& all = mPrivate->mWorkers;
    const auto found = std::find_if(
        all.begin(), all.end(), [pid](const auto& worker) { return worker->pid() == pid; });
    const bool isKilled = found != all.end() && (*found)->killFor(reason, message);
    mPrivate->updateWaitSet(); // it takes no pending job any more
    return isKilled;
}

} // namespace nq
