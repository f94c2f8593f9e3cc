#pragma once

#include "nqExport.h"
#include "nqOutcome.h"
#include "nqPoolOptions.h"
#include "nqPoolStatistics.h"
#include "nqPoolVersion.h"
#include "nqPoolWorker.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace nq {

class nqPoolPrivate;

/// A pool that cannot be made as its options say, or is used in a way that cannot work. what()
/// names the cause and what to do.
class NQ_API nqPoolError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
    ~nqPoolError() override;
};

/// The bytes of a job on their way into submit(), which copies text and lvalues, and moves from a
/// vector that is an rvalue, but only once the job is accepted.
class NQ_API nqJobBytes {
public:
    /// Moves from them once the job is accepted.
    nqJobBytes(std::vector<char>&& bytes); // NOLINT(google-explicit-constructor): a parameter

    /// Copies them.
    nqJobBytes(const std::vector<char>& bytes); // NOLINT(google-explicit-constructor)

    /// Anything that converts to `std::string_view`.
    template <
        typename Text,
        typename = std::enable_if_t<std::is_convertible_v<const Text&, std::string_view>>>
    nqJobBytes(const Text& text) // NOLINT(google-explicit-constructor)
        : mView(text)
    {
    }

    /// How many there are.
    std::size_t size() const;

    /// Gives them away.
    std::vector<char> take();

    /// Takes them back, after take() only.
    void putBack(std::vector<char>&& bytes);

private:
    std::string_view mView;
    std::vector<char>* mMoved = nullptr;
};

/// How far a drain() has come.
struct nqProgress {
    std::uint64_t done = 0;      ///< outcomes since the pool was made, by their state
    std::uint64_t failed = 0;    ///< likewise
    std::uint64_t cancelled = 0; ///< likewise
    std::size_t queued = 0;      ///< jobs that wait
    std::size_t running = 0;     ///< jobs that workers hold
};

/// One worker process of a pool. A copy, which does not change.
struct nqPoolWorkerStatus {
    std::size_t number = 0;                ///< its place in the pool, from 1; a successor's as well
    std::int64_t pid = 0;                  ///< its process id
    nqJobId job = 0;                       ///< the job that it holds; 0: none
    std::string label;                     ///< nqJobOptions::label of that job
    std::uint64_t jobsDone = 0;            ///< since it was launched
    std::uint64_t residentMemory = 0;      ///< bytes, read now; 0 when it cannot be read
    std::chrono::milliseconds timeInJob{}; ///< since it was given the job that it holds; else 0
};

/// Runs jobs in worker processes and ends each in exactly one outcome: done, failed or cancelled.
/// A worker that crashes, hangs or eats memory costs the one job it holds and is replaced.
///
/// @par Threads
/// There is none: everything happens inside pump() and the operations that pump by themselves,
/// submit() to a full pool, next(), drain() and stop(). All operations of one object belong to one
/// thread; see nqPoolThread for a pool that has its own.
///
/// @par Blocking
/// Workers are launched when jobs wait, one after the other. A launch blocks for as long as the
/// worker takes to connect, some milliseconds, nqPoolOptions::connectionTimeout at most.
///
/// @par Callbacks
/// Run inside the operations that pump, on their thread. submit(), cancel() and all that only asks
/// may be called in there; submit() to a full pool returns 0 there instead of pumping. pump(),
/// next(), drain(), start() and stop() throw nqPoolError; destroying the pool ends the process. An
/// exception that leaves a callback passes through the operation that pumps. The outcome counts as
/// delivered, and the next pump goes on with the next one.
///
/// @par Errors
/// What happens to jobs and workers is an outcome, never an exception. nqPoolError says that the
/// pool is used in a way that cannot work. Allocation exceptions pass through; a job whose result
/// has no memory fails with ResultLost.
///
/// @par Forked children
/// A pool belongs to the process that made it. In a child that the host forks, only destroy it.
class NQ_API nqPool {
public:
    /// Gets the outcome, and may move from it.
    using Callback = std::function<void(nqOutcome&& outcome)>;

    /// Checks the options; starts nothing yet. Throws nqPoolError when they cannot work: a worker
    /// that is missing or not executable, this program as its own worker without runAsWorker(), in
    /// a worker process, without /proc or with elevated rights.
    explicit nqPool(const nqPoolOptions& options = {});

    /// Ends the workers. Jobs without an outcome are dropped, and no callback runs; stop() hands
    /// them back.
    ~nqPool();

    nqPool(const nqPool&) = delete;
    nqPool& operator=(const nqPool&) = delete;

    /// @name Jobs
    /// @{

    /// Accepts a job and returns its id. `callback` is told its outcome; without one, next()
    /// returns it. 0, and the job's bytes stay with the caller, after stop(), and when the pool is
    /// full and may not pump: see nqPoolOptions::WhenFull. Throws nqPoolError for an empty job to
    /// plain workers.
    nqJobId submit(nqJobBytes job, Callback callback = {});

    /// The same with options of its own.
    nqJobId submit(nqJobBytes job, const nqJobOptions& options, Callback callback = {});

    /// Ends a job, which then has the outcome Cancelled, delivered by a later pump. A job that
    /// waits ends at once; one that runs is ended with its worker, unless its result has been sent
    /// already, which wins: the outcome is then Done. False when the job has an outcome already,
    /// delivered or not, and when there is no such job.
    bool cancel(nqJobId id);

    /// @}
    /// @name Pumping
    /// @{

    /// Does what is due, then waits at most `timeout` (negative: no limit) for something to do,
    /// does that and delivers outcomes. Does not wait when there was something to do. Returns how
    /// many outcomes were delivered or became ready for next().
    std::size_t pump(std::chrono::milliseconds timeout);

    /// One descriptor to add, once, to a loop of the host's own: readable when pump() has something
    /// to do, limits and pauses included; no other tick is needed. Level-triggered. Borrowed, stays
    /// the same: never close or read it.
    int waitDescriptor();

    /// Pumps until an outcome without a callback is there, and returns it. Empty when no job is
    /// left that could give one, and when `timeout` has passed; negative: no limit.
    std::optional<nqOutcome>
    next(std::chrono::milliseconds timeout = std::chrono::milliseconds(-1));

    /// Asked by drain() whether to go on.
    using Progress = std::function<bool(const nqProgress& progress)>;

    /// Pumps until every job has its outcome, and those with a callback are delivered. Calls
    /// `progress` ten times a second and at the end, and returns early when that says false. True
    /// when every job has its outcome, and every outcome since the drain before is Done.
    bool drain(const Progress& progress = {});

    /// Launches all workers now rather than with the first jobs, and waits until they are
    /// initialised. False when one could not be launched; problem() says why.
    bool start();

    /// Begins what start() waits for, and returns at once: the pumps that follow launch the
    /// workers.
    void beginStart();

    /// Whether that goes on. Over once all workers are initialised, or one could not be launched,
    /// which nqPoolStatistics::launchesFailed counts.
    bool isStarting() const;

    /// Calls `callback` before each launch of a worker, for a watchdog that must tell a slow launch
    /// from a hang: the launch blocks for nqPoolOptions::connectionTimeout at most, and for a
    /// second more if the worker has to be killed. Must not throw or use the pool. Empty: none.
    void onLaunch(std::function<void()> callback);

    /// Ends all jobs and workers now, and accepts no more jobs. Every job without an outcome gets
    /// one: a result that was there already, or Cancelled with its bytes. Takes no longer than
    /// nqPoolOptions::connectionTimeout for each worker, and what the kernel takes to end them. To
    /// let jobs finish, call drain() before.
    void stop();

    /// Announces how many jobs there will be in all, for the time left in the status file: a host
    /// that submits them one by one knows more than the pool. 0: those submitted so far.
    void expectJobs(std::uint64_t jobs);

    /// @}
    /// @name What it does now
    /// @{

    /// Jobs without an outcome: they wait or run.
    std::size_t unfinishedCount() const;

    /// Those of them that wait.
    std::size_t queuedCount() const;

    /// Why no worker can be launched at the moment; empty when that is not so.
    std::string problem() const;

    /// Counts, rates and times, as of now.
    nqPoolStatistics statistics() const;

    /// Each worker process. Reads each one's memory from the kernel.
    std::vector<nqPoolWorkerStatus> workers() const;

    /// @}

private:
    std::unique_ptr<nqPoolPrivate> mPrivate;
};

} // namespace nq
