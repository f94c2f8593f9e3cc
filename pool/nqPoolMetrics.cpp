#include "pool/nqPoolMetrics.h"

#include "nqSchedulerAPIVersion.h"
#include "pool/nqMarkup.h"

#include <algorithm>

namespace nq {

namespace {

using std::chrono::microseconds;

/// Two for each power of ten.
constexpr std::array<microseconds, 17> bounds{
    microseconds(100),
    microseconds(300),
    microseconds(1'000),
    microseconds(3'000),
    microseconds(10'000),
    microseconds(30'000),
    microseconds(100'000),
    microseconds(300'000),
    microseconds(1'000'000),
    microseconds(3'000'000),
    microseconds(10'000'000),
    microseconds(30'000'000),
    microseconds(100'000'000),
    microseconds(300'000'000),
    microseconds(1'000'000'000),
    microseconds(3'000'000'000),
    microseconds(10'000'000'000)};

constexpr std::array<nqWorkerEnd, 9> causes{
    nqWorkerEnd::Crashed,
    nqWorkerEnd::Exited,
    nqWorkerEnd::MemoryCap,
    nqWorkerEnd::Timeout,
    nqWorkerEnd::Deadline,
    nqWorkerEnd::Cancelled,
    nqWorkerEnd::OutOfStep,
    nqWorkerEnd::Recycled,
    nqWorkerEnd::LaunchFailed};

const char* outcomeOf(nqAttempt::Reason reason)
{
    if (reason == nqAttempt::Reason::None)
        return "done";
    const bool isCancelled =
        reason == nqAttempt::Reason::Cancelled || reason == nqAttempt::Reason::Stopped;
    return isCancelled ? "cancelled" : "failed";
}

std::string label(const char* name, std::string_view value)
{
    std::string text = name;
    text += '=';
    appendMetricText(text, value);
    return text + ',';
}

void appendHead(std::string& out, const char* name, const char* type, const char* help)
{
    out.append("# HELP ").append(name).append(" ").append(help);
    out.append("\n# TYPE ").append(name).append(" ").append(type).append("\n");
}

/// `labels` ends in a comma or is empty; the value follows.
void appendSeries(std::string& out, const char* name, const std::string& labels)
{
    out += name;
    if (!labels.empty())
        out.append("{").append(labels, 0, labels.size() - 1).append("}");
    out += ' ';
}

void appendValue(std::string& out, const char* name, const std::string& labels, std::uint64_t value)
{
    appendSeries(out, name, labels);
    appendNumber(out, value);
    out += '\n';
}

struct Single {
    const char* name;
    const char* type;
    const char* help;
    std::uint64_t value;
};

void appendSingles(
    std::string& out, const std::string& pool, const nqPoolStatistics& now, std::size_t workers)
{
    const std::array<Single, 13> singles{{
        {"nq_pool_jobs_submitted_total", "counter", "Jobs accepted.", now.submitted},
        {"nq_pool_attempts_retried_total", "counter", "Attempts after the first.", now.retried},
        {"nq_pool_jobs_queued", "gauge", "Jobs that wait.", now.queued},
        {"nq_pool_jobs_running", "gauge", "Jobs that workers hold.", now.running},
        {"nq_pool_workers", "gauge", "Workers at most.", workers},
        {"nq_pool_workers_alive", "gauge", "Workers that live.", now.alive},
        {"nq_pool_workers_busy", "gauge", "Workers that hold a job.", now.running},
        {"nq_pool_workers_launched_total", "counter", "Launches of workers.", now.launched},
        {"nq_pool_launches_failed_total",
         "counter",
         "Launches that gave no worker that could take a job.",
         now.launchesFailed},
        {"nq_pool_job_bytes_total", "counter", "Size of the jobs accepted.", now.jobBytes},
        {"nq_pool_result_bytes_total", "counter", "Size of the results.", now.resultBytes},
        {"nq_pool_writes_failed_total",
         "counter",
         "Writes of files like this one that have failed.",
         now.writesFailed},
        {"nq_pool_age_seconds",
         "gauge",
         "Time since the pool was made.",
         static_cast<std::uint64_t>(std::chrono::floor<std::chrono::seconds>(now.age).count())},
    }};
    for (const Single& single : singles) {
        appendHead(out, single.name, single.type, single.help);
        appendValue(out, single.name, pool, single.value);
    }
}

void appendOutcomes(std::string& out, const std::string& pool, const nqPoolStatistics& now)
{
    constexpr char name[] = "nq_pool_jobs_total";
    appendHead(out, name, "counter", "Jobs that have their outcome, by what became of them.");
    for (std::size_t index = 0; index < nqPoolStatistics::reasons; ++index) {
        const auto reason = static_cast<nqAttempt::Reason>(index);
        appendValue(
            out,
            name,
            pool + label("outcome", outcomeOf(reason)) + label("reason", nameOf(reason)),
            now.byReason[index]);
    }
}

void appendMemory(
    std::string& out, const std::string& pool, const std::vector<nqPoolWorkerStatus>& workers)
{
    constexpr char name[] = "nq_pool_worker_memory_bytes";
    appendHead(out, name, "gauge", "Resident memory of each worker that lives.");
    for (const nqPoolWorkerStatus& worker : workers)
        appendValue(
            out,
            name,
            pool + label("worker", std::to_string(worker.number)),
            worker.residentMemory);
}

} // namespace

void nqTimeHistogram::add(microseconds time)
{
    const auto bound = std::lower_bound(bounds.begin(), bounds.end(), time);
    ++mCounts[static_cast<std::size_t>(bound - bounds.begin())];
    mSum += time;
}

void nqTimeHistogram::append(std::string& out, const char* name, const std::string& labels) const
{
    static_assert(boundCount == bounds.size());
    const std::string bucket = std::string(name) + "_bucket";
    std::uint64_t count = 0;
    for (std::size_t index = 0; index < mCounts.size(); ++index) {
        count += mCounts[index];
        std::string bound = "+Inf";
        if (index < bounds.size()) {
            bound.clear();
            appendSeconds(bound, bounds[index]);
        }
        appendValue(out, bucket.c_str(), labels + label("le", bound), count);
    }
    appendSeries(out, (std::string(name) + "_sum").c_str(), labels);
    appendSeconds(out, mSum);
    out += '\n';
    appendValue(out, (std::string(name) + "_count").c_str(), labels, count);
}

void nqPoolMetrics::addRun(microseconds time)
{
    mRunTimes.add(time);
}

void nqPoolMetrics::addWait(microseconds time)
{
    mWaitTimes.add(time);
}

void nqPoolMetrics::addRestart(nqWorkerEnd cause)
{
    ++mRestarts[cause];
}

std::string nqPoolMetrics::text(const nqPoolStatus& status, std::size_t workers) const
{
    const std::string pool = status.name.empty() ? std::string() : label("pool", status.name);
    std::string out;
    appendHead(out, "nq_pool_info", "gauge", "Always 1; which version of the library this is.");
    appendValue(
        out,
        "nq_pool_info",
        pool + label("version", nqSchedulerAPI::Version::GetDescStringMajorMinorRelease(false)),
        1);
    appendOutcomes(out, pool, status.statistics);
    appendSingles(out, pool, status.statistics, workers);
    constexpr char restarts[] = "nq_pool_worker_restarts_total";
    appendHead(
        out, restarts, "counter", "Workers replaced, by how the one before came to its end.");
    for (const nqWorkerEnd cause : causes) {
        const auto found = mRestarts.find(cause);
        appendValue(
            out,
            restarts,
            pool + label("cause", nameOf(cause)),
            found == mRestarts.end() ? 0 : found->second);
    }
    constexpr char runs[] = "nq_pool_job_run_seconds";
    appendHead(out, runs, "histogram", "Time of each attempt in its worker.");
    mRunTimes.append(out, runs, pool);
    constexpr char waits[] = "nq_pool_job_wait_seconds";
    appendHead(out, waits, "histogram", "Time from the submission of a job to its first attempt.");
    mWaitTimes.append(out, waits, pool);
    appendMemory(out, pool, status.workers);
    return out;
}

} // namespace nq
