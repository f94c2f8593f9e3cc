#pragma once

#include "include/nqScheduler.h"
#include "system/nqHighResTimer.h"
#include "system/nqNamedPipe.h"
#include "system/nqProcess.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace nq {

class nqJobQueues;

/// While mReadyForJob is false, mJob holds the job in flight, and mFailReason and mFailMessage say
/// what it becomes if it fails. When mReadyForJob turns true again, mJob is emptied. Once mFinished
/// is true it stays true.
class nqSchedulerWorkerPrivate {
public:
    nqSchedulerWorkerPrivate(
        std::unique_ptr<nqNamedPipe> pipe, std::unique_ptr<nqProcess> process, nqJobQueues* queues);

    std::unique_ptr<nqNamedPipe> mPipe; // null once closed
    nqJobQueues* mQueues;               // borrowed; null when detached: nothing more is delivered
    std::unique_ptr<nqProcess> mProcess;
    std::uint64_t mMaxCapMemory = 0;                    // bytes; 0 = off
    std::uint64_t mJobProcessTimeout = 0;               // whole seconds; 0 = off
    std::uint64_t mMaxCapMemoryAfterProcessingAJob = 0; // bytes; 0 = off
    nqHighResTimer mJobTimer;                           // started when a job is dispatched
    std::vector<char> mJob;    // kept after it is sent, since a failure hands it back
    std::vector<char> mResult; // being received
    nqScheduler::FailReason mFailReason = nqScheduler::NoFailure;
    std::string mFailMessage;
    std::uint64_t mPid;         // read once, for messages
    std::int32_t mReceived = 0; // bytes of mResult
    std::int32_t mSent = 0;     // bytes of mJob handed to the pipe
    bool mReadyForJob = true;   // no job in flight
    bool mFinished = false;     // the pump destroys and replaces the record
    bool mKilled = false;       // a kill was requested: takes no new job
    bool mFailureOwed = false; // the job in flight has failed, is logged and no longer counted, but
                               // has found no memory in the queue yet
};

/// A memory figure as every message shows it: "1.5GB".
std::string memoryText(std::uint64_t bytes);

} // namespace nq
