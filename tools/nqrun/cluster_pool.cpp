#include "tools/nqrun/error.h"
#include "tools/nqrun/job_pool.h"

#include <nqClusterPool.h>
#include <utility>

namespace nqrun {

namespace {

using Clock = std::chrono::steady_clock;

// What passes sooner, as a restart of Redis may, is not worth a line. The pool looks for agents
// once a second while it knows none.
constexpr std::chrono::seconds untilTold{2};

nq::nqPoolOptions poolOptions(std::chrono::milliseconds jobTimeout)
{
    nq::nqPoolOptions options;
    options.jobTimeout = jobTimeout;
    options.maxPendingJobs = 0; // the run has bounds of its own
    return options;
}

nq::nqClusterOptions clusterOptions(const QueueAddress& address, const std::string& client)
{
    nq::nqClusterOptions options;
    options.client = client;
    options.passwordFile = address.passwordFile;
    options.maxPendingBytes = 0; // likewise
    return options;
}

class ClusterPool final : public JobPool {
public:
    ClusterPool(
        const QueueAddress& address,
        const std::string& client,
        std::chrono::milliseconds jobTimeout)
        : mPool(
              address.redis,
              address.queue,
              poolOptions(jobTimeout),
              clusterOptions(address, client))
    {
    }

    // The pool's own destructor would leave its jobs in the queue.
    ~ClusterPool() override
    {
        try {
            mPool.stop();
        } catch (const std::exception&) { // another one has its name: there is nothing to stop
        }
    }

    nq::nqJobId
    submit(const std::string& job, const nq::nqJobOptions& options, Callback callback) override
    {
        return mPool.submit(job, options, std::move(callback));
    }

    void pump(std::chrono::milliseconds timeout) override
    {
        mPool.pump(timeout);
    }

    int waitDescriptor() override
    {
        return mPool.waitDescriptor();
    }

    void stop() override
    {
        const bool hasJobs = mPool.unfinishedCount() != 0;
        mPool.stop();
        if (hasJobs && mRemark.empty() && !mPool.problem().empty())
            mRemark = "items may still be in the queue, and run: " + mPool.problem();
    }

    std::optional<std::size_t> cancelWaiting(const std::vector<nq::nqJobId>& jobs) override
    {
        for (const nq::nqJobId job : jobs)
            mPool.cancelWaiting(job);
        return std::nullopt;
    }

    std::string closingRemark() const override
    {
        return mRemark;
    }

    std::optional<std::string> news() override
    {
        const Clock::time_point now = Clock::now();
        const std::string problem = mPool.problem();
        if (problem != mProblem) {
            mProblem = problem;
            mSince = now;
        }
        if (mProblem == mTold || now - mSince < untilTold)
            return std::nullopt;
        mTold = mProblem;
        return mTold.empty() ? "goes on" : mTold;
    }

    std::optional<TimePoint> newsDue() const override
    {
        if (mProblem == mTold)
            return std::nullopt;
        return mSince + untilTold;
    }

    std::optional<nq::nqOutcome> nextLeft() override
    {
        return mPool.next(std::chrono::milliseconds(0));
    }

    bool hasLeft() const override
    {
        return mPool.statistics().takenUp != 0;
    }

private:
    nq::nqClusterPool mPool;
    std::string mRemark;
    std::string mProblem; ///< as it was last
    Clock::time_point mSince;
    std::string mTold;
};

} // namespace

std::unique_ptr<JobPool> makeClusterPool(
    const QueueAddress& address, const std::string& client, std::chrono::milliseconds jobTimeout)
try {
    return std::make_unique<ClusterPool>(address, client, jobTimeout);
} catch (const nq::nqPoolError& error) {
    throw Error(error.what());
}

} // namespace nqrun
