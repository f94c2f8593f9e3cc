#include "benchmarks/growth/growth.h"

#include "benchmarks/common/clock.h"
#include "benchmarks/growth/pool.h"

#include <iostream>

namespace bench {

namespace {

// Returns the number of pump calls that the job took.
std::uint64_t runOne(nq::nqScheduler& scheduler, const std::vector<char>& job)
{
    std::vector<char> result;
    std::uint64_t pumps = 0;
    scheduler.push(job);
    while (!scheduler.pop(result)) {
        scheduler.processScheduler(pumpTimeoutMs);
        ++pumps;
        if (scheduler.failCount() != 0)
            fail("a worker lost a job");
    }
    if (result.size() != job.size() || result.front() != job.front() || result.back() != job.back())
        fail("a result differs from its job");
    return pumps;
}

} // namespace

void growPayload(const Options& options)
{
    const std::uint64_t bytes = options.number("bytes", 1);
    const std::uint64_t jobs = options.number("jobs", 1);
    GrowthPool pool(options);
    pool.start(1);
    const std::vector<char> job(bytes, static_cast<char>(Kind::echo));
    runOne(pool.scheduler, job);

    const std::int64_t begin = monotonicNanoseconds();
    std::uint64_t pumps = 0;
    for (std::uint64_t i = 0; i < jobs; ++i)
        pumps += runOne(pool.scheduler, job);
    const std::int64_t wall = monotonicNanoseconds() - begin;
    std::cout << "{\"bytes\": " << bytes << ", \"jobs\": " << jobs << ", \"wall_ns\": " << wall
              << ", \"pumps\": " << pumps << "}\n";
}

} // namespace bench
