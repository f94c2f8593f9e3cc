#include "tools/nqrun/error.h"
#include "tools/nqrun/job_pool.h"

#include <algorithm>
#include <utility>

namespace nqrun {

namespace {

class LocalPool final : public JobPool {
public:
    explicit LocalPool(const nq::nqPoolOptions& options)
        : mPool(options)
    {
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
        mPool.stop();
    }

    void expectJobs(std::uint64_t jobs) override
    {
        mPool.expectJobs(jobs);
    }

    std::optional<std::size_t> cancelWaiting(const std::vector<nq::nqJobId>& jobs) override
    {
        std::vector<nq::nqJobId> running;
        for (const nq::nqPoolWorkerStatus& worker : mPool.workers()) {
            if (worker.job != 0)
                running.push_back(worker.job);
        }
        for (const nq::nqJobId job : jobs) {
            if (std::find(running.begin(), running.end(), job) == running.end())
                mPool.cancel(job);
        }
        return running.size();
    }

    std::optional<std::vector<nq::nqPoolWorkerStatus>> workers() const override
    {
        return mPool.workers();
    }

    std::string closingRemark() const override
    {
        return mPool.statistics().writeProblem;
    }

private:
    nq::nqPool mPool;
};

} // namespace

std::unique_ptr<JobPool> makeLocalPool(const nq::nqPoolOptions& options)
try {
    return std::make_unique<LocalPool>(options);
} catch (const nq::nqPoolError& error) {
    throw Error(error.what());
}

} // namespace nqrun
