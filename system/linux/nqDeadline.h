#pragma once

#include <chrono>
#include <cstdint>
#include <poll.h>

namespace nq {

/// When a wait ends, on the monotonic clock: a wait that a signal interrupts resumes with the time
/// left.
class nqDeadline {
public:
    /// No limit.
    nqDeadline() = default;

    /// `timeoutMs` milliseconds from now; already passed for 0 or less.
    explicit nqDeadline(std::int64_t timeoutMs);

    /// The earlier of this one and `timeoutMs` milliseconds from now.
    nqDeadline orIn(std::int64_t timeoutMs) const;

    bool hasPassed() const;

    /// As poll(), until the deadline, and not interrupted by signals.
    int poll(pollfd* descriptors, nfds_t count) const;

private:
    std::chrono::steady_clock::time_point mEnd = std::chrono::steady_clock::time_point::max();
};

} // namespace nq
