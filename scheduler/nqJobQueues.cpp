#include "scheduler/nqJobQueues.h"

#include <algorithm>
#include <utility>

namespace nq {

namespace {

// Below this the allocator hands out memory that it has at hand.
constexpr std::size_t smallestSpareBytes = std::size_t{64} << 10;

// This many misses in a row: the host's payloads have become small, and the spares are freed.
constexpr std::uint32_t missesBeforeRelease = 64;

// A small payload must not occupy the memory of a large one.
bool isMuchLarger(const std::vector<char>& spare, std::size_t bytes)
{
    return spare.capacity() / 2 > bytes;
}

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
    std::vector<char> copy = takeSpare(job.size());
    copy.assign(job.begin(), job.end());
    mPendingJobs.push_back(std::move(copy));
}

void nqJobQueues::push(std::vector<char>&& job)
{
    mPendingJobs.push_back(std::move(job));
}

bool nqJobQueues::pop(std::vector<char>& result)
{
    dropSparesWhenIdle();
    if (mResults.empty())
        return false;
    result.swap(mResults.front());
    // The host's old buffer may stem from a time when its payloads were larger.
    if (!isMuchLarger(mResults.front(), result.size()))
        recycle(std::move(mResults.front()));
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

void nqJobQueues::recycle(std::vector<char>&& buffer) noexcept
{
    if (buffer.capacity() < smallestSpareBytes)
        return;
    std::rotate(mSpares.begin(), mSpares.end() - 1, mSpares.end());
    mSpares.front() = std::move(buffer);
    mMissesInARow = 0;
}

// The latest spare that fits: the processor's cache still holds its bytes.
std::vector<char> nqJobQueues::takeSpare(std::size_t bytes)
{
    if (!hasSpares())
        return {};
    const auto fits = [bytes](const std::vector<char>& spare) {
        return spare.capacity() >= bytes && !isMuchLarger(spare, bytes);
    };
    const auto spare = std::find_if(mSpares.begin(), mSpares.end(), fits);
    if (spare == mSpares.end()) {
        if (++mMissesInARow == missesBeforeRelease)
            dropSpares();
        return {};
    }
    std::vector<char> taken = std::move(*spare);
    std::rotate(spare, spare + 1, mSpares.end());
    return taken;
}

bool nqJobQueues::hasSpares() const
{
    return mSpares.front().capacity() != 0;
}

void nqJobQueues::dropSpares()
{
    mSpares = {};
}

void nqJobQueues::dropSparesWhenIdle()
{
    if (hasSpares() && allJobsDone() && mResults.empty())
        dropSpares();
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
