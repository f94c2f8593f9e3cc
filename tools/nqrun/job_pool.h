#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <nqPool.h>
#include <string>
#include <vector>

namespace nqrun {

/// What a run needs of a pool. Operations that nq::nqPool has are
/// as there.
class JobPool {
public:
    using Callback = nq::nqPool::Callback;

    JobPool() = default;
    virtual ~JobPool() = default;
    JobPool(const JobPool&) = delete;
    JobPool& operator=(const JobPool&) = delete;

    virtual nq::nqJobId
    submit(const std::string& job, const nq::nqJobOptions& options, Callback callback) = 0;
    virtual void pump(std::chrono::milliseconds timeout) = 0;
    virtual int waitDescriptor() = 0;
    virtual void stop() = 0;
    virtual void expectJobs(std::uint64_t jobs) = 0;

    /// Cancels those of the jobs that have not been started. How many are left.
    virtual std::size_t cancelWaiting(const std::vector<nq::nqJobId>& jobs) = 0;

    virtual std::vector<nq::nqPoolWorkerStatus> workers() const = 0;

    /// What there is to be told at the end; empty: nothing.
    virtual std::string closingRemark() const = 0;
};

/// A pool of this machine's. Throws Error when it cannot be made.
std::unique_ptr<JobPool> makeLocalPool(const nq::nqPoolOptions& options);

} // namespace nqrun
