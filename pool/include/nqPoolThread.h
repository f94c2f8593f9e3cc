#pragma once

#include "nqPool.h"

#include <future>

namespace nq {

/// An nqPool on a thread of its own, for hosts that have threads and want futures.
///
/// @par Threads
/// Any thread may call any operation. All signals are blocked in the pool's own thread.
///
/// @par Blocking
/// submit() blocks while the pool is full, drain() until no job is left, and the destructor as
/// stop() does. The others take a lock for a moment.
///
/// @par Forked children
/// In a child that the host forks, only destroy it.
class NQ_API nqPoolThread {
public:
    /// Checks the options as nqPool does, on the calling thread, and starts the thread.
    /// nqPoolOptions::maxPendingJobs and WhenFull hold for submit(). An Order has no effect: each
    /// future has its own outcome.
    explicit nqPoolThread(const nqPoolOptions& options = {});

    /// Stops, see stop(), and waits for the thread.
    ~nqPoolThread();

    nqPoolThread(const nqPoolThread&) = delete;
    nqPoolThread& operator=(const nqPoolThread&) = delete;

    /// Hands a job over and returns the future of its outcome, which never holds an exception.
    /// `id`, if given, gets the job's id before this returns. When the pool is full: blocks until
    /// there is room, or, with nqPoolOptions::WhenFull::Refuse, returns a future without a state
    /// (valid() is false) and leaves the bytes to the caller. Throws nqPoolError for an empty job
    /// to plain workers, and after stop().
    std::future<nqOutcome>
    submit(nqJobBytes job, const nqJobOptions& options = {}, nqJobId* id = nullptr);

    /// Asks for the end of a job, see nqPool::cancel(); its future tells what came of it.
    void cancel(nqJobId id);

    /// Waits until every job that was handed over before has its outcome.
    void drain();

    /// Ends all jobs and workers now, see nqPool::stop(), and waits for that. Every future gets its
    /// outcome.
    void stop();

    /// @name What it does now
    /// As nqPool's, as of the thread's last look: at the end of drain() and stop(), and a tenth of
    /// a second ago at most unless a launch blocks the thread.
    /// @{
    nqPoolStatistics statistics() const; ///< counts, rates and times
    std::string problem() const;         ///< why no worker can be launched; empty: nothing
    /// @}

private:
    struct Private;
    std::unique_ptr<Private> mPrivate;
};

} // namespace nq
