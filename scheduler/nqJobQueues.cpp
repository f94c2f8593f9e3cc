#include "scheduler/nqJobQueues.h"

#include <utility>

namespace nq {

namespace {

bool moveFrontInto(std::deque<std::vector<char>>& queue, std::vector<char>& data)
{
    if (queue.empty())
        return false;
    data = std::move(queue.front());
    queue.pop_front();
    return true;
}

} // namespace

void nqJobQueues::push(const std::vector<char>& job)
{
    std::vector<char> copy = mSpareMemory.take(job.size());
    copy.assign(job.begin(), job.end());
    mPendingJobs.push_back(std::move(copy));
}

void nqJobQueues::push(std::vector<char>&& job)
{
    mPendingJobs.push_back(std::move(job));
}

bool nqJobQueues::pop(std::vector<char>& result)
{
    if (mSpareMemory.isOutgrown() || (allJobsDone() && mResults.empty()))
        mSpareMemory.release();
    if (mResults.empty())
        return false;
    result.swap(mResults.front());
    // The host's old buffer may stem from a time when its payloads were larger.
    if (!nqSpareMemory::isWasted(mResults.front(), result.size()))
        mSpareMemory.keep(std::move(mResults.front()));
    mResults.pop_front();
    return true;
}

bool nqJobQueues::popFail(
    std::vector<char>& job, nqScheduler::FailReason& reason, std::string& message)
{
    job.clear();
    message.clear();
    reason = nqScheduler::NoFailure;
    if (mFailedJobs.empty())
        return false;

    nqFailedJob& oldest = mFailedJobs.front();
    job = std::move(oldest.mJob);
    reason = oldest.mReason;
    message = std::move(oldest.mMessage);
    mFailedJobs.pop_front();
    return true;
}

void nqJobQueues::clearPendingJobs()
{
    mPendingJobs.clear();
}

bool nqJobQueues::takeBack(std::vector<char>& job)
{
    return moveFrontInto(mPendingJobs, job);
}

unsigned long nqJobQueues::jobCount() const
{
    return mPendingJobs.size() + static_cast<unsigned long>(mJobsInProgress);
}

unsigned long nqJobQueues::resultCount() const
{
    return mResults.size();
}

unsigned long nqJobQueues::failCount() const
{
    return mFailedJobs.size();
}

unsigned long nqJobQueues::pendingJobCount() const
{
    return mPendingJobs.size();
}

bool nqJobQueues::allJobsDone() const
{
    return jobCount() == 0;
}

nqSpareMemory& nqJobQueues::spareMemory()
{
    return mSpareMemory;
}

bool nqJobQueues::takeNextJob(std::vector<char>& job)
{
    if (!moveFrontInto(mPendingJobs, job))
        return false;
    ++mJobsInProgress;
    return true;
}

void nqJobQueues::pushResult(const std::vector<char>& result)
{
    --mJobsInProgress;
    mResults.push_back(result);
}

void nqJobQueues::pushResult(std::vector<char>&& result)
{
    --mJobsInProgress;
    mResults.push_back(std::move(result));
}

void nqJobQueues::pushFailedJob(
    const std::vector<char>& job, nqScheduler::FailReason reason, const std::string& message)
{
    --mJobsInProgress;
    mFailedJobs.push_back(nqFailedJob{job, reason, message});
}

void nqJobQueues::pushFailedJob(
    std::vector<char>&& job, nqScheduler::FailReason reason, const std::string& message)
{
    --mJobsInProgress;
    storeFailedJob(std::move(job), reason, message);
}

void nqJobQueues::storeFailedJob(
    std::vector<char>&& job, nqScheduler::FailReason reason, const std::string& message)
{
    mFailedJobs.push_back(nqFailedJob{{}, reason, message});
    mFailedJobs.back().mJob = std::move(job); // last: the line above may throw
}

} // namespace nq
