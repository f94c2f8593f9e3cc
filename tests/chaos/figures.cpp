#include "tests/chaos/figures.h"

#include "nqScheduler.h"

#include <algorithm>
#include <iomanip>
#include <string>

namespace chaos {

namespace {

constexpr double nanosecondsPerMs = 1e6;

template <typename Value>
void row(std::ostream& out, const std::string& name, Value value, const char* unit = "")
{
    out << "  " << std::left << std::setw(44) << name << std::right << std::setw(12) << value << ' '
        << unit << '\n';
}

} // namespace

void Figures::add(const Figures& other)
{
    rounds += other.rounds;
    jobs += other.jobs;
    results += other.results;
    for (std::size_t reason = 0; reason < failReasons; ++reason)
        failures[reason] += other.failures[reason];
    kills += other.kills;
    crashes += other.crashes;
    stops += other.stops;
    ownDeaths += other.ownDeaths;
    launches += other.launches;
    starts += other.starts;
    failedStarts += other.failedStarts;
    firstLaunches += other.firstLaunches;
    failedLaunches += other.failedLaunches;
    emptiedPools += other.emptiedPools;
    longestToReport = std::max(longestToReport, other.longestToReport);
    longestToReportSteadily = std::max(longestToReportSteadily, other.longestToReportSteadily);
    peakDescriptors = std::max(peakDescriptors, other.peakDescriptors);
}

std::uint64_t Figures::replacements() const
{
    return launches > firstLaunches ? launches - firstLaunches : 0;
}

void print(const Figures& figures, std::ostream& out)
{
    using nq::nqScheduler;
    const auto milliseconds = [](std::int64_t time) {
        return static_cast<double>(time) / nanosecondsPerMs;
    };
    out << std::fixed << std::setprecision(1);
    row(out, "rounds", figures.rounds);
    row(out, "jobs", figures.jobs);
    row(out, "results", figures.results);
    row(out, "failures: UnexpectedCrash", figures.failures[nqScheduler::UnexpectedCrash]);
    row(out, "failures: TooMuchRam", figures.failures[nqScheduler::TooMuchRam]);
    row(out, "failures: Timeout", figures.failures[nqScheduler::Timeout]);
    row(out, "workers killed (SIGKILL)", figures.kills);
    row(out, "workers crashed from outside (SIGSEGV)", figures.crashes);
    row(out, "workers stopped and continued", figures.stops);
    row(out, "workers that ended by a job's wish", figures.ownDeaths);
    row(out, "starts of a scheduler", figures.starts);
    row(out, "starts that failed", figures.failedStarts);
    row(out, "launches that failed, their worker killed", figures.failedLaunches);
    row(out, "pools emptied by failed launches", figures.emptiedPools);
    row(out, "replacements", figures.replacements());
    row(out, "longest from a death to its failure", milliseconds(figures.longestToReport), "ms");
    row(out,
        "  the same where the host is never away",
        milliseconds(figures.longestToReportSteadily),
        "ms");
    row(out, "peak of open descriptors", figures.peakDescriptors);
}

} // namespace chaos
