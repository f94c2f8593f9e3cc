#pragma once

#include "nqExport.h"
#include "nqVersion.h"

#include <memory>
#include <string>
#include <vector>

namespace nq {

/// The worker's side of a job: derive from it in the worker executable, implement processJob, and
/// call processWorker until hasFinished; a worker that leaves by itself looks at isSending too. The
/// worker never reads its standard input, and what it prints never mixes with its jobs. When the
/// host ends, by any means, the worker is killed.
///
/// @par Threads
/// One job at a time, on the thread that calls processWorker; no thread, no lock. All operations
/// belong to that thread.
///
/// @par Blocking
/// Only processWorker() waits, for as long as it is told to. What runs the hook takes as long as
/// the hook.
///
/// @par Errors
/// A lost host is no error: it shows as hasFinished(). What the hook throws and allocation
/// exceptions pass through.
///
/// @par Ownership
/// The buffers of job and result belong to this class; a hook may use them until it returns.
class NQ_API nqWorker {
public:
    /// Connects to the scheduler's pipe, whose name the scheduler puts on the command line: the
    /// first argument when it was told to prepend it, else the last. A failed connection shows as
    /// hasFinished() after the first processWorker. Does not block.
    explicit nqWorker(const std::string& schedulerUtf8);

    /// Closes the pipe. endOfWork is not called.
    virtual ~nqWorker();

    nqWorker(const nqWorker&) = delete;
    nqWorker& operator=(const nqWorker&) = delete;

    /// The pipe name given to the constructor.
    const std::string& schedulerUtf8() const;

    /// True once the work is over and the process should leave.
    bool hasFinished() const;

    /// Sets what hasFinished() says. It ends nothing by itself.
    ///
    /// A worker that leaves after a job calls this in its hook. The result needs further steps to
    /// leave the process, and what has not left when this object is destroyed is lost, so the loop
    /// goes on until it has:
    /// @code
    /// while (!worker.hasFinished() || worker.isSending())
    ///     worker.processWorker(1000);
    /// @endcode
    /// The host knows nothing of the intention. It may give the next job to a worker that is about
    /// to leave; such a job fails as UnexpectedCrash, and the host may push it again.
    void setFinished(bool finished);

    /// True while bytes of a result have still to leave this process and can. False once the pipe
    /// is gone, whatever is left. What has left reaches the host even if the process ends at once.
    bool isSending() const;

    /// One step: waits up to `timeoutMs` milliseconds (0 or less: none) for the pipe, takes in what
    /// came, runs the hook when a job is whole, and hands over the next slice of its result. The
    /// result leaves the process in the steps that follow, so keep stepping. The memory of a large
    /// job and its result is kept for the next one. It is given back by a step that has nothing to
    /// send and gets no bytes, and after 64 small jobs in a row.
    void processWorker(int timeoutMs);

    /// @name Steps of processWorker, rarely called by themselves
    /// @{

    /// Takes what has been received into the job. When it is whole and the result before it has
    /// left, runs the hook.
    void onReadyRead();

    /// Runs the hook on the job as far as it is there, and begins the frame of its result.
    void onProcess();

    /// Hands the next slice of the result to the pipe, as much as it has room for.
    void onSendData();

    /// @}

    /// @name Hooks
    /// @{

    /// The work: reads `job`, fills `result`, which is empty at the call. Both buffers belong to
    /// the base class; the job may be consumed. Never leave the result empty: an empty result does
    /// not complete its job, which then waits for its time-out. An exception that leaves the hook
    /// passes as if this class did not stand between: an uncaught one ends the process where it was
    /// thrown. A `main` that catches it has a worker that is over: nothing of the result leaves,
    /// and the next step closes the pipe, which fails the job.
    ///
    /// A hook may call processWorker(), with 0 or a time, to see from hasFinished() whether the
    /// host is still there. Inside the hook that only moves bytes, and calls endOfWork() when the
    /// pipe has gone; the other steps do nothing.
    ///
    /// Results of 2^31 bytes or more are not supported.
    virtual void processJob(std::vector<char>& job, std::vector<char>& result) = 0;

    /// Called by the step that finds the pipe closed and by every step after it. This version calls
    /// setFinished(true); an override must do so too, or end the loop otherwise.
    virtual void endOfWork();

    /// @}

private:
    struct Private;
    std::unique_ptr<Private> mPrivate;
};

} // namespace nq
