// The library through its public interface, with default settings and the README's host loop.
#include "benchmarks/common/pool.h"

#include "benchmarks/common/fail.h"

#include <nqScheduler.h>

#include <cstdlib>
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
          mScheduler(options.workerExecutable, false, {}, true)
    {
        if (!mScheduler.startScheduler(options.workers, connectTimeoutMs))
            fail("the workers could not be started");
    }

    void run(Ledger& ledger, std::uint64_t count) override
    {
        mJob.resize(ledger.jobBytes(), 'x');
        std::uint64_t pushed = 0;
        std::uint64_t finished = 0;
        while (finished < count) {
            for (; pushed < count && pushed - finished < mMaxInFlight; ++pushed) {
                ledger.stamp(mJob.data());
                push(ledger.jobBytes());
            }
            mScheduler.processScheduler(pumpTimeoutMs);
            for (; mScheduler.pop(mResult); ++finished) {
                ledger.check(mResult.data(), mResult.size());
                if (mMoves)
                    mPopped.push_back(std::move(mResult));
            }
            for (; mScheduler.popFail(mFailedJob, mReason, mMessage); ++finished)
                ledger.lose();
        }
    }

private:
    void push(std::size_t jobBytes)
    {
        if (!mMoves) {
            mScheduler.push(mJob);
            return;
        }
        mScheduler.push(std::move(mJob));
        if (mPopped.empty()) {
            mJob.assign(jobBytes, 'x');
        } else {
            mJob = std::move(mPopped.back());
            mPopped.pop_back();
        }
    }

    const bool mMoves = std::getenv("NQ_BENCH_MOVES") != nullptr; // jobs instead of copying them
    std::uint64_t mMaxInFlight;
    nq::nqScheduler mScheduler;
    std::vector<char> mJob;
    std::vector<char> mResult;
    std::vector<std::vector<char>> mPopped;
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
