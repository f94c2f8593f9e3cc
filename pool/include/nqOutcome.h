#pragma once

#include "nqExport.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace nq {

/// Names one job of one pool. Ids count up from 1; 0 is no job.
using nqJobId = std::uint64_t;

/// One try to run a job, and how it ended.
struct NQ_API nqAttempt {
    /// Why a job was not done.
    enum class Reason : std::int32_t {
        None = 0,       ///< it was done
        Crashed = 1,    ///< the worker was ended by a signal that the pool did not send
        Exited = 2,     ///< the worker left, or closed its connection, without an answer
        MemoryCap = 3,  ///< the worker passed the memory cap and was killed
        Timeout = 4,    ///< the job passed its time-out, and the worker was killed
        Deadline = 5,   ///< the job's deadline passed while it waited or ran
        Exception = 6,  ///< the worker's function threw; the worker lives on
        ResultLost = 7, ///< the host had no memory for the result, or for another part of the job
        NoWorker = 8,   ///< no worker could be started; the message says why
        Cancelled = 9,  ///< by nqPool::cancel()
        Stopped = 10,   ///< by nqPool::stop()
        Lost = 11       ///< the machine that ran it was lost; see nqClusterPool
    };

    Reason reason = Reason::None; ///< why it was not done

    /// The worker itself said so, by an exception, and lives on. With a reason of nqJobFailure,
    /// what follows is of whatever the worker has run, not of the worker.
    bool toldByWorker = false;

    /// What the exception, the failed launch or the supervision had to say; often empty.
    std::string message;

    std::int64_t pid = 0; ///< of the worker; 0 when none was given the job

    /// @name How the worker ended
    /// Empty when it lives on, and when the host reaps its children itself.
    /// @{
    std::optional<int> exitStatus; ///< when it left
    std::optional<int> signal;     ///< when a signal ended it; see signalName()
    bool dumpedCore = false;       ///< by that signal
    /// @}

    /// Bytes of resident memory, the most that is known of a worker that ended; see
    /// nqSchedulerEvent::mPeakMemory.
    std::optional<std::uint64_t> peakMemory;

    std::chrono::microseconds ran{}; ///< from the moment a worker was given the job

    /// The end of what the worker wrote to its standard error during the job; empty for a job that
    /// was done. See nqPoolOptions::lastWords.
    std::string lastWords;

    /// The signal's usual name, for example "SIGSEGV"; empty when there was none.
    std::string signalName() const;
};

/// How a job ended: exactly one for each job that a pool has accepted. The members of nqAttempt are
/// those of the last attempt.
struct NQ_API nqOutcome : nqAttempt {
    /// What became of the job.
    enum class State : std::int32_t {
        Done = 0,     ///< bytes is the result
        Failed = 1,   ///< bytes is the job, as it was submitted
        Cancelled = 2 ///< likewise; by nqPool::cancel() or nqPool::stop()
    };

    nqJobId id = 0;            ///< as submit() has returned it
    State state = State::Done; ///< what became of the job

    /// The result of a job that was done, otherwise the job itself. Empty after ResultLost.
    std::vector<char> bytes;

    std::chrono::microseconds queued{}; ///< from submit() to the first attempt, or to the end

    /// The attempts before the last one, each of which has failed; see nqRetryPolicy.
    std::vector<nqAttempt> earlierAttempts;

    /// The file that nqPoolOptions::keepFailedJobs made of the job; empty when there is none.
    std::string keptAs;

    /// Whether the job was done.
    explicit operator bool() const;

    /// The bytes as text, valid as long as they are.
    std::string_view text() const;

    /// One sentence for people: what happened, most likely why, what to try. Empty when the job was
    /// done.
    std::string failureText() const;
};

} // namespace nq
