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

struct Times {
    std::int64_t wall = 0;
    std::int64_t hostCpu = 0;
    std::int64_t workerCpu = 0;
};

Times timesNow(const std::vector<pid_t>& workers)
{
    Times times;
    times.wall = monotonicNanoseconds();
    times.hostCpu = processCpuNanoseconds();
    for (const pid_t worker : workers)
        times.workerCpu += cpuNanosecondsOf(worker);
    return times;
}

std::uint64_t largestResident(const std::vector<pid_t>& workers)
{
    std::uint64_t largest = 0;
    for (const pid_t worker : workers)
        largest = std::max(largest, residentBytesOf(worker));
    return largest;
}

// Warm-up, measured jobs and as many jobs more are one flow: a pause would let a pool give its
// memory back, and its page faults would count among the measured jobs; and at the end of the flow
// not every worker has work.
void measureThroughput(Pool& pool, Ledger& ledger, const Options& options)
{
    const std::uint64_t jobs = options.number("jobs", 1000);
    // Long enough that the first use of each buffer belongs to it.
    const std::uint64_t inFlight = options.number("workers", 1) + jobsAhead;
    const std::uint64_t warmUp = options.number("warm-up", jobs / 10 + 2 * inFlight);
    if (warmUp == 0)
        fail("there is no measurement without a warm-up");
    const std::uint64_t all = warmUp + jobs + warmUp;

    // Looking through /proc is no part of what a tool that counts instructions is to see.
    if (options.number("only-run", 0) != 0) {
        pool.run(ledger, all);
        ledger.requireBalance();
        return;
    }
    const std::vector<pid_t> workers = children();
    Times begin;
    Times end;
    ledger.callAfter(warmUp, [&] {
        begin = timesNow(workers);
        ledger.callAfter(warmUp + jobs, [&] { end = timesNow(workers); });
    });
    pool.run(ledger, all);
    ledger.requireBalance();

    std::cout << "{\"jobs\": " << jobs << ", \"bytes\": " << ledger.jobBytes()
              << ", \"workers\": " << workers.size() << ", \"wall_ns\": " << end.wall - begin.wall
              << ", \"host_cpu_ns\": " << end.hostCpu - begin.hostCpu
              << ", \"worker_cpu_ns\": " << end.workerCpu - begin.workerCpu
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
    const std::unique_ptr<Pool> pool = makePool(
        {options.number("workers", 1),
         options.text("worker", ""),
         options.number("moves-jobs", 0) != 0,
         options.number("observed", 0) != 0,
         options.number("epoll", 0) != 0,
         options.number("plain", 0) != 0,
         options.text("shown", ""),
         options.text("folder", ".")});
    if (kind == "repair")
        measureRepair(*pool, ledger, deaths, options);
    else
        measureThroughput(*pool, ledger, options);
    return 0;
}
