#pragma once

#include "tools/nqrun/queue_address.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <nqPool.h>
#include <optional>
#include <string>
#include <vector>

namespace nqrun {

/// What a run needs of a pool, on this machine or over several. Operations that nq::nqPool has are
/// as there.
class JobPool {
public:
    using Callback = nq::nqPool::Callback;
    using TimePoint = std::chrono::steady_clock::time_point;

    JobPool() = default;
    virtual ~JobPool() = default;
    JobPool(const JobPool&) = delete;
    JobPool& operator=(const JobPool&) = delete;

    virtual nq::nqJobId
    submit(const std::string& job, const nq::nqJobOptions& options, Callback callback) = 0;
    virtual void pump(std::chrono::milliseconds timeout) = 0;
    virtual int waitDescriptor() = 0;
    virtual void stop() = 0;
    virtual void expectJobs(std::uint64_t /*jobs*/) {}

    /// Cancels those of the jobs that have not been started. How many are left, where that is known
    /// at once.
    virtual std::optional<std::size_t> cancelWaiting(const std::vector<nq::nqJobId>& jobs) = 0;

    /// Nothing where workers are out of sight.
    virtual std::optional<std::vector<nq::nqPoolWorkerStatus>> workers() const
    {
        return std::nullopt;
    }

    /// What there is to be told at the end; empty: nothing.
    virtual std::string closingRemark() const = 0;

    /// What there is to be told on the way: what holds all jobs up, and that it is over.
    virtual std::optional<std::string> news()
    {
        return std::nullopt;
    }

    /// When to ask for news at the latest.
    virtual std::optional<TimePoint> newsDue() const
    {
        return std::nullopt;
    }

    /// The next outcome of a job that an earlier run has left behind, after a pump().
    virtual std::optional<nq::nqOutcome> nextLeft()
    {
        return std::nullopt;
    }

    /// Whether there are more of them to come. Ask after nextLeft() has had none.
    virtual bool hasLeft() const
    {
        return false;
    }
};

/// A pool of this machine's. Throws Error when it cannot be made.
std::unique_ptr<JobPool> makeLocalPool(const nq::nqPoolOptions& options);

/// A pool over the machines whose agents serve a queue. `client` is its name there; the one who
/// comes with the same name has what was left; empty: nobody. Throws Error when the queue cannot be
/// used, or this program was built without the cluster.
std::unique_ptr<JobPool> makeClusterPool(
    const QueueAddress& address, const std::string& client, std::chrono::milliseconds jobTimeout);

} // namespace nqrun
