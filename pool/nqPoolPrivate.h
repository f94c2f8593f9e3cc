#pragma once

#include "pool/include/nqPool.h"
#include "pool/nqEnvelope.h"
#include "pool/nqFailedJobStore.h"
#include "pool/nqPoolDelivery.h"
#include "pool/nqPoolLog.h"
#include "pool/nqPoolObserver.h"
#include "pool/nqPoolQueue.h"
#include "pool/nqPoolSlot.h"
#include "pool/nqPoolWait.h"
#include "pool/nqRecentRate.h"
#include "pool/nqRunTimes.h"
#include "pool/nqWorkerProgram.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace nq {

/// A pool's state. A job is in exactly one place: the queue, a slot, or, as an outcome, the
/// delivery.
class nqPoolPrivate final : private nqPoolSlotOwner {
public:
    using TimePoint = nqPoolClock::TimePoint;
    using Milliseconds = std::chrono::milliseconds;

    explicit nqPoolPrivate(const nqPoolOptions& options);
    ~nqPoolPrivate();
    nqPoolPrivate(const nqPoolPrivate&) = delete;
    nqPoolPrivate& operator=(const nqPoolPrivate&) = delete;

    nqJobId submit(nqJobBytes& bytes, const nqJobOptions* options, nqPool::Callback&& callback);
    bool cancel(nqJobId id);

    std::size_t pump(Milliseconds timeout);
    int waitDescriptor();

    /// For a thread that sleeps in pump() alone: a pump ends its sleep when `descriptor` is
    /// readable as well.
    void wakeUpFor(int descriptor);

    std::optional<nqOutcome> next(Milliseconds timeout);
    bool drain(const nqPool::Progress& progress);
    bool start();
    void beginStart();
    bool isStarting() const;
    void onLaunch(std::function<void()>&& callback);
    void stop();

    void expectJobs(std::uint64_t jobs);

    std::size_t unfinishedCount() const;
    std::size_t queuedCount() const;
    const std::string& problem() const;
    nqPoolStatistics statistics() const;
    std::vector<nqPoolWorkerStatus> workers() const;

private:
    void onJobEnded(
        nqPoolSlot& slot, nqPoolJob&& job, nqAttempt&& attempt, std::vector<char>&& bytes) override;
    void onJobReturned(nqPoolJob&& job) override;
    void onLaunchAhead() noexcept override;
    void onWorkerLaunched(nqPoolSlot& slot, std::int64_t pid) override;
    void onWorkerEnded(nqPoolSlot& slot, nqWorkerEnd how) override;
    void onWorkerReady(nqPoolSlot& slot) override;
    void onLaunchProven() override;
    void onLaunchFailed(nqPoolSlot& slot, const std::string& text) override;

    // What is due, in the order in which a step does it.
    void step();
    void dropExpired(TimePoint now);
    void enforceLimits(TimePoint now);
    void startWorkers(TimePoint now);
    void feed(TimePoint now);
    void noteGiven(std::size_t worker, const nqPoolJob& job);
    void runInProcess(TimePoint now);
    void giveUpOnWaitingJobs();
    void endBusyWorkers();
    void handBackSome();

    void sleep(Milliseconds timeout);
    nqPoolSlot* onlyOneAtWork() const;
    std::size_t deliver();
    bool isFull() const;
    bool isStartWanted() const;
    bool mayTryLaunch(TimePoint now) const;
    bool canInitialise(const nqPoolSlot& slot, TimePoint now) const;
    nqPoolSlot* findIdle(TimePoint now);
    nqPoolSlot* findStartable(TimePoint now);
    std::optional<TimePoint> nextDue(TimePoint now);
    Milliseconds untilDue(Milliseconds timeout);
    void updateWakeUp();
    void requireOutsideCallback(const char* operation) const;
    std::size_t count(nqPoolSlot::Phase phase) const;
    Milliseconds pauseAfter(unsigned failures) const;

    void
    endAttempt(std::size_t worker, nqPoolJob&& job, nqAttempt&& attempt, std::vector<char>&& bytes);
    const nqRetryPolicy& policyFor(const nqPoolJob& job) const;
    bool isTriedAgain(const nqPoolJob& job, nqAttempt::Reason reason) const;
    void tryAgain(nqPoolJob&& job, nqAttempt&& attempt, std::vector<char>&& bytes);
    void finish(nqPoolJob&& job, nqAttempt&& attempt, std::vector<char>&& bytes, bool isLast);
    void finishWaiting(nqPoolJob&& job, nqAttempt::Reason reason, const std::string& message);
    void countOutcome(const nqOutcome& outcome);
    void observe();
    void endObservation();
    nqPoolStatus status(nqPoolStatus::State state) const;
    std::optional<Milliseconds> timeLeft(const nqPoolStatistics& now) const;

    nqPoolOptions mOptions;
    nqPoolLog mLog;
    nqWorkerProgram mProgram;
    std::optional<nqEnvelope> mEnvelope; ///< none for plain workers
    nqFailedJobStore mFailedJobs;
    std::unique_ptr<nqPoolObserver> mObserver; ///< of a pool that is shown, until it ends
    nqWork mOwnWork;                           ///< in this process, see nqPoolOptions::inProcess
    nqPoolWait mWait;

    nqPoolQueue mQueue;
    std::vector<std::unique_ptr<nqPoolSlot>> mSlots;
    nqPoolDelivery mDelivery;
    nqJobId mLastId = 0;
    std::uint64_t mExpectedJobs = 0; ///< as the host has announced
    std::size_t mRunning = 0;

    unsigned mFailedLaunches = 0; ///< in a row
    TimePoint mNextLaunch;        ///< not before, after one that has failed
    bool mIsGivingUp = false;     ///< on the jobs that wait, if no other worker is there
    nqJobId mHandBackUpTo = 0;    ///< jobs that wait and have ids up to this one end
    std::string mHandBackMessage;
    std::string mProblem;

    bool mStartsAll = false;
    std::uint64_t mFailedBeforeStart = 0; ///< launches, when it was told to start all
    std::function<void()> mOnLaunch;
    bool mIsStopped = false;
    bool mIsInCallback = false;
    bool mIsAllDone = true;       ///< since the last drain
    bool mIsWaitedFor = false;    ///< outside of pump()
    bool mIsWokenBesides = false; ///< by more than its workers

    const TimePoint mMade = nqPoolClock::now();
    nqPoolStatistics mCounts; ///< what only grows
    nqRunTimes mRunTimes;
    nqRecentRate mRecentRate;
};

} // namespace nq
