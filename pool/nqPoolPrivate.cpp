#include "pool/nqPoolPrivate.h"

#include "pool/nqPoolRefusals.h"
#include "pool/nqWorkFailure.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iostream>
#include <thread>
#include <unistd.h>
#include <utility>

namespace nq {

namespace {

using Phase = nqPoolSlot::Phase;
using Reason = nqAttempt::Reason;
using State = nqOutcome::State;

constexpr std::chrono::milliseconds progressInterval{100};
constexpr std::chrono::milliseconds noLimit{-1};

constexpr std::size_t jobsHandedBackAtOnce = 1000;

/// At a single worker, before the others and what it prints are looked at.
constexpr std::chrono::milliseconds longestLook{20};

/// The options with every default that depends on the machine filled in.
nqPoolOptions completed(nqPoolOptions options)
{
    if (options.workers == 0)
        options.workers = std::max(1U, std::thread::hardware_concurrency());
    options.launchAttempts = std::max(1U, options.launchAttempts);
    return options;
}

/// `first`, doubled or so with each step, `longest` at most.
std::chrono::milliseconds growing(
    std::chrono::milliseconds first,
    std::chrono::milliseconds longest,
    double growth,
    std::size_t steps)
{
    if (first.count() == 0)
        return first; // times a growth that is infinite after a thousand steps, it would be none
    const double grown =
        static_cast<double>(first.count()) * std::pow(growth, static_cast<double>(steps));
    if (!(grown < static_cast<double>(longest.count())))
        return longest;
    return std::chrono::milliseconds(static_cast<std::int64_t>(grown));
}

State stateFor(Reason reason)
{
    switch (reason) {
    case Reason::None:
        return State::Done;
    case Reason::Cancelled:
    case Reason::Stopped:
        return State::Cancelled;
    case Reason::Crashed:
    case Reason::Exited:
    case Reason::MemoryCap:
    case Reason::Timeout:
    case Reason::Deadline:
    case Reason::Exception:
    case Reason::ResultLost:
    case Reason::NoWorker:
    case Reason::Lost:
        return State::Failed;
    }
    return State::Failed;
}

bool mayBeTriedAgain(Reason reason)
{
    return stateFor(reason) == State::Failed && reason != Reason::Deadline &&
           reason != Reason::ResultLost && reason != Reason::NoWorker;
}

/// With the one that has just ended.
std::size_t attemptsMade(const nqPoolJob& job)
{
    return 1 + (job.details != nullptr ? job.details->earlierAttempts.size() : std::size_t{0});
}

std::chrono::microseconds inMicroseconds(nqPoolClock::TimePoint::duration duration)
{
    return std::chrono::duration_cast<std::chrono::microseconds>(duration);
}

/// Sets a flag for as long as a callback runs.
class InCallback {
public:
    explicit InCallback(bool& flag)
        : mFlag(flag)
    {
        mFlag = true;
    }
    ~InCallback()
    {
        mFlag = false;
    }
    InCallback(const InCallback&) = delete;
    InCallback& operator=(const InCallback&) = delete;

private:
    bool& mFlag;
};

} // namespace

nqPoolPrivate::nqPoolPrivate(const nqPoolOptions& options)
    : mOptions(completed(options)),
      mLog(mOptions),
      mProgram(mOptions),
      mFailedJobs(
          mOptions.keepFailedJobs,
          mOptions.keptFailedJobs,
          mProgram.isEnveloped() ? mProgram.path() : std::string()),
      mObserver(nqPoolObserver::of(mOptions)),
      mDelivery(mOptions.order)
{
    if (mProgram.isEnveloped())
        mEnvelope.emplace(mProgram.tag());
    if (mOptions.inProcess) {
        mOwnWork = mProgram.ownWork()();
        return;
    }
    const nqPoolSlot::Shared shared{
        mOptions, mProgram, mEnvelope ? &*mEnvelope : nullptr, mWait, *this};
    mSlots.reserve(mOptions.workers);
    while (mSlots.size() < mOptions.workers)
        mSlots.push_back(std::make_unique<nqPoolSlot>(shared, mSlots.size() + 1));
}

nqPoolPrivate::~nqPoolPrivate()
{
    if (mIsInCallback) {
        std::cerr << "nqPool: destroyed by one of its own callbacks" << std::endl;
        std::abort(); // the operation would go on in freed memory
    }
    mIsStopped = true;
    endBusyWorkers();
    mSlots.clear(); // what they still tell is told to a whole object
    endObservation();
}

nqJobId
nqPoolPrivate::submit(nqJobBytes& bytes, const nqJobOptions* options, nqPool::Callback&& callback)
{
    refuseEmptyJob(bytes.size(), mOptions);
    while (!mIsStopped && isFull()) {
        if (mIsInCallback || mOptions.whenFull == nqPoolOptions::WhenFull::Refuse)
            return 0;
        pump(noLimit);
    }
    if (mIsStopped)
        return 0;
    nqPoolJob job;
    if (options != nullptr)
        job.ownDetails().options = *options;
    job.callback = std::move(callback);
    job.submitted = nqPoolClock::now();
    job.id = (mLastId + 1) & nqPoolJob::largestId;
    const bool isOfItsOwn = job.isOfItsOwn();
    const std::size_t size = bytes.size();
    job.bytes = bytes.take();
    try {
        mQueue.push(std::move(job));
    } catch (...) {
        bytes.putBack(std::move(job.bytes)); // the queue has left it there
        throw;
    }
    ++mLastId;
    if (isOfItsOwn)
        ++mCounts.submitted;
    mCounts.jobBytes += size;
    if (mObserver != nullptr)
        mObserver->onSubmitted();
    updateWakeUp();
    return mLastId;
}

bool nqPoolPrivate::cancel(nqJobId id)
{
    if (std::optional<nqPoolJob> job = mQueue.remove(id)) {
        finishWaiting(std::move(*job), Reason::Cancelled, {});
        updateWakeUp();
        return true;
    }
    const auto holds = [&](const auto& slot) { return id != 0 && slot->jobId() == id; };
    const auto slot = std::find_if(mSlots.begin(), mSlots.end(), holds);
    if (slot == mSlots.end())
        return false;
    (*slot)->endJob(Reason::Cancelled);
    return true;
}

std::size_t nqPoolPrivate::pump(Milliseconds timeout)
{
    requireOutsideCallback("pump()");
    try {
        if (!mIsStopped) {
            const std::uint64_t readyBefore = mCounts.launched;
            step();
            if (mCounts.launched == readyBefore)
                sleep(untilDue(timeout));
            step();
            if (mOptions.inProcess)
                runInProcess(nqPoolClock::now());
        }
        handBackSome();
        const std::size_t delivered = deliver();
        if (mObserver != nullptr)
            observe();
        updateWakeUp();
        return delivered;
    } catch (...) { // of a callback, or for lack of memory: the rest is still due
        updateWakeUp();
        throw;
    }
}

/// The scheduler's own wait, where one is enough, saves half of the system calls for a small job.
void nqPoolPrivate::sleep(Milliseconds timeout)
{
    nqPoolSlot* const slot = mIsWaitedFor || mIsWokenBesides ? nullptr : onlyOneAtWork();
    if (slot != nullptr) {
        const bool isShort = timeout.count() >= 0 && timeout < longestLook;
        slot->pumpAndWait(isShort ? timeout : longestLook);
        return;
    }
    for (const auto& each : mSlots)
        each->watch();
    for (void* const owner : mWait.sleep(timeout)) {
        const auto& source = *static_cast<nqPoolSource*>(owner);
        if (source.isStandardError)
            source.slot->readStandardError();
        else
            source.slot->pump();
    }
}

/// Null when no worker, or more than one, may say something soon.
nqPoolSlot* nqPoolPrivate::onlyOneAtWork() const
{
    nqPoolSlot* found = nullptr;
    for (const auto& slot : mSlots) {
        if (!slot->isAtWork())
            continue;
        if (found != nullptr)
            return nullptr;
        found = slot.get();
    }
    return found;
}

std::size_t nqPoolPrivate::deliver()
{
    const InCallback inside(mIsInCallback);
    return mDelivery.deliver();
}

void nqPoolPrivate::step()
{
    const TimePoint now = nqPoolClock::now();
    dropExpired(now);
    if (mOptions.inProcess)
        return;
    enforceLimits(now);
    startWorkers(now);
    mStartsAll = isStarting();
    feed(now);
    if (std::exchange(mIsGivingUp, false))
        giveUpOnWaitingJobs();
}

void nqPoolPrivate::dropExpired(TimePoint now)
{
    while (std::optional<nqPoolJob> job = mQueue.removeExpired(now))
        finishWaiting(std::move(*job), Reason::Deadline, {});
}

void nqPoolPrivate::enforceLimits(TimePoint now)
{
    for (const auto& slot : mSlots) {
        if (!slot->isPaused(now))
            slot->resume();
        slot->enforceLimits(now);
    }
}

// One at a time: each launch blocks, and those workers that are there want to be fed. After a
// failure, a single one tries, and not before the pause is over.
void nqPoolPrivate::startWorkers(TimePoint now)
{
    for (const auto& slot : mSlots) {
        if (canInitialise(*slot, now))
            slot->initialise();
    }
    nqPoolSlot* const slot = findStartable(now);
    if (slot == nullptr)
        return;
    slot->launch();
    if (slot->phase() == Phase::Connected)
        slot->initialise();
}

bool nqPoolPrivate::mayTryLaunch(TimePoint now) const
{
    return mFailedLaunches == 0 || (now >= mNextLaunch && count(Phase::Initialising) == 0);
}

bool nqPoolPrivate::canInitialise(const nqPoolSlot& slot, TimePoint now) const
{
    return slot.phase() == Phase::Connected && !slot.isPaused(now) && mayTryLaunch(now);
}

/// A place without a worker, when one is wanted and may be launched now.
nqPoolSlot* nqPoolPrivate::findStartable(TimePoint now)
{
    if (!isStartWanted() || !mayTryLaunch(now))
        return nullptr;
    const auto isFree = [&](const auto& slot) {
        return slot->phase() == Phase::Down && !slot->isPaused(now);
    };
    const auto found = std::find_if(mSlots.begin(), mSlots.end(), isFree);
    return found == mSlots.end() ? nullptr : found->get();
}

bool nqPoolPrivate::isStartWanted() const
{
    const std::size_t coming =
        count(Phase::Idle) + count(Phase::Connected) + count(Phase::Initialising);
    return mStartsAll || mQueue.size() > coming;
}

std::size_t nqPoolPrivate::count(Phase phase) const
{
    const auto isInIt = [&](const auto& slot) { return slot->phase() == phase; };
    return static_cast<std::size_t>(std::count_if(mSlots.begin(), mSlots.end(), isInIt));
}

void nqPoolPrivate::feed(TimePoint now)
{
    while (mQueue.hasDue(now)) {
        nqPoolSlot* const slot = findIdle(now);
        if (slot == nullptr)
            return;
        std::optional<nqPoolJob> job = mQueue.pop(now);
        ++mRunning;
        noteGiven(slot->number(), *job);
        slot->run(std::move(*job));
    }
}

/// A worker that can take a job, letting those go that have done enough.
nqPoolSlot* nqPoolPrivate::findIdle(TimePoint now)
{
    for (const auto& slot : mSlots) {
        if (slot->phase() != Phase::Idle || slot->isPaused(now))
            continue;
        if (!slot->isDueForRecycling(now))
            return slot.get();
        slot->recycle();
    }
    return nullptr;
}

void nqPoolPrivate::noteGiven(std::size_t worker, const nqPoolJob& job)
{
    if (job.attemptNumber() > 1)
        ++mCounts.retried;
    if (mObserver != nullptr)
        mObserver->onGiven(worker, job);
}

void nqPoolPrivate::runInProcess(TimePoint now)
{
    std::optional<nqPoolJob> job = mQueue.pop(now);
    if (!job)
        return;
    noteGiven(1, *job);
    std::vector<char> result;
    const auto failure = failureOf([&] {
        const InCallback inside(mIsInCallback); // the function may know the pool
        mOwnWork({job->bytes.data(), job->bytes.size()}, result);
    });
    if (failure)
        result = std::move(job->bytes);
    nqAttempt attempt = failure.value_or(nqAttempt());
    attempt.ran = inMicroseconds(nqPoolClock::now() - now);
    endAttempt(1, std::move(*job), std::move(attempt), std::move(result));
}

/// All that waits now, when nobody is there who could ever take it.
void nqPoolPrivate::giveUpOnWaitingJobs()
{
    if (count(Phase::Idle) + count(Phase::Busy) + count(Phase::Initialising) != 0)
        return;
    mNextLaunch = nqPoolClock::later(nqPoolClock::now(), mOptions.longestRestartPause);
    mHandBackUpTo = mLastId;
    mHandBackMessage = mProblem;
}

/// Outcomes are many times as large as jobs that wait, so not all of a million are made at once.
void nqPoolPrivate::handBackSome()
{
    const Reason reason = mIsStopped ? Reason::Stopped : Reason::NoWorker;
    for (std::size_t i = 0; i < jobsHandedBackAtOnce; ++i) {
        std::optional<nqPoolJob> job = mQueue.removeUpTo(mHandBackUpTo);
        if (!job) {
            mHandBackUpTo = 0;
            return;
        }
        finishWaiting(std::move(*job), reason, mHandBackMessage);
    }
}

void nqPoolPrivate::onJobEnded(
    nqPoolSlot& slot, nqPoolJob&& job, nqAttempt&& attempt, std::vector<char>&& bytes)
{
    --mRunning;
    if (attempt.reason == Reason::None)
        mRunTimes.add(attempt.ran);
    else if (slot.barrenWorkers() != 0)
        slot.pauseUntil(nqPoolClock::later(nqPoolClock::now(), pauseAfter(slot.barrenWorkers())));
    endAttempt(slot.number(), std::move(job), std::move(attempt), std::move(bytes));
}

void nqPoolPrivate::endAttempt(
    std::size_t worker, nqPoolJob&& job, nqAttempt&& attempt, std::vector<char>&& bytes)
{
    const bool isTriedHere = isTriedAgain(job, attempt.reason);
    const bool isTriedByHost = job.isSubmittedAgain() && stateFor(attempt.reason) == State::Failed;
    const bool isLast = !isTriedHere && !isTriedByHost;
    if (mObserver != nullptr)
        mObserver->onAttemptEnded(worker, job, attempt, bytes.size(), isLast);
    if (!isTriedHere)
        finish(std::move(job), std::move(attempt), std::move(bytes), isLast);
    else
        tryAgain(std::move(job), std::move(attempt), std::move(bytes));
}

void nqPoolPrivate::onJobReturned(nqPoolJob&& job)
{
    --mRunning;
    if (job.attemptNumber() > 1)
        --mCounts.retried;
    mQueue.pushAgain(std::move(job), nqPoolClock::now());
}

void nqPoolPrivate::onLaunchAhead() noexcept
{
    if (mOnLaunch && !mIsStopped)
        mOnLaunch();
}

void nqPoolPrivate::onWorkerLaunched(nqPoolSlot& slot, std::int64_t pid)
{
    if (mObserver != nullptr)
        mObserver->onWorkerLaunched(slot.number(), pid);
}

void nqPoolPrivate::onWorkerEnded(nqPoolSlot& slot, nqWorkerEnd how)
{
    if (mObserver != nullptr)
        mObserver->onWorkerEnded(slot.number(), how);
}

void nqPoolPrivate::onWorkerReady(nqPoolSlot&)
{
    ++mCounts.launched;
}

void nqPoolPrivate::onLaunchProven()
{
    mFailedLaunches = 0;
    mProblem.clear();
}

void nqPoolPrivate::onLaunchFailed(nqPoolSlot& slot, const std::string& text)
{
    if (mIsStopped)
        return; // the pool itself has ended the worker
    ++mCounts.launchesFailed;
    ++mFailedLaunches;
    mProblem = text;
    mNextLaunch = nqPoolClock::later(nqPoolClock::now(), pauseAfter(mFailedLaunches));
    slot.pauseUntil(mNextLaunch);
    mIsGivingUp = mIsGivingUp || mFailedLaunches >= mOptions.launchAttempts;
}

std::chrono::milliseconds nqPoolPrivate::pauseAfter(unsigned failures) const
{
    return growing(mOptions.restartPause, mOptions.longestRestartPause, 2, failures - 1);
}

const nqRetryPolicy& nqPoolPrivate::policyFor(const nqPoolJob& job) const
{
    return job.details != nullptr && job.details->options.retry ? *job.details->options.retry
                                                                : mOptions.retry;
}

bool nqPoolPrivate::isTriedAgain(const nqPoolJob& job, Reason reason) const
{
    if (reason == Reason::None || mIsStopped || !mayBeTriedAgain(reason))
        return false;
    const nqRetryPolicy& policy = policyFor(job);
    const auto& reasons = policy.reasons;
    return attemptsMade(job) < policy.attempts &&
           std::find(reasons.begin(), reasons.end(), reason) != reasons.end();
}

/// Puts a job back into the queue.
void nqPoolPrivate::tryAgain(nqPoolJob&& job, nqAttempt&& attempt, std::vector<char>&& bytes)
{
    const nqRetryPolicy& policy = policyFor(job);
    const std::size_t made = attemptsMade(job);
    const TimePoint now = nqPoolClock::now();
    nqJobDetails& details = job.ownDetails();
    if (details.earlierAttempts.empty())
        details.queued = inMicroseconds(now - job.submitted) - attempt.ran;
    details.earlierAttempts.push_back(std::move(attempt));
    job.bytes = std::move(bytes);
    const auto pause = growing(policy.pause, policy.longestPause, policy.growth, made - 1);
    mQueue.pushAgain(std::move(job), nqPoolClock::later(now, pause));
}

void nqPoolPrivate::finishWaiting(nqPoolJob&& job, Reason reason, const std::string& message)
{
    nqAttempt attempt;
    attempt.reason = reason;
    attempt.message = message;
    if (mObserver != nullptr)
        mObserver->onWaitingJobEnded(job, reason);
    std::vector<char> bytes = std::move(job.bytes);
    finish(std::move(job), std::move(attempt), std::move(bytes), true);
}

void nqPoolPrivate::finish(
    nqPoolJob&& job, nqAttempt&& attempt, std::vector<char>&& bytes, bool isLast)
{
    nqOutcome outcome;
    static_cast<nqAttempt&>(outcome) = std::move(attempt);
    outcome.id = job.id;
    outcome.state = stateFor(outcome.reason);
    outcome.bytes = std::move(bytes);
    if (job.details != nullptr && !job.details->earlierAttempts.empty()) {
        outcome.queued = job.details->queued;
        outcome.earlierAttempts = std::move(job.details->earlierAttempts);
    } else {
        outcome.queued = inMicroseconds(nqPoolClock::now() - job.submitted) - outcome.ran;
    }
    if (isLast)
        countOutcome(outcome);
    if (mObserver != nullptr && job.isOfItsOwn())
        mObserver->onOutcome(outcome);
    if (isLast && outcome.state == State::Failed && outcome.reason != Reason::NoWorker)
        outcome.keptAs = mFailedJobs.keep(outcome);
    mDelivery.add(std::move(outcome), std::move(job.callback));
}

void nqPoolPrivate::countOutcome(const nqOutcome& outcome)
{
    ++mCounts.byReason[static_cast<std::size_t>(outcome.reason)];
    mIsAllDone = mIsAllDone && outcome.state == State::Done;
    switch (outcome.state) {
    case State::Done:
        ++mCounts.done;
        mCounts.resultBytes += outcome.bytes.size();
        mRecentRate.add(nqPoolClock::now());
        break;
    case State::Failed:
        ++mCounts.failed;
        break;
    case State::Cancelled:
        ++mCounts.cancelled;
        break;
    }
}

bool nqPoolPrivate::isFull() const
{
    return mOptions.maxPendingJobs != 0 &&
           unfinishedCount() + mDelivery.waitingCount() >= mOptions.maxPendingJobs;
}

/// When a pump has something to do by itself; `now` or earlier: at once.
std::optional<nqPoolPrivate::TimePoint> nqPoolPrivate::nextDue(TimePoint now)
{
    if (mDelivery.isDue() || mHandBackUpTo != 0)
        return now;
    if (mIsStopped)
        return std::nullopt;
    const auto isReady = [&](const auto& slot) { return canInitialise(*slot, now); };
    if (findStartable(now) != nullptr || std::any_of(mSlots.begin(), mSlots.end(), isReady) ||
        (mQueue.hasDue(now) && (mOptions.inProcess || count(Phase::Idle) != 0)))
        return now;
    std::optional<TimePoint> due = mQueue.nextDue(now);
    const auto consider = [&](const std::optional<TimePoint>& other) {
        if (other && (!due || *other < *due))
            due = other;
    };
    if (mFailedLaunches != 0 && mNextLaunch > now &&
        (isStartWanted() || count(Phase::Connected) != 0))
        consider(mNextLaunch);
    for (const auto& slot : mSlots)
        consider(slot->nextDue());
    if (mObserver != nullptr)
        consider(mObserver->nextDue());
    return due;
}

nqPoolPrivate::Milliseconds nqPoolPrivate::untilDue(Milliseconds timeout)
{
    const TimePoint now = nqPoolClock::now();
    const std::optional<TimePoint> due = nextDue(now);
    if (!due)
        return timeout;
    const auto left = std::chrono::ceil<Milliseconds>(std::max(*due, now) - now);
    return timeout.count() < 0 ? left : std::min(left, timeout);
}

void nqPoolPrivate::updateWakeUp()
{
    if (!mIsWaitedFor || mIsInCallback)
        return;
    for (const auto& slot : mSlots)
        slot->watch();
    mWait.wakeAt(nextDue(nqPoolClock::now()));
}

int nqPoolPrivate::waitDescriptor()
{
    mIsWaitedFor = true;
    updateWakeUp();
    return mWait.descriptor();
}

void nqPoolPrivate::wakeUpFor(int descriptor)
{
    mIsWokenBesides = true;
    mWait.watch(descriptor, nullptr);
}

std::optional<nqOutcome> nqPoolPrivate::next(Milliseconds timeout)
{
    requireOutsideCallback("next()");
    const TimePoint end = nqPoolClock::later(nqPoolClock::now(), timeout);
    for (;;) {
        std::optional<nqOutcome> outcome = mDelivery.take();
        if (outcome || (unfinishedCount() == 0 && !mDelivery.isDue()))
            return outcome;
        Milliseconds left = noLimit;
        if (timeout.count() >= 0)
            left = std::chrono::ceil<Milliseconds>(
                std::max(end - nqPoolClock::now(), TimePoint::duration::zero()));
        pump(left);
        if (left.count() == 0)
            return mDelivery.take();
    }
}

bool nqPoolPrivate::drain(const nqPool::Progress& progress)
{
    requireOutsideCallback("drain()");
    const auto isWanted = [&] {
        const InCallback inside(mIsInCallback);
        return !progress ||
               progress({mCounts.done, mCounts.failed, mCounts.cancelled, mQueue.size(), mRunning});
    };
    TimePoint nextLook = nqPoolClock::now();
    while (unfinishedCount() != 0 || mDelivery.isDue()) {
        if (nqPoolClock::now() >= nextLook) {
            nextLook = nqPoolClock::now() + progressInterval;
            if (!isWanted())
                return false;
        }
        pump(progress ? progressInterval : noLimit);
    }
    isWanted();
    return std::exchange(mIsAllDone, true);
}

bool nqPoolPrivate::start()
{
    requireOutsideCallback("start()");
    beginStart();
    while (isStarting())
        pump(noLimit);
    return !mIsStopped && mCounts.launchesFailed == mFailedBeforeStart;
}

void nqPoolPrivate::beginStart()
{
    mStartsAll = !mIsStopped && !mOptions.inProcess;
    mFailedBeforeStart = mCounts.launchesFailed;
    updateWakeUp();
}

bool nqPoolPrivate::isStarting() const
{
    return mStartsAll && !mIsStopped && mCounts.launchesFailed == mFailedBeforeStart &&
           count(Phase::Down) + count(Phase::Connected) + count(Phase::Initialising) != 0;
}

void nqPoolPrivate::onLaunch(std::function<void()>&& callback)
{
    mOnLaunch = std::move(callback);
}

/// All of them are killed before any is waited for.
void nqPoolPrivate::endBusyWorkers()
{
    for (const auto& slot : mSlots) {
        if (slot->phase() == Phase::Busy)
            slot->endJob(Reason::Stopped);
    }
}

void nqPoolPrivate::stop()
{
    requireOutsideCallback("stop()");
    if (!mIsStopped) {
        mIsStopped = true;
        mHandBackUpTo = mLastId;
        mHandBackMessage.clear();
        endBusyWorkers();
        for (const auto& slot : mSlots)
            slot->stop();
    }
    do
        pump(Milliseconds(0));
    while (unfinishedCount() != 0 || mDelivery.isDue());
    endObservation();
}

void nqPoolPrivate::observe()
{
    mObserver->onState(mQueue.size(), mRunning);
    mObserver->write([this] { return status(nqPoolStatus::State::Running); });
}

void nqPoolPrivate::endObservation()
{
    if (mObserver == nullptr)
        return;
    mObserver->onState(mQueue.size(), mRunning);
    mObserver->end([this] { return status(nqPoolStatus::State::Ended); });
    mCounts.writesFailed = mObserver->writesFailed();
    mCounts.writeProblem = mObserver->writeProblem();
    mObserver.reset();
}

void nqPoolPrivate::expectJobs(std::uint64_t jobs)
{
    mExpectedJobs = jobs;
}

std::size_t nqPoolPrivate::unfinishedCount() const
{
    return mQueue.size() + mRunning;
}

std::size_t nqPoolPrivate::queuedCount() const
{
    return mQueue.size();
}

const std::string& nqPoolPrivate::problem() const
{
    return mProblem;
}

nqPoolStatistics nqPoolPrivate::statistics() const
{
    const TimePoint now = nqPoolClock::now();
    nqPoolStatistics statistics = mCounts;
    statistics.queued = mQueue.size();
    statistics.running = mRunning;
    statistics.alive = mSlots.size() - count(Phase::Down);
    if (mObserver != nullptr) {
        statistics.writesFailed = mObserver->writesFailed();
        statistics.writeProblem = mObserver->writeProblem();
    }
    statistics.age = inMicroseconds(now - mMade);
    statistics.donePerSecond = mRecentRate.perSecond(now, mMade);
    statistics.medianRunTime = mRunTimes.quantile(0.5);
    statistics.p90RunTime = mRunTimes.quantile(0.9);
    statistics.p99RunTime = mRunTimes.quantile(0.99);
    statistics.longestRunTime = mRunTimes.longest();
    return statistics;
}

nqPoolStatus nqPoolPrivate::status(nqPoolStatus::State state) const
{
    nqPoolStatus status;
    status.state = state;
    status.name = mOptions.name;
    status.host = ::getpid();
    status.written = std::chrono::system_clock::now();
    status.statistics = statistics();
    status.problem = mProblem;
    status.timeLeft = timeLeft(status.statistics);
    status.workers = workers();
    return status;
}

/// From the recent rate of those done, for which failed ones take their part; from all of the
/// pool's age where jobs take so long that there is none.
std::optional<nqPoolPrivate::Milliseconds>
nqPoolPrivate::timeLeft(const nqPoolStatistics& now) const
{
    const std::uint64_t ended = now.done + now.failed + now.cancelled;
    const std::uint64_t all = std::max(mExpectedJobs, now.submitted);
    if (all <= ended) // less, when a host has numbered its attempts wrongly
        return Milliseconds(0);
    const std::uint64_t left = all - ended;
    double perSecond = 0;
    if (now.donePerSecond > 0)
        perSecond = now.donePerSecond * static_cast<double>(ended) / static_cast<double>(now.done);
    else if (now.age.count() > 0)
        perSecond = static_cast<double>(ended) * 1e6 / static_cast<double>(now.age.count());
    if (!(perSecond > 0))
        return std::nullopt;
    return Milliseconds(std::llround(static_cast<double>(left) * 1e3 / perSecond));
}

std::vector<nqPoolWorkerStatus> nqPoolPrivate::workers() const
{
    std::vector<nqPoolWorkerStatus> all;
    for (const auto& slot : mSlots) {
        if (slot->isAlive())
            all.push_back(slot->status());
    }
    return all;
}

void nqPoolPrivate::requireOutsideCallback(const char* operation) const
{
    if (mIsInCallback)
        throw nqPoolError(std::string("nqPool::") + operation + " was called from a callback");
}

} // namespace nq
