// An event is begun, gets its members, perhaps its arguments, and is ended, which takes it back
// when it is beyond the limit. Room for the last event, which may say so, and for the end is kept
// free.
#include "pool/nqPoolTrace.h"

#include "pool/nqMarkup.h"

#include <unistd.h>
#include <utility>

namespace nq {

namespace {

constexpr std::uint64_t bytesKeptFree = 512;

std::string workerName(std::size_t worker)
{
    return "worker " + std::to_string(worker);
}

std::string jobName(nqJobId job, std::string_view label)
{
    return label.empty() ? "job " + std::to_string(job) : shownLabel(label);
}

} // namespace

nqPoolTrace::nqPoolTrace(std::uint64_t limit, const std::string& name, std::size_t workers)
    : mLimit(limit),
      mProcess(static_cast<std::uint64_t>(::getpid()))
{
    mPending = "[\n";
    mBytes = mPending.size();
    begin("M", "process_labels", Time(0), 0);
    beginArguments();
    append("labels", traceFormat);
    append("version", 1);
    append("workers", workers);
    append("title", shownLabel(name));
    end();
    addName("process_name", 0, name.empty() ? "pool" : "pool " + shownLabel(name));
    addName("thread_name", 0, "no worker");
    for (std::size_t worker = 1; worker <= workers; ++worker)
        addName("thread_name", worker, workerName(worker));
}

void nqPoolTrace::addName(const char* kind, std::size_t worker, const std::string& name)
{
    begin("M", kind, Time(0), worker);
    beginArguments();
    append("name", name);
    end();
}

void nqPoolTrace::begin(const char* phase, std::string_view name, Time at, std::size_t worker)
{
    mLine = mPending.size();
    mLatest = at;
    mPending.append("{\"ph\":\"").append(phase).append("\"");
    append("name", name);
    append("pid", mProcess);
    append("tid", worker);
    append("ts", static_cast<std::uint64_t>(at.count()));
}

void nqPoolTrace::append(const char* name, std::uint64_t value)
{
    if (mPending.back() != '{')
        mPending += ',';
    mPending.append("\"").append(name).append("\":");
    appendNumber(mPending, value);
}

void nqPoolTrace::append(const char* name, std::string_view text)
{
    if (mPending.back() != '{')
        mPending += ',';
    mPending.append("\"").append(name).append("\":");
    appendJsonText(mPending, text);
}

void nqPoolTrace::beginArguments()
{
    mPending += ",\"args\":{";
    mHasArguments = true;
}

void nqPoolTrace::end()
{
    mPending += std::exchange(mHasArguments, false) ? "}},\n" : "},\n";
    const std::size_t size = mPending.size() - mLine;
    const bool isName = mPending.compare(mLine, 9, "{\"ph\":\"M\"") == 0;
    if (isName || mLimit == 0 || mBytes + size + bytesKeptFree <= mLimit) {
        mBytes += size;
        return;
    }
    mPending.resize(mLine);
    mIsFull = true;
    addLastMark("the trace has reached its limit: what comes later is left out");
    mPending += ",\n";
}

void nqPoolTrace::addAttempt(const Span& span, const nqAttempt& attempt)
{
    if (mIsFull)
        return;
    begin("X", jobName(span.job, span.label), span.begin, span.worker);
    append("dur", static_cast<std::uint64_t>((span.end - span.begin).count()));
    append("cat", "attempt");
    beginArguments();
    append("id", span.job);
    append("outcome", nameOf(attempt.reason));
    append("attempt", span.attemptNumber);
    append("last", span.isLast ? 1 : 0);
    append("bytes", span.jobBytes);
    append("result_bytes", span.resultBytes);
    end();
}

void nqPoolTrace::addWaitingJob(
    Time at, nqJobId job, std::string_view label, nqAttempt::Reason reason)
{
    if (mIsFull)
        return;
    begin("i", jobName(job, label), at, 0);
    append("s", "t");
    append("cat", "waiting job");
    beginArguments();
    append("id", job);
    append("outcome", nameOf(reason));
    end();
}

void nqPoolTrace::addWorkerLaunched(Time at, std::size_t worker, std::int64_t pid)
{
    addMark(at, worker, "launched: pid " + std::to_string(pid), "launch");
}

void nqPoolTrace::addWorkerEnded(Time at, std::size_t worker, nqWorkerEnd how)
{
    addMark(at, worker, std::string(nameOf(how)), "end");
}

void nqPoolTrace::addMark(
    Time at, std::size_t worker, const std::string& name, const char* category)
{
    if (mIsFull)
        return;
    begin("i", name, at, worker);
    append("s", "t");
    append("cat", category);
    end();
}

void nqPoolTrace::addQueued(Time at, std::size_t jobs)
{
    if (mIsFull)
        return;
    begin("C", "queue", at, 0);
    beginArguments();
    append("jobs", jobs);
    end();
}

void nqPoolTrace::addMemory(Time at, const std::vector<nqPoolWorkerStatus>& workers)
{
    if (mIsFull || workers.empty())
        return;
    begin("C", "memory", at, 0);
    beginArguments();
    for (const nqPoolWorkerStatus& worker : workers)
        append(workerName(worker.number).c_str(), worker.residentMemory);
    end();
}

void nqPoolTrace::close(Time at)
{
    mLatest = at;
    addLastMark("the pool has ended");
    mPending += "\n]\n";
}

/// What there is always room for.
void nqPoolTrace::addLastMark(const char* name)
{
    begin("i", name, mLatest, 0);
    append("s", "p");
    append("cat", "end of the trace");
    mPending += '}';
}

std::size_t nqPoolTrace::pendingBytes() const
{
    return mPending.size();
}

std::string nqPoolTrace::take()
{
    return std::exchange(mPending, {});
}

} // namespace nq
