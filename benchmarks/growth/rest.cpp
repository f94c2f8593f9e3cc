#include "benchmarks/growth/growth.h"

#include "benchmarks/common/clock.h"
#include "benchmarks/common/processes.h"
#include "benchmarks/growth/pool.h"

#include <iostream>
#include <unistd.h>

namespace bench {

void rest(const Options& options)
{
    const std::uint64_t workers = options.number("workers", 2);
    const auto nanoseconds =
        static_cast<std::int64_t>(options.number("seconds", 2)) * 1'000'000'000;
    GrowthPool pool(options);
    pool.start(workers);
    if (options.number("busy", 0) != 0)
        pool.keepBusy(workers);

    const std::vector<pid_t> pids = children();
    std::cout << "{\"host\": " << ::getpid() << ", \"workers\": [";
    for (std::size_t i = 0; i < pids.size(); ++i)
        std::cout << (i == 0 ? "" : ", ") << pids[i];
    std::cout << "], \"timeout_ms\": " << pumpTimeoutMs << "}" << std::endl;

    std::int64_t workerCpu = 0;
    for (const pid_t pid : pids)
        workerCpu -= cpuNanosecondsOf(pid);
    std::int64_t hostCpu = -processCpuNanoseconds();
    const std::int64_t begin = monotonicNanoseconds();
    std::uint64_t pumps = 0;
    while (monotonicNanoseconds() - begin < nanoseconds) {
        pool.scheduler.processScheduler(pumpTimeoutMs);
        ++pumps;
    }
    const std::int64_t wall = monotonicNanoseconds() - begin;
    hostCpu += processCpuNanoseconds();
    for (const pid_t pid : pids)
        workerCpu += cpuNanosecondsOf(pid);
    std::cout << "{\"wall_ns\": " << wall << ", \"pumps\": " << pumps
              << ", \"host_cpu_ns\": " << hostCpu << ", \"worker_cpu_ns\": " << workerCpu << "}"
              << std::endl;
    leaveWithBusyWorkers();
}

} // namespace bench
