#pragma once

#include "benchmarks/common/fail.h"
#include "benchmarks/common/job.h"
#include "benchmarks/common/options.h"

#include <nqScheduler.h>

#include <string>
#include <vector>

namespace bench {

constexpr int pumpTimeoutMs = 100;
constexpr int connectTimeoutMs = 10'000;

/// A scheduler that runs the worker given on the command line, not started yet.
class GrowthPool {
public:
    explicit GrowthPool(const Options& options)
        : scheduler(options.text("worker", ""), false, {}, true)
    {
    }

    void start(std::uint64_t workers)
    {
        if (!scheduler.startScheduler(workers, connectTimeoutMs))
            fail("the workers could not be started");
    }

    /// Gives every worker a job that it never answers.
    void keepBusy(std::uint64_t workers)
    {
        const std::vector<char> job(64, static_cast<char>(Kind::hold));
        for (std::uint64_t i = 0; i < workers; ++i)
            scheduler.push(job);
        // One pass hands all jobs out, the next one flushes them; a few more do no harm.
        for (int pass = 0; pass < 10; ++pass)
            scheduler.processScheduler(pumpTimeoutMs / 10);
        if (scheduler.jobCount() != workers || scheduler.failCount() != 0)
            fail("the workers do not keep their jobs");
    }

    nq::nqScheduler scheduler;
};

/// Workers that never answer would be waited for without end; the kernel kills them with their
/// host.
[[noreturn]] inline void leaveWithBusyWorkers()
{
    std::fflush(nullptr);
    std::_Exit(0);
}

} // namespace bench
