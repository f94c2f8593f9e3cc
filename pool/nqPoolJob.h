#pragma once

#include "pool/include/nqPool.h"
#include "pool/nqPoolClock.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace nq {

/// What only some jobs have.
struct nqJobDetails {
    nqJobOptions options;
    std::vector<nqAttempt> earlierAttempts;
    std::chrono::microseconds queued{}; ///< before the first of them
};

/// A job on its way through a pool. Millions of them may wait, so it is small.
struct nqPoolJob {
    static constexpr nqJobId largestId = ~nqJobId{0} >> 1;

    std::uint64_t id : 63;
    std::uint64_t isGone : 1; ///< an entry of the queue that has been taken out of turn
    std::vector<char> bytes;
    nqPool::Callback callback;
    nqPoolClock::TimePoint submitted;
    std::unique_ptr<nqJobDetails> details; ///< null for an ordinary job

    nqPoolJob()
        : id(0),
          isGone(0)
    {
    }

    /// Of the attempt that it waits for or is at, those of the host included; from 1.
    std::size_t attemptNumber() const
    {
        return details == nullptr ? 1
                                  : details->options.hostAttempt + details->earlierAttempts.size();
    }

    /// Rather than a further attempt of the host's.
    bool isOfItsOwn() const
    {
        return details == nullptr || details->options.hostAttempt <= 1;
    }

    /// Whether the host submits it again should it fail.
    bool isSubmittedAgain() const
    {
        return details != nullptr && details->options.hostAttempt < details->options.hostAttempts;
    }

    nqJobDetails& ownDetails()
    {
        if (details == nullptr)
            details = std::make_unique<nqJobDetails>();
        return *details;
    }
};

} // namespace nq
