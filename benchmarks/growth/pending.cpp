#include "benchmarks/growth/growth.h"

#include "benchmarks/common/clock.h"
#include "benchmarks/common/processes.h"
#include "benchmarks/growth/pool.h"

#include <algorithm>
#include <iostream>
#include <unistd.h>

namespace bench {

namespace {

constexpr std::uint64_t workers = 2;
constexpr std::size_t jobBytes = 64;

double perJob(std::int64_t nanoseconds, std::uint64_t jobs)
{
    return static_cast<double>(nanoseconds) / static_cast<double>(jobs);
}

} // namespace

void growPending(const Options& options)
{
    const std::uint64_t jobs = options.number("jobs", 10'000);
    // A small number of jobs is pushed again and again; of a large number only the first ones are
    // run, while all the others wait behind them.
    const std::uint64_t atLeast = options.number("at-least", 20'000);
    const std::uint64_t repetitions = (atLeast + jobs - 1) / jobs;
    const std::uint64_t run = std::min(jobs, atLeast);
    GrowthPool pool(options);
    nq::nqScheduler& scheduler = pool.scheduler;
    pool.start(workers);

    const std::vector<char> job(jobBytes, static_cast<char>(Kind::echo));
    std::vector<char> result;
    std::int64_t pushing = 0;
    std::int64_t running = 0;
    std::int64_t popping = 0;
    double bytesPerJob = 0;
    for (std::uint64_t repetition = 0; repetition < repetitions; ++repetition) {
        const std::uint64_t residentBefore = residentBytesOf(::getpid());
        const std::int64_t begin = threadCpuNanoseconds();
        for (std::uint64_t i = 0; i < jobs; ++i)
            scheduler.push(job);
        const std::int64_t pushed = threadCpuNanoseconds();
        // Later repetitions use the memory of the first again.
        if (repetition == 0)
            bytesPerJob = static_cast<double>(residentBytesOf(::getpid()) - residentBefore) /
                          static_cast<double>(jobs);

        const std::int64_t started = threadCpuNanoseconds();
        while (scheduler.resultCount() < run)
            scheduler.processScheduler(0);
        const std::int64_t answered = threadCpuNanoseconds();
        std::uint64_t popped = 0;
        while (scheduler.pop(result)) {
            if (result != job)
                fail("a result differs from its job");
            ++popped;
        }
        pushing += pushed - begin;
        running += answered - started;
        popping += threadCpuNanoseconds() - answered;
        if (popped < run || scheduler.failCount() != 0)
            fail("jobs were lost");
        scheduler.clearPendingJobs();
        while (scheduler.jobCount() != 0) {
            scheduler.processScheduler(pumpTimeoutMs);
            scheduler.pop(result);
        }
        while (scheduler.pop(result)) {
        }
    }
    std::cout << "{\"jobs\": " << jobs << ", \"push_ns\": " << perJob(pushing, jobs * repetitions)
              << ", \"run_ns\": " << perJob(running, run * repetitions)
              << ", \"pop_ns\": " << perJob(popping, run * repetitions)
              << ", \"bytes_per_job\": " << bytesPerJob << "}\n";
}

} // namespace bench
