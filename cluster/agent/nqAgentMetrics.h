#pragma once

#include "cluster/nqClusterWait.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace nq {

/// What an agent counts.
struct nqAgentCounts {
    std::uint64_t done = 0;
    std::uint64_t failed = 0;
    std::uint64_t handedBack = 0; ///< jobs that others shall run
    std::uint64_t dropped = 0;    ///< outcomes that nobody waited for any more
    std::uint64_t leasesLost = 0;
    std::uint64_t connectionsLost = 0;
    std::size_t held = 0;
    std::size_t running = 0;
    std::size_t workers = 0;
    double perSecond = 0; ///< of the last second or so
};

/// Writes counts into a file, in Prometheus's text format.
class nqAgentMetrics {
public:
    /// `path` empty: nowhere.
    nqAgentMetrics(std::string path, const std::string& queue, const std::string& agent);

    /// Replaces the file in one step, once a second at most. False when it cannot be written.
    bool write(const nqAgentCounts& counts, nqClusterClock::time_point now);

private:
    std::string mPath;
    std::string mLabels;
    nqClusterClock::time_point mNext;
};

} // namespace nq
