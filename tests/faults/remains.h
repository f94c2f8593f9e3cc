#pragma once

#include <string>

/// The processes that a host could leave behind.
namespace faults {

/// Makes this process the parent of whatever its descendants leave behind.
void adoptOrphans();

/// Waits for the end of every orphan, without limit: the caller's watchdog ends a wait for one that
/// stays. Returns what is wrong: children of our own that nobody has reaped, "" if there are none.
std::string reapOrphans();

} // namespace faults
