#pragma once

#include "supervision/nqSchedulerWorker.h"
#include "supervision/nqStandardErrors.h"
#include "system/nqNamedPipeServer.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace nq {

class nqEventLog;
class nqJobQueues;

/// What a worker may use; 0 is off.
struct nqWorkerLimits {
    std::uint64_t mMaxCapMemory = 0;                    // bytes
    std::uint64_t mJobProcessTimeout = 0;               // whole seconds
    std::uint64_t mMaxCapMemoryAfterProcessingAJob = 0; // bytes
    std::uint64_t mMaxPhysicalMemory = 0;               // bytes
};

/// What a launch needs to know of the scheduler's configuration. Borrowed for the call.
struct nqWorkerLaunch {
    const std::string& mExeUtf8Path;
    const std::vector<std::string>& mArgumentsUtf8;
    bool mPrependChannelId; // the pipe's name is the first argument, else the last
    const std::string& mPipeName;
    bool mStartProcessFlag;
    std::int32_t mWorkerConnectionTimeout; // milliseconds
    const nqWorkerLimits& mLimits;
    nqEventLog& mEvents;                         // has room for two events
    nqStandardErrors* mStandardErrors = nullptr; // gets the worker's; null: not captured
};

/// Starts one worker process and waits for its connection to `server`, which must be listening.
/// Null when that fails; the failure is then logged, and the process is killed, and waited for at
/// most a second. The record borrows `queues` and the event log.
std::unique_ptr<nqSchedulerWorker>
launchWorker(const nqWorkerLaunch& launch, nqNamedPipeServer& server, nqJobQueues* queues);

} // namespace nq
