#pragma once

#include "include/nqScheduler.h"
#include "scheduler/nqFailedJob.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace nq {

/// The three queues through which job data enters and leaves a scheduler, all first in, first out,
/// and the count of jobs that are in the hands of a worker.
///
/// A job counts from push until it is a result or a failure. takeNextJob moves it from the pending
/// queue to the counter, pushResult and pushFailedJob take it off the counter; nothing else may
/// touch the queues, or the count goes wrong. The counter is not clamped: a result that no
/// takeNextJob stands behind drives it below zero.
class nqJobQueues {
public:
    void push(const std::vector<char>& job);
    bool pop(std::vector<char>& result);
    bool popFail(std::vector<char>& job, nqScheduler::FailReason& reason, std::string& message);
    void clearPendingJobs();

    unsigned long jobCount() const;
    unsigned long resultCount() const;
    unsigned long failCount() const;
    unsigned long pendingJobCount() const;
    bool allJobsDone() const;

    /// Moves the oldest pending job into `job` and counts it as in progress; false, and nothing
    /// changes, when there is none.
    bool takeNextJob(std::vector<char>& job);

    /// Both lower the counter first; it stays lowered when the entry finds no memory. The second of
    /// each moves the bytes instead of copying them.
    void pushResult(const std::vector<char>& result);
    void pushResult(std::vector<char>&& result);
    void pushFailedJob(
        const std::vector<char>& job, nqScheduler::FailReason reason, const std::string& message);
    void pushFailedJob(
        std::vector<char>&& job, nqScheduler::FailReason reason, const std::string& message);

    /// The second half of pushFailedJob, to be called again after one that found no memory. Without
    /// memory, both throw and leave `job` as it is.
    void storeFailedJob(
        std::vector<char>&& job, nqScheduler::FailReason reason, const std::string& message);

    /// The memory of large payloads is kept for later ones, since fresh memory costs more than the
    /// copy into it. takeSpare returns a spare buffer of about that size with room for `bytes`,
    /// which holds old bytes, or an empty one. The spares are few. They are freed when pop finds
    /// neither a job nor a result left, and when a number of payloads in a row fitted none.
    void recycle(std::vector<char>&& buffer) noexcept;
    std::vector<char> takeSpare(std::size_t bytes);

private:
    static constexpr std::size_t maxSpares = 4;

    bool hasSpares() const;
    void dropSpares();
    void dropSparesAtRest();

    std::deque<nqFailedJob> mFailedJobs;
    std::deque<std::vector<char>> mPendingJobs;
    std::deque<std::vector<char>> mResults;
    std::int32_t mJobsInProgress = 0;
    std::array<std::vector<char>, maxSpares> mSpares; // the latest first, none at the end
    std::uint32_t mSpareMisses = 0;                   // payloads in a row that fitted none
};

} // namespace nq
