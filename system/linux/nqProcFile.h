#pragma once

#include <cstdint>
#include <optional>
#include <sys/types.h>

namespace nq {

/// What /proc tells about processes. Nothing, where it is not mounted or shows the processes of
/// another PID namespace, whose numbers would mean other processes here.
///
/// Answers are about a number. Whoever holds no child or pidfd behind it must ask afterwards
/// whether the process that was meant still lives.
class nqProcFile {
public:
    /// When the process was forked, in clock ticks (10 ms) since the machine was booted.
    static std::optional<std::uint64_t> startTicks(pid_t pid);

    /// Whether any process of the group can still run; one that has ended and was not reaped
    /// cannot. Nothing when the processes cannot be listed.
    static std::optional<bool> hasLivingMember(pid_t group);
};

} // namespace nq
