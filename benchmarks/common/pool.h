#pragma once

#include "benchmarks/common/job.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace bench {

/// Jobs that a queueing pool holds beyond one for each worker: enough that no worker ever waits for
/// the host to think of another.
constexpr std::size_t jobsAhead = 2;

struct PoolOptions {
    std::size_t workers;
    std::string workerExecutable;
    bool movesJobs;     // into the queue instead of copying them; a pool without a queue ignores it
    bool isObserved;    // the library alone knows observers
    bool waitsInEpoll;  // the host, on the descriptor of a pool that has one
    bool isPlainWorker; // the worker knows nothing of the pool library
    std::string shown;  // a file that the pool library shows itself in: trace, timeline or status
    std::string folder; // where that is
};

/// A pool of worker processes; implemented bare, by hand, and with the library. Destruction ends
/// the workers.
class Pool {
public:
    virtual ~Pool() = default;

    /// Puts `count` jobs from the ledger through the pool, and each result back into it.
    virtual void run(Ledger& ledger, std::uint64_t count) = 0;
};

/// Each executable links one implementation.
std::unique_ptr<Pool> makePool(const PoolOptions& options);

} // namespace bench
