#pragma once

#include "pool/include/nqPoolStatus.h"
#include "pool/nqEndNames.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace nq {

/// Events of a pool as they go to its trace: a JSON array with one event in each line, which the
/// format allows to end without its bracket, so that every beginning of the file that ends with a
/// line is whole. Has no file of its own: take() gives what is to be appended.
class nqPoolTrace {
public:
    using Time = std::chrono::microseconds; ///< since the pool was made

    /// Gives `limit` bytes at most, or the names alone; 0: any number. Later events are left out,
    /// and the last one says so.
    nqPoolTrace(std::uint64_t limit, const std::string& name, std::size_t workers);

    struct Span {
        std::size_t worker = 0;
        Time begin{};
        Time end{};
        nqJobId job = 0;
        std::string_view label;
        std::size_t attemptNumber = 1;
        std::size_t jobBytes = 0;
        std::size_t resultBytes = 0;
        bool isLast = true; ///< it was not tried again
    };

    /// An attempt has ended.
    void addAttempt(const Span& span, const nqAttempt& attempt);

    /// A job has ended that no worker held then.
    void addWaitingJob(Time at, nqJobId job, std::string_view label, nqAttempt::Reason reason);

    void addWorkerLaunched(Time at, std::size_t worker, std::int64_t pid);
    void addWorkerEnded(Time at, std::size_t worker, nqWorkerEnd how);

    void addQueued(Time at, std::size_t jobs);
    void addMemory(Time at, const std::vector<nqPoolWorkerStatus>& workers);

    /// The pool has ended, and so does the array.
    void close(Time at);

    std::size_t pendingBytes() const;

    /// What has come since the last call, in whole lines.
    std::string take();

private:
    void begin(const char* phase, std::string_view name, Time at, std::size_t worker);
    void append(const char* name, std::uint64_t value);
    void append(const char* name, std::string_view text);
    void beginArguments();
    void end();
    void addName(const char* kind, std::size_t worker, const std::string& name);
    void addLastMark(const char* name);
    void addMark(Time at, std::size_t worker, const std::string& name, const char* category);

    const std::uint64_t mLimit;
    const std::uint64_t mProcess;
    std::uint64_t mBytes = 0;
    bool mIsFull = false;
    Time mLatest{};        ///< of the latest event
    std::size_t mLine = 0; ///< where the event that is being made begins
    bool mHasArguments = false;
    std::string mPending;
};

/// What readPoolTrace() looks for in the first event.
constexpr char traceFormat[] = "nqPool trace";

} // namespace nq
