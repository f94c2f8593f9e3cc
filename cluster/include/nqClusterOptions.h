#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace nq {

/// What a pool over several machines is told once besides nqPoolOptions.
struct nqClusterOptions {
    /// Who submits. A program that comes back with the same name takes up the outcomes that wait
    /// for the one before it; of two at the same time, the later one has it. Empty: a name of its
    /// own, and nobody takes up what is left.
    std::string client;

    /// A file that holds the password. Empty: that of the environment variable
    /// `NQ_REDIS_PASSWORD_FILE`, or the password in `NQ_REDIS_PASSWORD`, or none.
    std::string passwordFile;

    /// Bytes at most of jobs that have no outcome yet; then a pool is full as with
    /// nqPoolOptions::maxPendingJobs. One job alone may be larger. 0: no bound.
    std::size_t maxPendingBytes = std::size_t{256} << 20;

    /// How long outcomes are kept that nobody takes, after this pool has ended. A second at least.
    std::chrono::milliseconds outcomesKept{std::chrono::hours(24)};

    std::chrono::milliseconds connectTimeout{5'000}; ///< of one try to reach Redis

    /// A connection over which no byte comes, although an answer is due, is replaced after this.
    std::chrono::milliseconds stallTimeout{5'000};
};

} // namespace nq
