#pragma once

#include <chrono>
#include <cstdint>

namespace nq {

/// One worker of a scheduler, see nqScheduler::workers(). A copy, which does not change.
struct nqWorkerStatus {
    /// What it is about.
    enum class State : std::int32_t {
        Idle = 0,   ///< holds no job
        Busy = 1,   ///< holds one
        Leaving = 2 ///< killed or told to leave, and not found to be gone yet
    };

    std::int64_t mPid = 0;                  ///< its process id
    State mState = State::Idle;             ///< as the last pump left it
    std::uint64_t mResidentMemory = 0;      ///< bytes, read now; 0 when it cannot be read
    std::chrono::milliseconds mTimeInJob{}; ///< since it was given the job that it holds; else 0
};

} // namespace nq
