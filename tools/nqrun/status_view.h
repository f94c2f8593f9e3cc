#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <nqPoolStatus.h>
#include <string>

namespace nqrun {

/// Bytes of resident memory of a worker with all its children, looked up now.
using WorkerMemory = std::function<std::uint64_t(const nq::nqPoolWorkerStatus& worker)>;

/// The lines that `nqrun status` shows, each of at most `columns` (0: no limit).
std::string statusText(
    const nq::nqPoolStatus& status,
    std::chrono::system_clock::time_point now,
    bool isHostAlive,
    const WorkerMemory& memory,
    std::size_t columns);

/// Shows what the pool does that writes this file: on a terminal, refreshed in place until it ends
/// or Ctrl-C; elsewhere once. Returns the exit status. Throws Error.
int showStatus(const std::string& file);

} // namespace nqrun
