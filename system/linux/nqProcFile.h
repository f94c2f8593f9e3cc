#pragma once

#include <cstdint>
#include <optional>
#include <sys/types.h>
#include <tuple>

namespace nq {

/// When a process was forked, to tell which of two is older.
struct nqStart {
    std::uint64_t mTicks; // of 10 ms since the machine was booted
    pid_t mPid;           // within a tick, numbers go up

    friend bool operator<(const nqStart& left, const nqStart& right)
    {
        return std::tie(left.mTicks, left.mPid) < std::tie(right.mTicks, right.mPid);
    }
};

/// What /proc tells about processes. Nothing, where it is not mounted or shows the processes of
/// another PID namespace, whose numbers would mean other processes here.
///
/// Answers are about a number. Whoever holds no child or pidfd behind it must ask afterwards
/// whether the process that was meant still lives.
class nqProcFile {
public:
    static std::optional<nqStart> startOf(pid_t pid);

    /// Whether any process of the group can still run; one that has ended and was not reaped
    /// cannot. Nothing when the processes cannot be listed.
    static std::optional<bool> hasLivingMember(pid_t group);
};

} // namespace nq
