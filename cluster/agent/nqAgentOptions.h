#pragma once

#include "pool/include/nqPoolOptions.h"

#include <chrono>
#include <optional>
#include <string>

namespace nq {

/// What an agent is told on its command line.
struct nqAgentOptions {
    std::string redis;
    std::string queue;
    std::string passwordFile;
    std::string name; ///< empty: one that no other has
    std::chrono::milliseconds lease{10'000};
    std::optional<std::size_t> prefetch; ///< not set: by how fast jobs end
    std::string metrics;                 ///< a file; empty: none
    nqPoolOptions pool;
    bool isStatusWanted = false;

    /// Throws nqPoolError for what cannot be understood. Empty: help was asked for, and printed.
    static std::optional<nqAgentOptions> parse(int argc, char* argv[]);
};

} // namespace nq
