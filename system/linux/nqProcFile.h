#pragma once

#include <cstdint>
#include <optional>
#include <sys/types.h>
#include <tuple>

namespace nq {

/// When a process was forked, to find the older of two.
struct nqStart {
    std::uint64_t mTicks; // of 10 ms, since boot
    pid_t mPid;           // within a tick, pids go up

    friend bool operator<(const nqStart& left, const nqStart& right)
    {
        return std::tie(left.mTicks, left.mPid) < std::tie(right.mTicks, right.mPid);
    }
};

/// What /proc tells about processes: nothing where it is not mounted, or shows another PID
/// namespace, whose pids mean other processes.
///
/// Answers are about a pid, which may be recycled. Whoever holds neither the child nor a pidfd has
/// to check afterwards that the process still lives.
class nqProcFile {
public:
    static std::optional<nqStart> startOf(pid_t pid);

    /// Whether any process of the group still runs; zombies do not. Nothing when the processes
    /// cannot be listed.
    static std::optional<bool> hasLivingMember(pid_t group);
};

} // namespace nq
