#include "pool/nqPoolObserver.h"

#include "pool/nqPoolStatusFile.h"

#include <algorithm>
#include <exception>
#include <unistd.h>
#include <utility>

namespace nq {

namespace {

/// How long the trace may be behind, and between two looks at the memory of the workers.
constexpr std::chrono::milliseconds traceInterval{500};

/// Of the trace in memory; then it is written before its time.
constexpr std::size_t traceBufferBytes = std::size_t{64} << 10;

/// Between two points of the queue, of which a pool of small jobs would have one for each job.
constexpr std::chrono::microseconds queueInterval{1'000};

std::string_view labelOf(const nqPoolJob& job)
{
    return job.details != nullptr ? std::string_view(job.details->options.label)
                                  : std::string_view();
}

} // namespace

std::unique_ptr<nqPoolObserver> nqPoolObserver::of(const nqPoolOptions& options)
{
    if (options.metricsFile.empty() && options.statusFile.empty() && options.traceFile.empty() &&
        options.timelineFile.empty())
        return nullptr;
    return std::make_unique<nqPoolObserver>(options);
}

nqPoolObserver::nqPoolObserver(const nqPoolOptions& options)
    : mOwner(::getpid()),
      mWorkers(options.inProcess ? 1 : options.workers),
      mPlaces(mWorkers)
{
    if (!options.metricsFile.empty()) {
        mMetricsFile.emplace("The file of metrics", options.metricsFile);
        mMetrics.emplace();
        mMetricsSchedule.interval = options.metricsInterval;
    }
    if (!options.statusFile.empty()) {
        mStatusFile.emplace("The status file", options.statusFile);
        mStatusSchedule.interval = options.statusInterval;
    }
    if (!options.timelineFile.empty()) {
        mTimelineFile.emplace("The timeline", options.timelineFile);
        mTimeline.emplace(mWorkers, options.name);
    }
    if (!options.traceFile.empty()) {
        mTraceFile.emplace("The trace", options.traceFile);
        mTrace.emplace(options.traceLimit, options.name, mWorkers);
        mTraceSchedule.interval = traceInterval;
    }
}

template <typename Action>
void nqPoolObserver::attempt(const Action& action)
{
    try {
        action();
    } catch (const std::exception&) { // no memory for it
        ++mWritesFailed;
    }
}

/// The same for something that has happened.
template <typename Action>
void nqPoolObserver::note(const Action& action)
{
    ++mNews;
    attempt(action);
}

/// Since the first thing that happened.
nqPoolObserver::Time nqPoolObserver::now()
{
    const TimePoint time = nqPoolClock::now();
    if (!mBegin)
        mBegin = time;
    return std::chrono::duration_cast<Time>(time - *mBegin);
}

nqPoolObserver::Place& nqPoolObserver::place(std::size_t worker)
{
    return mPlaces.at(worker - 1);
}

void nqPoolObserver::onSubmitted()
{
    ++mNews;
    if (!mBegin)
        now();
}

void nqPoolObserver::onGiven(std::size_t worker, const nqPoolJob& job)
{
    ++mNews;
    place(worker).jobBytes = job.bytes.size();
}

void nqPoolObserver::onAttemptEnded(
    std::size_t worker,
    const nqPoolJob& job,
    const nqAttempt& attempt,
    std::size_t resultBytes,
    bool isLast)
{
    note([&] {
        const Time end = now();
        const Time begin = std::max(end - attempt.ran, Time(0));
        if (mMetrics)
            mMetrics->addRun(attempt.ran);
        if (mTimeline)
            mTimeline->addAttempt(
                {worker, begin, end, attempt.reason, isLast, job.id, labelOf(job)});
        if (!mTrace)
            return;
        nqPoolTrace::Span span;
        span.worker = worker;
        span.begin = begin;
        span.end = end;
        span.job = job.id;
        span.label = labelOf(job);
        span.attemptNumber = job.attemptNumber();
        span.jobBytes = place(worker).jobBytes;
        span.resultBytes = attempt.reason == nqAttempt::Reason::None ? resultBytes : 0;
        span.isLast = isLast;
        mTrace->addAttempt(span, attempt);
        if (mTrace->pendingBytes() >= traceBufferBytes)
            writeTrace();
    });
}

void nqPoolObserver::onWaitingJobEnded(const nqPoolJob& job, nqAttempt::Reason reason)
{
    note([&] {
        const Time at = now();
        if (mTimeline)
            mTimeline->addAttempt({0, at, at, reason, true, job.id, labelOf(job)});
        if (mTrace)
            mTrace->addWaitingJob(at, job.id, labelOf(job), reason);
    });
}

void nqPoolObserver::onOutcome(const nqOutcome& outcome)
{
    if (mMetrics)
        note([&] { mMetrics->addWait(outcome.queued); });
}

void nqPoolObserver::onWorkerLaunched(std::size_t worker, std::int64_t pid)
{
    note([&] {
        const Time at = now();
        if (mTrace)
            mTrace->addWorkerLaunched(at, worker, pid);
        const std::optional<nqWorkerEnd> before = std::exchange(place(worker).end, std::nullopt);
        if (!before || *before == nqWorkerEnd::Stopped)
            return; // the last one has a successor that is never used
        if (mTimeline)
            mTimeline->addRestart(worker, at, nameOf(*before));
        if (mMetrics)
            mMetrics->addRestart(*before);
    });
}

void nqPoolObserver::onWorkerEnded(std::size_t worker, nqWorkerEnd how)
{
    note([&] {
        place(worker).end = how;
        if (mTrace)
            mTrace->addWorkerEnded(now(), worker, how);
    });
}

void nqPoolObserver::onState(std::size_t queued, std::size_t running)
{
    mQueued = queued;
    mRunning = running;
    if (!mBegin || mQueued == mQueuedShown || (!mTrace && !mTimeline))
        return;
    note([&] {
        const Time at = now();
        if (mQueuedAt.count() >= 0 && at - mQueuedAt < queueInterval)
            return;
        addQueued(at);
    });
}

void nqPoolObserver::addQueued(Time at)
{
    mQueuedAt = at;
    mQueuedShown = mQueued;
    if (mTrace)
        mTrace->addQueued(at, mQueued);
    if (mTimeline)
        mTimeline->addQueued(at, mQueued);
}

bool nqPoolObserver::isBehind(const Schedule& schedule) const
{
    return schedule.news != mNews || mRunning != 0;
}

std::optional<nqPoolObserver::TimePoint> nqPoolObserver::nextDue() const
{
    std::optional<TimePoint> due;
    const auto consider = [&](bool isWanted, const Schedule& schedule) {
        if (isWanted && isBehind(schedule) && (!due || schedule.next < *due))
            due = schedule.next;
    };
    consider(mMetricsFile.has_value(), mMetricsSchedule);
    consider(mStatusFile.has_value(), mStatusSchedule);
    consider(mTraceFile.has_value(), mTraceSchedule);
    return due;
}

bool nqPoolObserver::beginWrite(Schedule& schedule, TimePoint now)
{
    if (now < schedule.next || !isBehind(schedule))
        return false;
    schedule.next = nqPoolClock::later(now, schedule.interval);
    schedule.news = mNews;
    return true;
}

void nqPoolObserver::write(const Look& look)
{
    const std::optional<TimePoint> due = nextDue();
    const TimePoint time = nqPoolClock::now();
    if (due && time >= *due && ::getpid() == mOwner)
        attempt([&] { writeDue(time, look()); });
}

void nqPoolObserver::writeDue(TimePoint time, const nqPoolStatus& status)
{
    if (mTrace && beginWrite(mTraceSchedule, time)) {
        if (mBegin)
            mTrace->addMemory(now(), status.workers);
        writeTrace();
    }
    if (mStatusFile && beginWrite(mStatusSchedule, time))
        writeStatus(status);
    if (mMetricsFile && beginWrite(mMetricsSchedule, time))
        writeMetrics(status);
}

void nqPoolObserver::end(const Look& look)
{
    if (::getpid() == mOwner)
        attempt([&] { writeLast(look()); });
}

void nqPoolObserver::writeLast(const nqPoolStatus& status)
{
    const Time at = now();
    if (mQueued != mQueuedShown)
        addQueued(at);
    if (mTrace) {
        mTrace->close(at);
        writeTrace();
    }
    if (mStatusFile)
        writeStatus(status);
    if (mMetricsFile)
        writeMetrics(status);
    if (mTimelineFile)
        countWrite(mTimelineFile->replace(mTimeline->svg()), mTimelineFile->problem());
}

void nqPoolObserver::writeStatus(const nqPoolStatus& status)
{
    countWrite(mStatusFile->replace(statusText(status)), mStatusFile->problem());
}

void nqPoolObserver::writeMetrics(const nqPoolStatus& status)
{
    countWrite(mMetricsFile->replace(mMetrics->text(status, mWorkers)), mMetricsFile->problem());
}

void nqPoolObserver::writeTrace()
{
    countWrite(mTraceFile->append(mTrace->take()), mTraceFile->problem());
}

void nqPoolObserver::countWrite(bool hasSucceeded, const std::string& problem)
{
    if (hasSucceeded)
        return;
    ++mWritesFailed;
    if (mWriteProblem.empty())
        mWriteProblem = problem;
}

std::uint64_t nqPoolObserver::writesFailed() const
{
    return mWritesFailed;
}

const std::string& nqPoolObserver::writeProblem() const
{
    return mWriteProblem;
}

} // namespace nq
