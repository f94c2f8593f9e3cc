#pragma once

#include "pool/include/nqPool.h"
#include "pool/include/nqPoolStatus.h"
#include "pool/include/nqPoolTimeline.h"
#include "pool/nqEndNames.h"
#include "pool/nqPoolClock.h"
#include "pool/nqPoolJob.h"
#include "pool/nqPoolMetrics.h"
#include "pool/nqPoolTrace.h"
#include "pool/nqShownFile.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace nq {

/// Hears what happens in a pool and writes the files that show it, as nqPoolOptions says. There is
/// none in a pool that is not to be shown.
///
/// Nothing that goes wrong here reaches the pool: without memory or room on the disk, something is
/// missing in the files, and counted.
class nqPoolObserver {
public:
    using TimePoint = nqPoolClock::TimePoint;

    /// Null when the options name no file. Throws nqPoolError when one cannot be written.
    static std::unique_ptr<nqPoolObserver> of(const nqPoolOptions& options);

    explicit nqPoolObserver(const nqPoolOptions& options);

    void onSubmitted();
    void onGiven(std::size_t worker, const nqPoolJob& job);

    /// `isLast`: it is not tried again, by the host neither.
    void onAttemptEnded(
        std::size_t worker,
        const nqPoolJob& job,
        const nqAttempt& attempt,
        std::size_t resultBytes,
        bool isLast);

    /// A job has its outcome that no worker held.
    void onWaitingJobEnded(const nqPoolJob& job, nqAttempt::Reason reason);

    void onOutcome(const nqOutcome& outcome);
    void onWorkerLaunched(std::size_t worker, std::int64_t pid);
    void onWorkerEnded(std::size_t worker, nqWorkerEnd how);

    /// What the pool does now. As long as jobs run, there is something new.
    void onState(std::size_t queued, std::size_t running);

    /// When write() has something to do; empty as long as nothing happens.
    std::optional<TimePoint> nextDue() const;

    /// Takes a look at the pool.
    using Look = std::function<nqPoolStatus()>;

    /// Brings those files up to date whose time has come. Neither this nor end() does anything in a
    /// forked child, whose files they are not.
    void write(const Look& look);

    /// All of them, for the last time: the pool has ended.
    void end(const Look& look);

    std::uint64_t writesFailed() const;
    const std::string& writeProblem() const; ///< the first of them; empty: there is none

private:
    using Time = std::chrono::microseconds;

    /// When a file was written, and has to be again.
    struct Schedule {
        std::chrono::milliseconds interval{};
        TimePoint next;
        std::uint64_t news = ~std::uint64_t{0}; ///< that the file tells of; at first, none
    };

    /// What has to be remembered of a place for a worker.
    struct Place {
        std::size_t jobBytes = 0;
        std::optional<nqWorkerEnd> end; ///< of the worker before
    };

    template <typename Action>
    void attempt(const Action& action);
    template <typename Action>
    void note(const Action& action);
    bool isBehind(const Schedule& schedule) const;
    bool beginWrite(Schedule& schedule, TimePoint now);
    void writeDue(TimePoint now, const nqPoolStatus& status);
    void writeLast(const nqPoolStatus& status);
    void writeStatus(const nqPoolStatus& status);
    void writeMetrics(const nqPoolStatus& status);
    void writeTrace();
    void countWrite(bool hasSucceeded, const std::string& problem);
    void addQueued(Time at);
    Time now();
    Place& place(std::size_t worker);

    const pid_t mOwner;
    const std::size_t mWorkers;
    std::optional<nqShownFile> mMetricsFile;
    std::optional<nqShownFile> mStatusFile;
    std::optional<nqShownFile> mTimelineFile;
    std::optional<nqGrowingFile> mTraceFile;
    std::optional<nqPoolMetrics> mMetrics;
    std::optional<nqPoolTrace> mTrace;
    std::optional<nqPoolTimeline> mTimeline;
    Schedule mMetricsSchedule;
    Schedule mStatusSchedule;
    Schedule mTraceSchedule;

    std::optional<TimePoint> mBegin; ///< of what the trace and the timeline show
    std::vector<Place> mPlaces;
    std::uint64_t mNews = 0; ///< things that have happened
    std::size_t mQueued = 0;
    std::size_t mQueuedShown = 0;
    Time mQueuedAt{-1}; ///< of that
    std::size_t mRunning = 0;
    std::uint64_t mWritesFailed = 0;
    std::string mWriteProblem;
};

} // namespace nq
