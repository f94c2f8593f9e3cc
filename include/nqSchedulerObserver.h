#pragma once

#include "nqExport.h"
#include "nqScheduler.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>

namespace nq {

/// Something that has happened to a worker or a job; mKind says what, and which of the other
/// members mean something. What is not known stays empty.
///
/// Made by the library and lent for one call of nqSchedulerObserver::onEvent(), with the text that
/// it refers to. New members are added at the end, so that a program built with this header keeps
/// running with a later library; take a kind that you do not know for one that does not concern
/// you.
struct nqSchedulerEvent {
    /// What has happened.
    enum class Kind : std::int32_t {
        WorkerLaunched = 0, ///< mPid; mDuration until it had connected
        LaunchFailed = 1,   ///< mPid (0: not even started), mMessage, mErrorNumber; and how the
                            ///< process ended, if it did by itself
        JobHandedOut = 2,   ///< mPid, mBytes of the job, mUnreadBytes
        ResultComplete = 3, ///< mPid, mBytes of the result, which is now the last one for pop()
        ResultLost = 4,     ///< mPid, mBytes of a result that the queue had no memory for; nothing
                            ///< will be popped for this job
        JobFailed = 5,      ///< mPid, mBytes of the job, mFailReason, mMessage; the failure is now
                            ///< the last one for popFail()
        WorkerEnded = 6     ///< mPid, mEndReason, mDuration since its launch, how the process
                            ///< ended, what it used
    };

    /// Why a worker's record has ended. A worker that was killed has ended for that reason, though
    /// its last result may still have come.
    enum class EndReason : std::int32_t {
        Lost = 0,           ///< it left, crashed or closed its pipe
        Timeout = 1,        ///< killed by the limit of setJobProcessTimeout()
        TooMuchMemory = 2,  ///< killed by the cap of setMaxCapMemory()
        MemoryAfterJob = 3, ///< told to leave by the cap of setMaxCapMemoryAfterProcessingAJob()
        Stopped = 4,        ///< by stopScheduler(), or found dead by it
        KilledByTheHost = 5 ///< by killWorker()
    };

    Kind mKind{};             ///< says which of the others mean something
    std::int64_t mPid = 0;    ///< the worker's process id
    std::uint64_t mBytes = 0; ///< of the job or the result

    /// What the worker had sent unasked and the host's end had taken in when it got the job. Not 0:
    /// it answers more than once, and its results no longer tell which job they belong to.
    std::uint64_t mUnreadBytes = 0;

    nqScheduler::FailReason mFailReason = nqScheduler::NoFailure; ///< that of popFail()
    EndReason mEndReason{};                                       ///< of a worker
    std::int32_t mErrorNumber = 0; ///< errno of a program that could not be started; 0: none
    std::string_view mMessage;     ///< that of popFail(), or the launch's reason in the log

    /// Empty for a worker that was launched while nobody observed.
    std::optional<std::chrono::microseconds> mDuration;

    /// @name How the process ended
    /// All empty when the host has reaped it or ignores SIGCHLD. Of a launch: empty also for a
    /// process that still ran, and was then killed.
    /// @{
    std::optional<std::int32_t> mExitStatus; ///< when it left
    std::optional<std::int32_t> mSignal;     ///< when it was ended by one
    bool mDumpedCore = false;                ///< by that signal

    /// Processor time, with that of its children that it has waited for.
    std::optional<std::chrono::microseconds> mUserTime;
    std::optional<std::chrono::microseconds> mSystemTime; ///< likewise, inside the kernel

    /// The kernel's count of the most resident memory in bytes that it, or a child that it has
    /// waited for, ever had. Empty for one that stayed below the host's own peak, which every new
    /// process inherits.
    std::optional<std::uint64_t> mPeakMemory;
    /// @}

    /// The largest of the readings in bytes that the memory caps have taken; empty when they took
    /// none.
    std::optional<std::uint64_t> mLargestReading;
};

/// Is told what happens to the jobs and workers of a scheduler that it is set to, see
/// nqScheduler::setObserver(). Whoever derives from it owns it.
///
/// @par When
/// On the thread that pumps: after a pass over the workers and before its wait, after each launch,
/// and after each worker that a stop ends. Events come in the order in which they happened. None is
/// lost for lack of memory. Only a launch that ends in an exception or by cancellation of the
/// thread is not told, and nothing that the scheduler's destructor does: call stopScheduler() first
/// to hear it.
///
/// @par Promises
/// Counting from a moment when the scheduler held no job, result or failure:
/// - The n-th JobHandedOut is the n-th job that was pushed, not counting empty jobs and those that
///   clearPendingJobs() dropped or takePendingJob() took back.
/// - The n-th ResultComplete is the n-th pop(), the n-th JobFailed the n-th popFail().
/// - Between two JobHandedOut of one pid lies exactly one ResultComplete, ResultLost or JobFailed
///   of that pid.
/// - The end of a failed job's worker is told before the pump call returns that told the failure.
///   But a failure that only found memory at the end of waitForFinished() comes without it; it
///   follows in the next pump or stop.
///
/// So a host can tie outcomes to jobs without a byte in the payload, as long as its workers answer
/// once for each job.
///
/// @par Calls from an observer
/// push(), pop(), popFail(), clearPendingJobs(), takePendingJob() and everything that only asks may
/// be called. Whatever starts, stops, pumps, kills or heals does nothing there and returns at once,
/// as is said in nqScheduler of calls from a logger; so does setObserver(). Destroying the
/// scheduler there ends the process.
class NQ_API nqSchedulerObserver {
public:
    nqSchedulerObserver(const nqSchedulerObserver&) = delete;
    nqSchedulerObserver& operator=(const nqSchedulerObserver&) = delete;

    /// The event is lent for this call. Slow observers hold the pump up.
    virtual void onEvent(const nqSchedulerEvent& event) noexcept = 0;

protected:
    nqSchedulerObserver() = default;
    ~nqSchedulerObserver() = default;
};

} // namespace nq
