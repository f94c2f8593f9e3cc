#pragma once

#include "nqOutcome.h"

#include <string_view>

namespace nq {

/// How the worker of a place in a pool came to its end.
enum class nqWorkerEnd {
    Crashed,      // by a signal that the pool did not send
    Exited,       // it left, asked by nobody
    MemoryCap,    // killed: too large
    Timeout,      // killed: its job took too long
    Deadline,     // killed: its job's time was over
    Cancelled,    // killed: its job was cancelled
    OutOfStep,    // killed: its answers made no sense any more
    Recycled,     // it had done, lived or grown enough
    LaunchFailed, // it never could take a job
    Stopped       // the pool has ended
};

/// The names in files that programs read; they do not change.
/// @{
std::string_view nameOf(nqAttempt::Reason reason); ///< "memory_cap"; "done" for one that was
std::string_view nameOf(nqWorkerEnd end);          ///< "launch_failed"
/// @}

/// Of a name that a later version may have given: an unknown one is taken for ResultLost.
nqAttempt::Reason reasonNamed(std::string_view name);

/// Of the pool's end of a job for this reason.
nqWorkerEnd endFor(nqAttempt::Reason reason);

} // namespace nq
