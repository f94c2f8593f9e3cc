// Runs one workload on the pool that this executable is linked with and prints its figures as one
// line of JSON.
#include "benchmarks/common/clock.h"
#include "benchmarks/common/fail.h"
#include "benchmarks/common/options.h"
#include "benchmarks/common/pool.h"
#include "benchmarks/common/processes.h"

#include <algorithm>
#include <iostream>
#include <sstream>
#include <unistd.h>

namespace {

using namespace bench;

struct CpuTimes {
    std::int64_t host = 0;
    std::int64_t workers = 0;
};

CpuTimes cpuTimes(const std::vector<pid_t>& workers)
{
    CpuTimes times;
    times.host = processCpuNanoseconds();
    for (const pid_t worker : workers)
        times.workers += cpuNanosecondsOf(worker);
    return times;
}

std::uint64_t largestResident(const std::vector<pid_t>& workers)
{
    std::uint64_t largest = 0;
    for (const pid_t worker : workers)
        largest = std::max(largest, residentBytesOf(worker));
    return largest;
}

void measureThroughput(Pool& pool, Ledger& ledger, const Options& options)
{
    const std::uint64_t jobs = options.number("jobs", 1000);
    pool.run(ledger, options.number("warm-up", jobs / 10 + 1));

    // Looking through /proc is no part of what a tool that counts instructions is to see.
    if (options.number("only-run", 0) != 0) {
        pool.run(ledger, jobs);
        ledger.requireBalance();
        return;
    }
    const std::vector<pid_t> workers = children();
    const CpuTimes cpuBefore = cpuTimes(workers);
    const std::int64_t begin = monotonicNanoseconds();
    pool.run(ledger, jobs);
    const std::int64_t wall = monotonicNanoseconds() - begin;
    const CpuTimes cpuAfter = cpuTimes(workers);
    ledger.requireBalance();

    std::cout << "{\"jobs\": " << jobs << ", \"bytes\": " << ledger.jobBytes()
              << ", \"workers\": " << workers.size() << ", \"wall_ns\": " << wall
              << ", \"host_cpu_ns\": " << cpuAfter.host - cpuBefore.host
              << ", \"worker_cpu_ns\": " << cpuAfter.workers - cpuBefore.workers
              << ", \"host_resident_bytes\": " << residentBytesOf(::getpid())
              << ", \"worker_resident_bytes\": " << largestResident(workers) << "}\n";
}

// The job behind the one that kills the worker is answered by the replacement.
void measureRepair(Pool& pool, Ledger& ledger, const DeathNote& deaths, const Options& options)
{
    pool.run(ledger, options.number("warm-up", 10));
    // In one piece at the end: the library reports lost jobs on standard output.
    std::ostringstream figures;
    const std::uint64_t rounds = options.number("jobs", 20);
    for (std::uint64_t round = 0; round < rounds; ++round) {
        ledger.makeNextFatal();
        pool.run(ledger, 2);
        figures << (round == 0 ? "" : ", ") << monotonicNanoseconds() - deaths.diedAt();
    }
    ledger.requireBalance();
    std::cout << "{\"repair_ns\": [" << figures.str() << "]}\n";
}

} // namespace

int main(int argc, char* argv[])
{
    const Options options(argc, argv, 1);
    useProcessors(options.text("processors", ""));
    const std::string kind = options.text("kind", "echo");
    const DeathNote deaths;
    Ledger ledger(kind == "work" ? Kind::work : Kind::echo, options.number("bytes", 64));
    const std::unique_ptr<Pool> pool =
        makePool({options.number("workers", 1), options.text("worker", "")});
    if (kind == "repair")
        measureRepair(*pool, ledger, deaths, options);
    else
        measureThroughput(*pool, ledger, options);
    return 0;
}
