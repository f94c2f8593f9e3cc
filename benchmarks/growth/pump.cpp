#include "benchmarks/growth/growth.h"

#include "benchmarks/common/clock.h"
#include "benchmarks/common/processes.h"
#include "benchmarks/growth/pool.h"

#include <algorithm>
#include <filesystem>
#include <iostream>

namespace bench {

namespace {

constexpr unsigned long capNobodyReaches = 1ul << 40;
constexpr unsigned long roundsOfPasses = 9;

std::size_t openDescriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

// Processor time, so that a machine with other things to do changes little, and the median of a
// few rounds.
double nanosecondsPerPass(nq::nqScheduler& scheduler, std::uint64_t passes, int timeoutMs)
{
    std::vector<double> rounds;
    for (unsigned long round = 0; round < roundsOfPasses; ++round) {
        const std::int64_t begin = threadCpuNanoseconds();
        for (std::uint64_t pass = 0; pass < passes; ++pass)
            scheduler.processScheduler(timeoutMs);
        const auto took = static_cast<double>(threadCpuNanoseconds() - begin);
        rounds.push_back(took / static_cast<double>(passes));
    }
    std::sort(rounds.begin(), rounds.end());
    return rounds[rounds.size() / 2];
}

} // namespace

void growPump(const Options& options)
{
    const std::uint64_t workers = options.number("workers", 1);
    allowManyDescriptors();
    GrowthPool pool(options);
    if (options.number("caps", 0) != 0) {
        pool.scheduler.setMaxCapMemory(capNobodyReaches);
        pool.scheduler.setMaxCapMemoryAfterProcessingAJob(capNobodyReaches);
    }
    const std::size_t descriptorsBefore = openDescriptors();
    pool.start(workers);
    const std::size_t descriptors = openDescriptors() - descriptorsBefore;
    pool.keepBusy(workers);

    const std::uint64_t passes = options.number("passes", 20'000) / workers + 1;
    const double pass = nanosecondsPerPass(pool.scheduler, passes, 0);
    const double waitingPass = nanosecondsPerPass(pool.scheduler, 10, 1);
    std::cout << "{\"workers\": " << workers << ", \"pass_ns\": " << pass
              << ", \"waiting_pass_ns\": " << waitingPass << ", \"descriptors\": " << descriptors
              << "}" << std::endl;
    leaveWithBusyWorkers();
}

} // namespace bench
