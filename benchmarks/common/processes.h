#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace bench {

/// The processes whose parent is this process. Reads all of /proc: never while time is taken.
std::vector<pid_t> children();

/// Processor time of another process, user and system, in nanoseconds.
std::int64_t cpuNanosecondsOf(pid_t pid);

/// Resident memory of a process in bytes.
std::uint64_t residentBytesOf(pid_t pid);

/// Restricts this process, and what it starts, to processors such as "0" or "0,1". An empty text
/// restricts nothing.
void useProcessors(const std::string& list);

/// Raises the number of descriptors that this process may open as far as the system allows.
void allowManyDescriptors();

/// Starts `executable` with one argument, by posix_spawn.
pid_t spawn(const std::string& executable, const std::string& argument);

} // namespace bench
