#pragma once

#include <memory>
#include <string>
#include <vector>

namespace nq {

/// The worker's side of a job: derive from it in the worker executable, implement processJob, and
/// call processWorker until hasFinished.
///
/// One job at a time, on the thread that calls processWorker; no thread, no lock. The worker never
/// reads its standard input, and what it prints never mixes with its jobs. When the host ends, by
/// any means, the worker is killed.
class [[gnu::visibility("default")]] nqWorker
{
public:
    /// Connects to the scheduler's pipe, whose name the scheduler puts on the command line: the
    /// first argument when it was told to prepend it, else the last. A failed connection shows as
    /// hasFinished() after the first processWorker.
    explicit nqWorker(const std::string& schedulerUtf8);

    /// Closes the pipe. endOfWork is not called.
    virtual ~nqWorker();

    nqWorker(const nqWorker&) = delete;
    nqWorker& operator=(const nqWorker&) = delete;

    /// The pipe name given to the constructor.
    const std::string& schedulerUtf8() const;

    /// True once the work is over and the process should leave.
    bool hasFinished() const;
    void setFinished(bool finished);

    /// One step: waits up to `timeoutMs` milliseconds for the pipe, takes in what came, runs the
    /// hook when a job is whole, and hands over the next slice of its result. The result leaves the
    /// process in the steps that follow, so keep stepping. The memory of a large job and its result
    /// is kept for the next one, and given back by a step that waits in vain.
    void processWorker(int timeoutMs);

    /// @name Steps of processWorker, rarely called by themselves
    /// @{
    void onReadyRead();
    void onProcess();
    void onSendData();
    /// @}

    /// @name Hooks
    /// @{

    /// The work: reads `job`, fills `result`, which is empty at the call. Both buffers belong to
    /// the base class; the job may be consumed. Never leave the result empty: an empty result does
    /// not complete its job, which then waits for its time-out. An exception that leaves the hook
    /// leaves processWorker too. Results of 2^31 bytes or more are not supported.
    virtual void processJob(std::vector<char> & job, std::vector<char> & result) = 0;

    /// Called by the step that finds the pipe closed and by every step after it. This version calls
    /// setFinished(true); an override must do so too, or end the loop otherwise.
    virtual void endOfWork();

    /// @}

private:
    struct Private;
    std::unique_ptr<Private> mPrivate;
};

} // namespace nq
