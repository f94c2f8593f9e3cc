// One JSON object. Members may be added; what is there keeps its name, unit and meaning as long as
// the version stays the same.
#include "pool/nqPoolStatusFile.h"

#include "pool/nqEndNames.h"
#include "pool/nqJson.h"
#include "pool/nqMarkup.h"

#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace nq {

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using State = nqPoolStatus::State;

constexpr char format[] = "nqPool status";
constexpr std::uint64_t version = 1;
constexpr char running[] = "running";
constexpr char ended[] = "ended";

void appendName(std::string& out, std::string_view name)
{
    if (out.back() != '{' && out.back() != '[')
        out += ", ";
    appendJsonText(out, name);
    out += ": ";
}

void appendText(std::string& out, std::string_view name, std::string_view text)
{
    appendName(out, name);
    appendJsonText(out, text);
}

void appendCount(std::string& out, std::string_view name, std::uint64_t count)
{
    appendName(out, name);
    appendNumber(out, count);
}

void appendTime(std::string& out, std::string_view name, microseconds time)
{
    appendName(out, name);
    appendSeconds(out, time);
}

void appendReasons(std::string& out, const nqPoolStatistics& statistics)
{
    appendName(out, "reasons");
    out += '{';
    for (std::size_t reason = 0; reason < nqPoolStatistics::reasons; ++reason)
        appendCount(
            out, nameOf(static_cast<nqAttempt::Reason>(reason)), statistics.byReason[reason]);
    out += '}';
}

void appendStatistics(std::string& out, const nqPoolStatistics& statistics)
{
    appendTime(out, "age_seconds", statistics.age);
    appendCount(out, "submitted", statistics.submitted);
    appendCount(out, "done", statistics.done);
    appendCount(out, "failed", statistics.failed);
    appendCount(out, "cancelled", statistics.cancelled);
    appendCount(out, "retried", statistics.retried);
    appendCount(out, "queued", statistics.queued);
    appendCount(out, "running", statistics.running);
    appendReasons(out, statistics);
    appendCount(out, "alive", statistics.alive);
    appendCount(out, "launched", statistics.launched);
    appendCount(out, "launches_failed", statistics.launchesFailed);
    appendCount(out, "job_bytes", statistics.jobBytes);
    appendCount(out, "result_bytes", statistics.resultBytes);
    appendCount(out, "writes_failed", statistics.writesFailed);
    appendName(out, "done_per_second");
    appendDecimal(out, std::llround(statistics.donePerSecond * 1000), 3);
    appendTime(out, "median_run_seconds", statistics.medianRunTime);
    appendTime(out, "p90_run_seconds", statistics.p90RunTime);
    appendTime(out, "p99_run_seconds", statistics.p99RunTime);
    appendTime(out, "longest_run_seconds", statistics.longestRunTime);
}

void appendWorker(std::string& out, const nqPoolWorkerStatus& worker)
{
    out += out.back() == '[' ? "\n  {" : ",\n  {";
    appendCount(out, "number", worker.number);
    appendCount(out, "pid", static_cast<std::uint64_t>(worker.pid));
    appendCount(out, "job", worker.job);
    if (worker.job != 0) {
        appendText(out, "label", shownLabel(worker.label));
        appendTime(out, "seconds_in_job", worker.timeInJob);
    }
    appendCount(out, "memory_bytes", worker.residentMemory);
    appendCount(out, "jobs_done", worker.jobsDone);
    out += '}';
}

microseconds timeOf(const nqJson& seconds)
{
    return microseconds(std::llround(seconds.number() * 1e6));
}

std::size_t sizeOf(const nqJson& count)
{
    return static_cast<std::size_t>(count.count());
}

milliseconds millisecondsOf(const nqJson& seconds)
{
    return std::chrono::round<milliseconds>(timeOf(seconds));
}

nqPoolStatistics statisticsOf(const nqJson& json)
{
    nqPoolStatistics statistics;
    statistics.age = timeOf(json["age_seconds"]);
    statistics.submitted = json["submitted"].count();
    statistics.done = json["done"].count();
    statistics.failed = json["failed"].count();
    statistics.cancelled = json["cancelled"].count();
    statistics.retried = json["retried"].count();
    statistics.queued = sizeOf(json["queued"]);
    statistics.running = sizeOf(json["running"]);
    for (std::size_t reason = 0; reason < nqPoolStatistics::reasons; ++reason)
        statistics.byReason[reason] =
            json["reasons"][std::string(nameOf(static_cast<nqAttempt::Reason>(reason)))].count();
    statistics.alive = sizeOf(json["alive"]);
    statistics.launched = json["launched"].count();
    statistics.launchesFailed = json["launches_failed"].count();
    statistics.jobBytes = json["job_bytes"].count();
    statistics.resultBytes = json["result_bytes"].count();
    statistics.writesFailed = json["writes_failed"].count();
    statistics.donePerSecond = json["done_per_second"].number();
    statistics.medianRunTime = timeOf(json["median_run_seconds"]);
    statistics.p90RunTime = timeOf(json["p90_run_seconds"]);
    statistics.p99RunTime = timeOf(json["p99_run_seconds"]);
    statistics.longestRunTime = timeOf(json["longest_run_seconds"]);
    return statistics;
}

nqPoolWorkerStatus workerOf(const nqJson& json)
{
    nqPoolWorkerStatus worker;
    worker.number = sizeOf(json["number"]);
    worker.pid = static_cast<std::int64_t>(json["pid"].count());
    worker.job = json["job"].count();
    worker.label = json["label"].text();
    worker.timeInJob = millisecondsOf(json["seconds_in_job"]);
    worker.residentMemory = json["memory_bytes"].count();
    worker.jobsDone = json["jobs_done"].count();
    return worker;
}

} // namespace

std::string statusText(const nqPoolStatus& status)
{
    std::string out = "{";
    appendText(out, "format", format);
    appendCount(out, "version", version);
    appendText(out, "state", status.state == State::Running ? running : ended);
    appendText(out, "name", status.name);
    appendCount(out, "host_pid", static_cast<std::uint64_t>(status.host));
    appendTime(out, "written", std::chrono::floor<milliseconds>(status.written.time_since_epoch()));
    appendStatistics(out, status.statistics);
    appendText(out, "problem", status.problem);
    if (status.timeLeft)
        appendTime(out, "seconds_left", *status.timeLeft);
    appendName(out, "workers");
    out += '[';
    for (const nqPoolWorkerStatus& worker : status.workers)
        appendWorker(out, worker);
    out += "]}\n";
    return out;
}

nqPoolStatus readPoolStatus(const std::string& file)
{
    if (std::error_code ignored; std::filesystem::is_directory(file, ignored))
        throw nqPoolError("The status file " + file + " cannot be read: it is a folder");
    std::ifstream stream(file, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(stream), {}};
    if (!stream)
        throw nqPoolError("The status file " + file + " cannot be read");
    const std::optional<nqJson> read = nqJson::parse(text);
    if (!read || (*read)["format"].text() != format)
        throw nqPoolError(file + " is not the status file of a pool");
    const nqJson& json = *read;
    if (json["version"].count() != version)
        throw nqPoolError(file + " is the status file of another version of the library");
    nqPoolStatus status;
    status.state = json["state"].text() == ended ? State::Ended : State::Running;
    status.name = json["name"].text();
    status.host = static_cast<std::int64_t>(json["host_pid"].count());
    status.written = std::chrono::system_clock::time_point(millisecondsOf(json["written"]));
    status.statistics = statisticsOf(json);
    status.problem = json["problem"].text();
    if (const nqJson& left = json["seconds_left"]; left.isNumber())
        status.timeLeft = millisecondsOf(left);
    for (const nqJson& worker : json["workers"].elements())
        status.workers.push_back(workerOf(worker));
    return status;
}

} // namespace nq
