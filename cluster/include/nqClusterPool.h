#pragma once

#include "nqClusterOptions.h"
#include "nqPool.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace nq {

class nqClusterPoolPrivate;

/// Counts of a pool over several machines. What a pool cannot know from afar is 0: workers,
/// launches, run times, and which jobs run (all without an outcome count as queued).
struct nqClusterStatistics : nqPoolStatistics {
    std::size_t pendingBytes = 0;      ///< of jobs without an outcome
    std::uint64_t outcomesDropped = 0; ///< second ones of a job, and of jobs that were given up
    std::uint64_t sentAgain = 0;       ///< jobs that Redis had lost
    std::uint64_t connectionsLost = 0; ///< to Redis
    std::size_t takenUp = 0;           ///< outcomes still to come for the client before this one
};

/// An nqPool whose workers run on other machines: jobs go into a queue in Redis, from which the
/// program `nq-agent` takes them, one on each machine. Each job ends in exactly one outcome here,
/// whatever dies on the way. Operations that nqPool has behave as its own unless this says
/// otherwise.
///
/// @par Threads and callbacks
/// As nqPool: no thread, and everything happens inside the operations that pump.
///
/// @par Blocking
/// Only where nqPool does, in the constructor, and while the name of Redis's machine is looked up.
///
/// @par Errors
/// While Redis cannot be reached, jobs and outcomes wait, problem() says why, and pumping goes on
/// trying. nqPoolError is thrown by the constructor, by submit() for a job above 64 MiB, and by
/// operations that pump once another program has taken the client's name.
///
/// @par Exactly one
/// A job may run twice: when its agent was cut off for longer than its lease, and when Redis has
/// lost it and it was sent again. The second outcome is dropped and counted.
///
/// @par Forked children
/// In a child that the host forks, only destroy it.
class NQ_API nqClusterPool {
public:
    using Callback = nqPool::Callback; ///< gets the outcome, and may move from it
    using Progress = nqPool::Progress; ///< asked by drain() whether to go on

    /// Connects with the Redis server at `url` ("redis://[USER@]HOST[:PORT][/DATABASE]" or
    /// "unix:PATH") and takes `client`'s name in `queue`. Of the pool's options, those of jobs have
    /// a meaning here, but for inProcess, and jobTimeout; what concerns workers is the agents'.
    /// Throws nqPoolError when there is no server, it refuses, or it is none that can be used;
    /// `connectTimeout` at most.
    nqClusterPool(
        const std::string& url,
        const std::string& queue,
        const nqPoolOptions& options = {},
        const nqClusterOptions& cluster = {});

    /// Leaves at once, or within a second where Redis is slow to hear which outcomes the host has
    /// had. Jobs stay in the queue, are run, and their outcomes kept for the next
    /// program with the client's name; stop() takes them out.
    ~nqClusterPool();

    nqClusterPool(const nqClusterPool&) = delete;
    nqClusterPool& operator=(const nqClusterPool&) = delete;

    /// @name Jobs
    /// @{

    /// See nqPool::submit(). The job's bytes stay in memory until its outcome is there. The upper
    /// 32 bits of an id count the programs that used the queue before. Throws nqPoolError for more
    /// than 64 MiB.
    nqJobId submit(nqJobBytes job, Callback callback = {});

    /// The same with options of its own. A deadline is kept by this pool, whatever happens to
    /// Redis; retries are made by it as well, on whichever machine has room.
    nqJobId submit(nqJobBytes job, const nqJobOptions& options, Callback callback = {});

    /// See nqPool::cancel(). Whether a result was faster is known once Redis has answered.
    bool cancel(nqJobId id);

    /// As cancel(), but a job that an agent has already goes on, started or not.
    bool cancelWaiting(nqJobId id);

    /// @}
    /// @name Pumping
    /// @{

    std::size_t pump(std::chrono::milliseconds timeout); ///< see nqPool::pump()
    int waitDescriptor();                                ///< see nqPool::waitDescriptor()

    /// See nqPool::next(). Outcomes that were left for this client come here too, with the ids that
    /// the program before knows. While 64 MiB of them are not fetched, the others wait in Redis.
    std::optional<nqOutcome>
    next(std::chrono::milliseconds timeout = std::chrono::milliseconds(-1));

    /// See nqPool::drain(). Waits for outcomes that were left for this client as well.
    bool drain(const Progress& progress = {});

    /// See nqPool::stop(). Takes the jobs out of the queue, and has agents end those that run, in
    /// two seconds at most; while Redis cannot be reached, they stay there, and what comes of them
    /// is kept for the next program with the client's name.
    void stop();

    /// @}
    /// @name What it does now
    /// @{

    std::size_t unfinishedCount() const;    ///< see nqPool::unfinishedCount()
    std::string problem() const;            ///< why nothing goes on at the moment; empty: it does
    nqClusterStatistics statistics() const; ///< counts and rates, as of now

    /// @}

private:
    std::unique_ptr<nqClusterPoolPrivate> mPrivate;
};

} // namespace nq
