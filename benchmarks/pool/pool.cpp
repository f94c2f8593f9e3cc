// The pool library in the loop that its documents show, with the scheduler's own worker or with one
// of runWorker().
#include "benchmarks/common/pool.h"

#include "benchmarks/common/fail.h"
#include "benchmarks/common/job_memory.h"

#include <nqPool.h>

#include <chrono>
#include <utility>

namespace bench {

namespace {

constexpr std::chrono::milliseconds pumpTimeout{100};

nq::nqPoolOptions optionsFor(const PoolOptions& options)
{
    nq::nqPoolOptions made;
    made.worker = options.workerExecutable;
    made.plainWorker = options.isPlainWorker;
    made.workers = static_cast<unsigned>(options.workers);
    if (options.shown == "trace") {
        made.traceFile = options.folder + "/trace.json";
        made.traceLimit = 0;
    } else if (options.shown == "timeline") {
        made.timelineFile = options.folder + "/timeline.svg";
    } else if (options.shown == "status") {
        made.statusFile = options.folder + "/status.json";
        made.metricsFile = options.folder + "/pool.prom";
    } else if (!options.shown.empty()) {
        fail("a pool shows trace, timeline or status");
    }
    return made;
}

class JobPool : public Pool {
public:
    explicit JobPool(const PoolOptions& options)
        : mMaxInFlight(options.workers + jobsAhead),
          mPool(optionsFor(options)),
          mJobs(options.movesJobs)
    {
        if (!mPool.start())
            fail("the workers could not be started");
    }

    void run(Ledger& ledger, std::uint64_t count) override
    {
        std::uint64_t submitted = 0;
        mFinished = 0;
        while (mFinished < count) {
            for (; submitted < count && submitted - mFinished < mMaxInFlight; ++submitted) {
                mJobs.pushNext(ledger, [&](auto&& job) {
                    mPool.submit(
                        std::forward<decltype(job)>(job),
                        [this, &ledger](nq::nqOutcome&& outcome) { take(ledger, outcome); });
                });
            }
            mPool.pump(pumpTimeout);
        }
    }

private:
    void take(Ledger& ledger, nq::nqOutcome& outcome)
    {
        ++mFinished;
        if (!outcome) {
            ledger.lose();
            return;
        }
        ledger.check(outcome.bytes.data(), outcome.bytes.size());
        mJobs.takeBack(outcome.bytes);
    }

    std::uint64_t mMaxInFlight;
    std::uint64_t mFinished = 0;
    nq::nqPool mPool;
    JobMemory mJobs;
};

} // namespace

std::unique_ptr<Pool> makePool(const PoolOptions& options)
{
    return std::make_unique<JobPool>(options);
}

} // namespace bench
