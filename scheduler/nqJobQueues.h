#pragma once

#include "include/nqScheduler.h"
#include "scheduler/nqFailedJob.h"
#include "support/nqSpareMemory.h"

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
/// touch the queues, or the count goes wrong. The counter is not clamped: a result without a
/// matching takeNextJob drives it below zero.
class nqJobQueues {
public:
    void push(const std::vector<char>& job);
    void push(std::vector<char>&& job);
    bool pop(std::vector<char>& result);
    bool popFail(std::vector<char>& job, nqScheduler::FailReason& reason, std::string& message);
    void clearPendingJobs();
    bool takeBack(std::vector<char>& job);

    unsigned long jobCount() const;
    unsigned long resultCount() const;
    unsigned long failCount() const;
    unsigned long pendingJobCount() const;
    bool allJobsDone() const;

    /// Moves the oldest pending job into `job` and counts it as in progress; false, and nothing
    /// changes, when there is none.
    bool takeNextJob(std::vector<char>& job);

    /// Each lowers the counter first; it stays lowered when the entry cannot be allocated. The
    /// overloads that take the bytes by && move them.
    void pushResult(const std::vector<char>& result);
    void pushResult(std::vector<char>&& result);
    void pushFailedJob(
        const std::vector<char>& job, nqScheduler::FailReason reason, const std::string& message);
    void pushFailedJob(
        std::vector<char>&& job, nqScheduler::FailReason reason, const std::string& message);

    /// The second half of pushFailedJob, to be repeated when that threw. If either of the two that
    /// move throws, `job` is unchanged.
    void storeFailedJob(
        std::vector<char>&& job, nqScheduler::FailReason reason, const std::string& message);

    /// For the jobs that are pushed and the results that are received. Released when pop finds
    /// neither a job nor a result left, and when it is outgrown.
    nqSpareMemory& spareMemory();

private:
    std::deque<nqFailedJob> mFailedJobs;
    std::deque<std::vector<char>> mPendingJobs;
    std::deque<std::vector<char>> mResults;
    std::int32_t mJobsInProgress = 0;
    nqSpareMemory mSpareMemory{nqSpareMemory::Fit::closely};
};

} // namespace nq
