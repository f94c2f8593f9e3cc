#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <sys/resource.h>
#include <sys/types.h>
#include <vector>

namespace nqrun {

/// Makes this process the one that orphaned descendants are handed to, so that none of them can
/// get away, by a double fork or a session of its own. False when the kernel refuses.
bool adoptOrphans();

/// The processes that one has started itself and not reaped, as /proc shows them now.
std::vector<pid_t> childrenOf(pid_t process);

/// All processes that `ancestor` has started, directly or not, as far as /proc shows them now.
/// Those that it has not reaped are among them.
std::vector<pid_t> descendantsOf(pid_t ancestor);

/// Bytes of resident memory of a process's descendants, and of itself with `withItself`. Pages that
/// they share count once as soon as the plain sum is above `enough`.
std::uint64_t residentMemory(pid_t ancestor, bool withItself, std::uint64_t enough);

/// Told each child that was reaped.
using OnReaped = std::function<void(pid_t child, int status, const rusage& usage)>;

/// Ends and reaps every descendant of this process, which has adopted orphans; returns once none is
/// left, or only such as may not be signalled (false).
///
/// They are stopped before they are killed, so that a family that forks without end cannot run away
/// from it. A process is only signalled through a descriptor that is known to mean it.
bool endDescendants(const OnReaped& onReaped);

/// Waits for all children of this process but `spared`, which it had before, and ends those that
/// take longer than `limit`. For a host: what is left are keepers, which end their commands.
void awaitOrphans(const std::vector<pid_t>& spared, std::chrono::milliseconds limit);

} // namespace nqrun
