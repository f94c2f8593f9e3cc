#include "pool/nqPoolSlot.h"

#include <algorithm>
#include <climits>
#include <system_error>
#include <utility>

namespace nq {

namespace {

using Reason = nqAttempt::Reason;

/// For a worker that was told to leave and saves what it has.
constexpr std::chrono::seconds leaveTime{2};

/// How often a memory cap is looked after while a job runs.
constexpr std::chrono::milliseconds memoryTick{100};

/// Enough for a small job: its result comes in, the next one is handed out and sent.
constexpr int passesInARow = 3;

/// Of a wait for the end of a worker that was killed; it only bounds how long a lost wake-up lasts.
constexpr int stopSliceMs = 10;

std::string withLastWords(std::string text, const std::string& lastWords)
{
    if (!lastWords.empty())
        text += "; its last words: " + lastWords;
    return text;
}

std::string textOf(const nqSchedulerEvent& event, const std::string& path)
{
    if (event.mErrorNumber != 0)
        return "cannot start " + path + ": " + std::generic_category().message(event.mErrorNumber);
    if (event.mExitStatus)
        return path + " ended with exit status " + std::to_string(*event.mExitStatus) +
               " before it had connected";
    if (event.mSignal) {
        nqAttempt ended;
        ended.signal = event.mSignal;
        return path + " was ended by " + ended.signalName() + " before it had connected";
    }
    return path + " did not connect in time: is it a worker?";
}

std::string howItEnded(const nqAttempt& attempt)
{
    if (attempt.exitStatus)
        return "with exit status " + std::to_string(*attempt.exitStatus);
    if (attempt.signal)
        return "by " + attempt.signalName();
    return "for an unknown reason";
}

bool capturesStandardError(const nqPoolOptions& options)
{
    // Beside an inherited standard output, the null device is not to be had without a pipe.
    return options.standardError != nqPoolOptions::StandardError::NullDevice ||
           options.inheritStandardOutput;
}

std::size_t lastWordsOf(const nqPoolOptions& options)
{
    const bool isKept = options.standardError != nqPoolOptions::StandardError::NullDevice;
    return isKept ? options.lastWords : 0;
}

} // namespace

nqPoolSlot::nqPoolSlot(const Shared& shared, std::size_t number)
    : mShared(shared),
      mNumber(number),
      mScheduler({}, !shared.options.inheritStandardOutput, {}, false),
      mLastWords(
          lastWordsOf(shared.options),
          shared.options.standardError == nqPoolOptions::StandardError::Forward)
{
    mScheduler.setObserver(this);
}

nqPoolSlot::~nqPoolSlot()
{
    stop();
    mScheduler.setObserver(nullptr);
}

nqPoolSlot::Phase nqPoolSlot::phase() const
{
    return mPhase;
}

void nqPoolSlot::enter(Phase phase)
{
    mPhase = phase;
    mSince = nqPoolClock::now();
    mKillAt.reset();
    mLookAt.reset();
}

// The path may be another one than for the last launch, so the scheduler is started anew.
void nqPoolSlot::launch()
{
    mScheduler.stopScheduler();
    configure();
    mShared.owner.onLaunchAhead();
    const auto timeout = std::min<std::int64_t>(mShared.options.connectionTimeout.count(), INT_MAX);
    if (!mScheduler.startScheduler(1, static_cast<int>(timeout)) && !mNews.hasLaunchFailed) {
        mNews.hasLaunchFailed = true;
        mNews.launchFailure = "cannot listen for " + mShared.program.path();
    }
    settle();
}

void nqPoolSlot::configure()
{
    const nqPoolOptions& options = mShared.options;
    mScheduler.setExePathUtf8(mShared.program.path());
    mScheduler.setArgumentsUtf8(mShared.program.arguments(), false);
    mScheduler.setMaxCapMemory(options.memoryCap);
    mScheduler.setMaxPhysicalMemory(options.allocationLimit);
    mScheduler.setMaxCapMemoryAfterProcessingAJob(options.recycleAboveMemory);
    mScheduler.setCaptureStandardError(capturesStandardError(options));
}

void nqPoolSlot::initialise()
{
    if (mShared.envelope == nullptr) {
        enter(Phase::Idle);
        mShared.owner.onWorkerReady(*this);
        return;
    }
    enter(Phase::Initialising);
    if (mShared.options.initialisationTimeout.count() > 0)
        mKillAt = nqPoolClock::later(mSince, mShared.options.initialisationTimeout);
    send(mShared.envelope->initialise());
}

void nqPoolSlot::run(nqPoolJob&& job)
{
    enter(Phase::Busy);
    const nqJobOptions* own = job.details != nullptr ? &job.details->options : nullptr;
    const auto timeout = own != nullptr ? own->timeout.value_or(mShared.options.jobTimeout)
                                        : mShared.options.jobTimeout;
    if (timeout.count() > 0) {
        mKillAt = nqPoolClock::later(mSince, timeout);
        mKillReason = Reason::Timeout;
    }
    if (own != nullptr && own->deadline && (!mKillAt || *own->deadline < *mKillAt)) {
        mKillAt = own->deadline;
        mKillReason = Reason::Deadline;
    }
    if (mShared.options.memoryCap != 0)
        mLookAt = mSince + memoryTick;
    mLastWords.forget();
    std::vector<char> bytes = std::move(job.bytes);
    mJob.emplace(std::move(job));
    if (mShared.envelope != nullptr)
        mShared.envelope->wrapJob(bytes);
    send(std::move(bytes));
}

// The first pump gives it to the worker's record, the next one, which comes at once, to the kernel.
void nqPoolSlot::send(std::vector<char>&& message)
{
    mScheduler.push(std::move(message));
    pump();
}

// What is left then, of a large job say, goes on when the other slots have had their turn.
void nqPoolSlot::pump()
{
    for (int pass = 0; pass == 0 || (pass < passesInARow && mScheduler.hasImmediateWork());
         ++pass) {
        mScheduler.processScheduler(0);
        settle();
    }
}

void nqPoolSlot::pumpAndWait(std::chrono::milliseconds timeout)
{
    mScheduler.processScheduler(static_cast<int>(timeout.count()));
    pump();
    if (isAtWork())
        readStandardError();
}

void nqPoolSlot::readStandardError()
{
    mLastWords.read();
}

void nqPoolSlot::onEvent(const nqSchedulerEvent& event) noexcept
{
    using Kind = nqSchedulerEvent::Kind;
    switch (event.mKind) {
    case Kind::WorkerLaunched:
        mNews.launched = event.mPid;
        break;
    case Kind::LaunchFailed:
        mNews.hasLaunchFailed = true;
        try {
            mNews.launchFailure = textOf(event, mScheduler.exeUtf8Path());
        } catch (...) {
            mNews.launchFailure.clear(); // out of memory; there is no better text
        }
        break;
    case Kind::ResultComplete:
        mNews.hasAnswer = true;
        break;
    case Kind::ResultLost:
        mNews.isAnswerLost = true;
        break;
    case Kind::JobFailed:
        mNews.hasFailed = true;
        break;
    case Kind::WorkerEnded:
        mNews.end = Ended{event.mExitStatus, event.mSignal, event.mDumpedCore, event.mPeakMemory};
        if (!mNews.end->peakMemory)
            mNews.end->peakMemory = event.mLargestReading;
        mShared.owner.onLaunchAhead(); // the scheduler replaces it in this very pump
        break;
    case Kind::JobHandedOut:
        mNews.hasJob = true;
        mIsOutOfStep = mIsOutOfStep || event.mUnreadBytes != 0;
        break;
    }
}

// One worker and one job at most: whatever was told in one pump happened in this order.
void nqPoolSlot::settle()
{
    if (mNews.hasJob && mShared.envelope == nullptr && mJobsDone == 0)
        mShared.owner.onLaunchProven();
    if (mNews.hasAnswer || mNews.isAnswerLost)
        settleAnswer();
    if (mNews.hasFailed)
        settleFailure();
    if (mNews.end)
        settleEnd();
    if (mNews.launched)
        settleLaunch();
    if (mNews.hasLaunchFailed)
        settleFailedLaunch();
    mNews = News();
}

void nqPoolSlot::settleAnswer()
{
    std::vector<char> answer;
    if (mNews.hasAnswer)
        mScheduler.pop(answer);
    switch (mPhase) {
    case Phase::Initialising: {
        nqEnvelope::Exception unused;
        const auto kind = mShared.envelope->open(answer, unused);
        if (kind == nqEnvelope::Answer::Initialised) {
            enter(Phase::Idle);
            mShared.owner.onWorkerReady(*this);
            mShared.owner.onLaunchProven();
        } else {
            enter(Phase::Leaving);
            mEnd = nqWorkerEnd::LaunchFailed;
            kill();
            endInitialisation(
                mShared.program.path() +
                " does not answer as runAsWorker() does: set nqPoolOptions::plainWorker for it");
        }
        break;
    }
    case Phase::Busy:
        settleBusyAnswer(std::move(answer));
        break;
    case Phase::Leaving: // the worker says that it goes
    case Phase::Down:
    case Phase::Connected:
    case Phase::Idle:
        break;
    }
}

void nqPoolSlot::settleBusyAnswer(std::vector<char>&& answer)
{
    ++mJobsDone;
    mBarren = 0;
    if (mIsOutOfStep) {
        endJob(Reason::ResultLost);
        nqAttempt attempt = describeAttempt(Reason::ResultLost);
        attempt.message = "the worker had sent more than one answer to the job before";
        finishJob(Phase::Leaving, std::move(attempt), {});
        return;
    }
    if (mNews.isAnswerLost) {
        finishJob(Phase::Idle, describeAttempt(Reason::ResultLost), {});
        return;
    }
    using Answer = nqEnvelope::Answer;
    nqEnvelope::Exception exception;
    const Answer kind =
        mShared.envelope != nullptr ? mShared.envelope->open(answer, exception) : Answer::Result;
    if (kind == Answer::Result) {
        finishJob(Phase::Idle, describeAttempt(Reason::None), std::move(answer));
    } else if (kind == Answer::Exception) {
        nqAttempt attempt = std::move(exception.told);
        const nqAttempt seen = describeAttempt(attempt.reason);
        attempt.pid = seen.pid;
        attempt.ran = seen.ran;
        attempt.lastWords = seen.lastWords;
        finishJob(Phase::Idle, std::move(attempt), std::move(exception.job));
    } else {
        nqAttempt attempt = describeAttempt(Reason::ResultLost);
        attempt.message = "the worker's answer makes no sense";
        finishJob(Phase::Idle, std::move(attempt), {});
    }
}

void nqPoolSlot::settleFailure()
{
    std::vector<char> bytes;
    auto reason = nqScheduler::NoFailure;
    std::string message;
    mScheduler.popFail(bytes, reason, message);
    if (mPhase != Phase::Busy)
        return; // a message of the pool's own; the end of the worker is told as well
    Reason what = mKilledFor;
    if (reason == nqScheduler::TooMuchRam)
        what = Reason::MemoryCap;
    else if (what == Reason::None)
        what = mNews.end && mNews.end->exitStatus ? Reason::Exited : Reason::Crashed;
    mEnd = endFor(what);
    if (what == Reason::Crashed || what == Reason::Exited)
        mBarren = mJobsDone == 0 ? mBarren + 1 : 0;
    nqAttempt attempt = describeAttempt(what);
    attempt.message = std::move(message);
    if (mShared.envelope != nullptr)
        mShared.envelope->unwrapJob(bytes);
    finishJob(Phase::Leaving, std::move(attempt), std::move(bytes));
}

nqAttempt nqPoolSlot::describeAttempt(Reason reason)
{
    nqAttempt attempt;
    attempt.reason = reason;
    attempt.pid = mPid;
    attempt.ran =
        std::chrono::duration_cast<std::chrono::microseconds>(nqPoolClock::now() - mSince);
    mLastWords.read(); // also of a job that is done, or they would be those of the next one
    if (reason != Reason::None)
        attempt.lastWords = mLastWords.text();
    if (mNews.end) {
        attempt.exitStatus = mNews.end->exitStatus;
        attempt.signal = mNews.end->signal;
        attempt.dumpedCore = mNews.end->dumpedCore;
        attempt.peakMemory = mNews.end->peakMemory;
    }
    return attempt;
}

// A worker that was killed although its answer had come is about to end.
void nqPoolSlot::finishJob(Phase next, nqAttempt&& attempt, std::vector<char>&& bytes)
{
    nqPoolJob job = std::move(*mJob);
    mJob.reset();
    const bool isKilled = std::exchange(mKilledFor, Reason::None) != Reason::None;
    enter(isKilled ? Phase::Leaving : next);
    mShared.owner.onJobEnded(*this, std::move(job), std::move(attempt), std::move(bytes));
}

// One that ends before it had a job has not been launched well.
void nqPoolSlot::settleEnd()
{
    const Phase before = mPhase;
    const nqAttempt ended = describeAttempt(Reason::Exited);
    const nqWorkerEnd how = mEnd ? *mEnd : endOfUntold(before);
    mEnd.reset();
    enter(Phase::Down);
    mShared.owner.onWorkerEnded(*this, how);
    const bool wasIdle = takeBackUnsent() || before == Phase::Idle;
    const bool hadNoJob =
        before == Phase::Connected || before == Phase::Initialising || (wasIdle && mJobsDone == 0);
    if (!hadNoJob)
        return;
    const char* const when =
        before == Phase::Initialising ? " while it was initialised" : " before it had a job";
    endInitialisation(withLastWords(
        mShared.program.path() + " ended " + howItEnded(ended) + when, ended.lastWords));
}

/// Of a worker that ended by itself, or was ended by its scheduler, without a job.
nqWorkerEnd nqPoolSlot::endOfUntold(Phase phase) const
{
    if (phase == Phase::Connected || phase == Phase::Initialising)
        return nqWorkerEnd::LaunchFailed;
    const auto isAbove = [&](std::uint64_t cap) {
        return cap != 0 && mNews.end->peakMemory && *mNews.end->peakMemory > cap;
    };
    if (mNews.end->signal)
        return isAbove(mShared.options.memoryCap) ? nqWorkerEnd::MemoryCap : nqWorkerEnd::Crashed;
    return isAbove(mShared.options.recycleAboveMemory) ? nqWorkerEnd::Recycled
                                                       : nqWorkerEnd::Exited;
}

void nqPoolSlot::endInitialisation(const std::string& text)
{
    mShared.owner.onLaunchFailed(*this, text);
}

// A worker that was gone already has left what it was to be sent to its replacement, for which it
// is not meant. True when that was a job.
bool nqPoolSlot::takeBackUnsent()
{
    std::vector<char> bytes;
    if (!mScheduler.takePendingJob(bytes) || !mJob)
        return false;
    if (mShared.envelope != nullptr)
        mShared.envelope->unwrapJob(bytes);
    nqPoolJob job = std::move(*mJob);
    mJob.reset();
    job.bytes = std::move(bytes);
    mShared.owner.onJobReturned(std::move(job));
    return true;
}

void nqPoolSlot::settleLaunch()
{
    mPid = *mNews.launched;
    mJobsDone = 0;
    mIsOutOfStep = false;
    takeStandardError();
    enter(Phase::Connected);
    mLaunched = mSince;
    mShared.owner.onWorkerLaunched(*this, mPid);
}

void nqPoolSlot::settleFailedLaunch()
{
    takeStandardError();
    mLastWords.read();
    enter(Phase::Down);
    unwatch();
    mShared.owner.onLaunchFailed(*this, withLastWords(mNews.launchFailure, mLastWords.text()));
}

void nqPoolSlot::takeStandardError()
{
    mLastWords.forget();
    std::int64_t pid = 0;
    int descriptor = -1;
    while (mScheduler.takeStandardError(pid, descriptor)) {
        mLastWords.watch(descriptor);
        mShared.wait.watch(descriptor, &mStandardErrorSource);
    }
}

void nqPoolSlot::watch()
{
    if (!mIsWatched && mPhase != Phase::Down && !mPausedUntil)
        mIsWatched = mShared.wait.watch(mScheduler.waitDescriptor(), &mWorkerSource);
}

void nqPoolSlot::unwatch()
{
    if (std::exchange(mIsWatched, false))
        mShared.wait.forget(mScheduler.waitDescriptor());
}

void nqPoolSlot::kill()
{
    mKillAt.reset();
    mScheduler.killWorker(mPid, nqScheduler::UnexpectedCrash, "");
}

void nqPoolSlot::killAll()
{
    for (const nqWorkerStatus& worker : mScheduler.workers())
        mScheduler.killWorker(worker.mPid, nqScheduler::UnexpectedCrash, "");
}

void nqPoolSlot::endJob(Reason reason)
{
    if (mKilledFor != Reason::None)
        return;
    mKilledFor = reason;
    mEnd = endFor(reason);
    kill();
}

void nqPoolSlot::recycle()
{
    enter(Phase::Leaving);
    mEnd = nqWorkerEnd::Recycled;
    if (mShared.envelope == nullptr) {
        kill();
        return;
    }
    mKillAt = mSince + leaveTime;
    send(mShared.envelope->leave());
}

// Killed first, so that nothing waits for a worker that does not leave. What it was busy with ends
// in a pump, which replaces the worker.
void nqPoolSlot::stop()
{
    unwatch();
    if (mPhase == Phase::Busy)
        endJob(Reason::Stopped);
    if (!mEnd)
        mEnd = nqWorkerEnd::Stopped;
    mScheduler.clearPendingJobs();
    killAll();
    while (mScheduler.jobCount() != 0) {
        mScheduler.processScheduler(stopSliceMs);
        settle();
    }
    killAll();
    mScheduler.stopScheduler();
    mNews = News();
    if (mPhase != Phase::Down)
        mShared.owner.onWorkerEnded(*this, mEnd.value_or(nqWorkerEnd::Stopped));
    mEnd.reset();
    enter(Phase::Down);
    mPausedUntil.reset();
}

void nqPoolSlot::pauseUntil(TimePoint time)
{
    mPausedUntil = time;
    unwatch();
}

bool nqPoolSlot::isPaused(TimePoint now) const
{
    return mPausedUntil && now < *mPausedUntil;
}

void nqPoolSlot::resume()
{
    mPausedUntil.reset();
}

void nqPoolSlot::enforceLimits(TimePoint now)
{
    if (mKillAt && now >= *mKillAt)
        endForTime();
    if (mLookAt && now >= *mLookAt) {
        mLookAt = now + memoryTick;
        pump();
    }
}

void nqPoolSlot::endForTime()
{
    if (mPhase == Phase::Busy) {
        mKillAt.reset();
        endJob(mKillReason);
        return;
    }
    const bool isInitialising = mPhase == Phase::Initialising;
    enter(Phase::Leaving);
    if (isInitialising)
        mEnd = nqWorkerEnd::LaunchFailed;
    kill();
    if (isInitialising)
        endInitialisation(mShared.program.path() + " was not initialised in time");
}

std::optional<nqPoolSlot::TimePoint> nqPoolSlot::nextDue() const
{
    std::optional<TimePoint> due = mKillAt;
    for (const auto& other : {mLookAt, mPausedUntil}) {
        if (other && (!due || *other < *due))
            due = other;
    }
    return due;
}

bool nqPoolSlot::isDueForRecycling(TimePoint now) const
{
    const nqPoolOptions& options = mShared.options;
    return (options.recycleAfterJobs != 0 && mJobsDone >= options.recycleAfterJobs) ||
           (options.recycleAfter.count() > 0 &&
            now >= nqPoolClock::later(mLaunched, options.recycleAfter));
}

unsigned nqPoolSlot::barrenWorkers() const
{
    return mBarren;
}

std::size_t nqPoolSlot::number() const
{
    return mNumber;
}

nqJobId nqPoolSlot::jobId() const
{
    return mJob ? mJob->id : 0;
}

bool nqPoolSlot::isAtWork() const
{
    return mPhase == Phase::Initialising || mPhase == Phase::Busy || mPhase == Phase::Leaving;
}

bool nqPoolSlot::isAlive() const
{
    return mPhase != Phase::Down;
}

nqPoolWorkerStatus nqPoolSlot::status() const
{
    nqPoolWorkerStatus status;
    status.number = mNumber;
    status.pid = mPid;
    status.job = jobId();
    if (mJob && mJob->details != nullptr)
        status.label = mJob->details->options.label;
    status.jobsDone = mJobsDone;
    for (const nqWorkerStatus& worker : mScheduler.workers())
        status.residentMemory = worker.mResidentMemory;
    if (mPhase == Phase::Busy)
        status.timeInJob =
            std::chrono::duration_cast<std::chrono::milliseconds>(nqPoolClock::now() - mSince);
    return status;
}

} // namespace nq
