#pragma once

#include "include/nqScheduler.h"
#include "system/nqHighResTimer.h"
#include "system/nqNamedPipe.h"
#include "system/nqProcess.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace nq {

class nqEventLog;
class nqJobQueues;
class nqSchedulerWorkerPrivate;

/// The scheduler's record of one worker process: it owns the process and the scheduler's end of its
/// pipe, and holds the one job that the worker may be doing.
///
/// Destroying a record closes the pipe, which tells the worker to leave, and waits for the process
/// without limit. It never kills, but for a worker that prints to the host and does not leave in
/// time.
class nqSchedulerWorker {
public:
    /// For a worker that saves its work before it leaves.
    static constexpr unsigned int leaveMs = 30'000;

    /// Waits for a process that has been told to leave, `leaveMs` at most. True when it has ended.
    static bool leavesInTime(nqProcess& process);

    /// Takes over the connected pipe and the running process, which must not be null; borrows the
    /// queues, which must outlive the record or its closePipe().
    nqSchedulerWorker(
        std::unique_ptr<nqNamedPipe> pipe, std::unique_ptr<nqProcess> process, nqJobQueues* queues);
    virtual ~nqSchedulerWorker();

    nqSchedulerWorker(const nqSchedulerWorker&) = delete;
    nqSchedulerWorker& operator=(const nqSchedulerWorker&) = delete;

    /// Copies of the scheduler's limits; 0 is off.
    void setMaxCapMemory(std::uint64_t bytes);
    void setJobProcessTimeout(std::uint64_t seconds);
    void setMaxCapMemoryAfterProcessingAJob(std::uint64_t bytes);

    /// Reports what happens to `events` from now on, which is borrowed and must outlive the record.
    /// The timer has run since the launch; without one, nobody observed it.
    void setEvents(nqEventLog& events, const std::optional<nqHighResTimer>& sinceLaunch);

    /// The worker's standard error is a pipe that the host reads, or does not.
    void setPrintsToTheHost();

    /// One pass: moves the pipe's bytes, holds memory and age against the limits, receives, notices
    /// a lost worker, dispatches. Never blocks. An allocation failure passes through and the record
    /// can be stepped again. It can cost a result that the queue has no room for, and with it its
    /// job.
    void superviseStep();

    /// Stores the failure that an earlier step could not store, if there is one. If the allocation
    /// fails again, its exception passes through and the record keeps the job.
    void storeOwedFailure();

    /// Detaches from the queues, so that nothing more is delivered, and closes the pipe.
    void closePipe();

    /// Kills the worker as a limit does: its job fails with this reason and message, unless its
    /// result has been sent. False, and nothing changes, when the worker is lost, killed or told to
    /// leave already.
    bool killFor(nqScheduler::FailReason reason, const std::string& message);

    /// Whether no job is in flight.
    bool isReadyForJob() const;

    /// Whether another superviseStep() would find something to do by what is known already.
    /// `jobWaits` says whether a job is pending.
    bool hasImmediateWork(bool jobWaits) const;

    /// Whether the record is over: the pump then destroys and replaces it.
    bool hasFinished() const;

    /// Whether it can still work: not over, and neither killed nor told to leave.
    bool isLive() const;

    std::int64_t pid() const;

    /// Seconds since the job in flight was handed out.
    double secondsInJob() const;

    nqProcess* process() const;

    /// Null once the pipe is closed.
    nqNamedPipe* pipe() const;

private:
    // The steps of superviseStep, in the order in which they happen.
    bool condemnIfOverLimit();
    bool receiveStep();
    bool isLost() const;
    void sendStep(bool jobJustCompleted);
    bool restartIfTooMuchRam();
    bool startNextJob();
    void failCurrentJob();

    std::unique_ptr<nqSchedulerWorkerPrivate> mPrivate;
};

} // namespace nq
