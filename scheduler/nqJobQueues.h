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

    /// These lower the counter first, so it stays lowered when there is no memory for the entry.
    /// The second of each saves a worker's record, which is done with the bytes, a copy of them.
    void pushResult(const std::vector<char>& result);
    void pushResult(std::vector<char>&& result);
    void pushFailedJob(
        const std::vector<char>& job, nqScheduler::FailReason reason, const std::string& message);
    void pushFailedJob(
        std::vector<char>&& job, nqScheduler::FailReason reason, const std::string& message);

    /// What pushFailedJob does after it has counted the job down, to be tried again when there was
    /// no memory for it. Both leave `job` alone then.
    void storeFailedJob(
        std::vector<char>&& job, nqScheduler::FailReason reason, const std::string& message);

    /// Large payloads that are over leave their memory to those that follow: fresh memory costs
    /// more than copying into it. takeSpare gives a buffer with room for `bytes`, and old bytes in
    /// it, if a spare one of about that size is there, and an empty one otherwise. The spares are
    /// few, and go when pop finds that no job and no result is left, or when a number of payloads
    /// in a row had no use for them.
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
    std::uint32_t mSparesInVain = 0;                  // payloads in a row that fitted into none
};

} // namespace nq
