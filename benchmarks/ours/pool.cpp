// The library through its public interface, with default settings and the README's host loop.
#include "benchmarks/common/pool.h"

#include "benchmarks/common/fail.h"
#include "benchmarks/common/job_memory.h"

#include <nqScheduler.h>

#include <string>
#include <utility>
#include <vector>

namespace bench {

namespace {

constexpr int pumpTimeoutMs = 100;
constexpr int connectTimeoutMs = 10'000;

class LibraryPool : public Pool {
public:
    explicit LibraryPool(const PoolOptions& options)
        : mMaxInFlight(options.workers + jobsAhead),
          mScheduler(options.workerExecutable, false, {}, true),
          mJobs(options.movesJobs)
    {
        if (!mScheduler.startScheduler(options.workers, connectTimeoutMs))
            fail("the workers could not be started");
    }

    void run(Ledger& ledger, std::uint64_t count) override
    {
        std::uint64_t pushed = 0;
        std::uint64_t finished = 0;
        while (finished < count) {
            for (; pushed < count && pushed - finished < mMaxInFlight; ++pushed) {
                mJobs.pushNext(ledger, [this](auto&& job) {
                    mScheduler.push(std::forward<decltype(job)>(job));
                });
            }
            mScheduler.processScheduler(pumpTimeoutMs);
            for (; mScheduler.pop(mResult); ++finished) {
                ledger.check(mResult.data(), mResult.size());
                mJobs.takeBack(mResult);
            }
            for (; mScheduler.popFail(mFailedJob, mReason, mMessage); ++finished)
                ledger.lose();
        }
    }

private:
    std::uint64_t mMaxInFlight;
    nq::nqScheduler mScheduler;
    JobMemory mJobs;
    std::vector<char> mResult;
    std::vector<char> mFailedJob;
    nq::nqScheduler::FailReason mReason = nq::nqScheduler::NoFailure;
    std::string mMessage;
};

} // namespace

std::unique_ptr<Pool> makePool(const PoolOptions& options)
{
    return std::make_unique<LibraryPool>(options);
}

} // namespace bench
