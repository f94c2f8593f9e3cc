#pragma once

#include "nqScheduler.h"
#include "nqSchedulerObserver.h"
#include "pool/nqEndNames.h"
#include "pool/nqEnvelope.h"
#include "pool/nqLastWords.h"
#include "pool/nqPoolJob.h"
#include "pool/nqPoolWait.h"
#include "pool/nqWorkerProgram.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace nq {

class nqPoolSlot;

/// One descriptor of a slot that a pool sleeps on.
struct nqPoolSource {
    nqPoolSlot* slot;
    bool isStandardError; ///< of the worker; otherwise the scheduler's
};

/// Hears what comes of a slot's worker and job, while the slot is pumped. Takes note of it, and
/// lets the slot be until that is over, but for a pause.
class nqPoolSlotOwner {
public:
    /// The job's answer is there, or will never come; the attempt's reason says which. `bytes` is
    /// the result or the job.
    virtual void onJobEnded(
        nqPoolSlot& slot, nqPoolJob&& job, nqAttempt&& attempt, std::vector<char>&& bytes) = 0;

    /// The worker was gone before it could be given the job, which nobody has tried therefore.
    virtual void onJobReturned(nqPoolJob&& job) = 0;

    /// What comes next is a launch, which blocks.
    virtual void onLaunchAhead() noexcept = 0;

    /// A worker has connected, and begins its life.
    virtual void onWorkerLaunched(nqPoolSlot& slot, std::int64_t pid) = 0;

    /// It has come to its end.
    virtual void onWorkerEnded(nqPoolSlot& slot, nqWorkerEnd how) = 0;

    /// A worker has been launched and can take a job.
    virtual void onWorkerReady(nqPoolSlot& slot) = 0;

    /// One has been launched well: it is initialised, or, if it is a plain one, has its first job.
    virtual void onLaunchProven() = 0;

    /// A launch has given no worker that could take a job.
    virtual void onLaunchFailed(nqPoolSlot& slot, const std::string& text) = 0;

protected:
    ~nqPoolSlotOwner() = default;
};

/// One place for a worker in a pool: a scheduler of its own with one worker and at most one job,
/// so that everything that is told of it is told of that job.
class nqPoolSlot final : private nqSchedulerObserver {
public:
    using TimePoint = nqPoolClock::TimePoint;

    enum class Phase {
        Down,         // no worker
        Connected,    // a worker that has not been asked to initialise itself
        Initialising, // it does, and has a time limit for it
        Idle,         // it can take a job
        Busy,         // it holds mJob
        Leaving       // it was told to leave, or killed, and holds no job
    };

    /// What all slots of a pool share; outlives them.
    struct Shared {
        const nqPoolOptions& options;
        nqWorkerProgram& program;
        const nqEnvelope* envelope; ///< null for plain workers
        nqPoolWait& wait;
        nqPoolSlotOwner& owner;
    };

    /// `number` is its place in the pool, from 1.
    nqPoolSlot(const Shared& shared, std::size_t number);
    /// Kills the worker and waits for its end.
    ~nqPoolSlot();

    nqPoolSlot(const nqPoolSlot&) = delete;
    nqPoolSlot& operator=(const nqPoolSlot&) = delete;

    Phase phase() const;

    /// Launches a worker where there is none; blocks until it has connected.
    void launch();

    /// Asks a connected worker to initialise itself; plain ones have nothing to do for it.
    void initialise();

    /// Gives the idle worker a job.
    void run(nqPoolJob&& job);

    /// Moves bytes, notices ends, and tells the owner.
    void pump();

    /// The same, and waits at most `timeout` for the worker to say something.
    void pumpAndWait(std::chrono::milliseconds timeout);

    /// Lets the pool sleep on the worker, but for a pause.
    void watch();

    /// Takes in what the worker has printed.
    void readStandardError();

    /// Ends the worker because of its job, which then fails for this reason, unless its result has
    /// been sent. The first reason holds.
    void endJob(nqAttempt::Reason reason);

    /// Lets the idle worker go, to be replaced.
    void recycle();

    /// Ends the worker and what it does, and waits for that. Tells the end of a job.
    void stop();

    /// Pumps nothing and takes no job until then, because workers have ended too soon.
    void pauseUntil(TimePoint time);
    bool isPaused(TimePoint now) const;

    /// Takes up where the pause has ended.
    void resume();

    /// Kills what has taken too long, and looks at the memory of a worker at work.
    void enforceLimits(TimePoint now);

    /// When enforceLimits() or resume() has something to do.
    std::optional<TimePoint> nextDue() const;

    /// Whether it has done or lived enough for its options.
    bool isDueForRecycling(TimePoint now) const;

    /// How many workers in a row have ended without having finished a job.
    unsigned barrenWorkers() const;

    std::size_t number() const;
    nqJobId jobId() const; ///< 0: none
    bool isAtWork() const; ///< something will come of it soon
    bool isAlive() const;
    nqPoolWorkerStatus status() const;

private:
    struct Ended {
        std::optional<int> exitStatus;
        std::optional<int> signal;
        bool dumpedCore = false;
        std::optional<std::uint64_t> peakMemory;
    };

    /// What the scheduler has told during one pump.
    struct News {
        bool hasJob = false;
        bool hasAnswer = false;
        bool isAnswerLost = false;
        bool hasFailed = false;
        std::optional<Ended> end;
        std::optional<std::int64_t> launched;
        bool hasLaunchFailed = false;
        std::string launchFailure;
    };

    void onEvent(const nqSchedulerEvent& event) noexcept override;

    void settle();
    void settleAnswer();
    void settleBusyAnswer(std::vector<char>&& answer);
    void settleFailure();
    void settleEnd();
    bool takeBackUnsent();
    void settleLaunch();
    void settleFailedLaunch();
    void finishJob(Phase next, nqAttempt&& attempt, std::vector<char>&& bytes);
    void endInitialisation(const std::string& text);
    nqAttempt describeAttempt(nqAttempt::Reason reason);
    void enter(Phase phase);
    void endForTime();
    void send(std::vector<char>&& message);
    void configure();
    nqWorkerEnd endOfUntold(Phase phase) const;
    void takeStandardError();
    void unwatch();
    void kill();
    void killAll();

    const Shared mShared;
    const std::size_t mNumber;
    nqScheduler mScheduler;
    nqLastWords mLastWords;
    News mNews;

    Phase mPhase = Phase::Down;
    std::int64_t mPid = 0;
    std::optional<nqPoolJob> mJob;
    nqAttempt::Reason mKilledFor = nqAttempt::Reason::None; ///< by endJob()
    TimePoint mSince;                                       ///< the phase began
    TimePoint mLaunched;                                    ///< the worker
    std::uint64_t mJobsDone = 0;
    bool mIsOutOfStep = false; ///< the worker: its answers no longer tell which job they belong to
    std::optional<TimePoint> mKillAt;                        ///< what it does must be over by then
    nqAttempt::Reason mKillReason = nqAttempt::Reason::None; ///< of a job
    std::optional<TimePoint> mLookAt;                        ///< at the memory of the worker
    std::optional<TimePoint> mPausedUntil;
    std::optional<nqWorkerEnd> mEnd; ///< how the worker comes to its end, once that is known
    unsigned mBarren = 0;
    bool mIsWatched = false;
    nqPoolSource mWorkerSource{this, false};
    nqPoolSource mStandardErrorSource{this, true};
};

} // namespace nq
