#pragma once

#include <chrono>
#include <cstdint>
#include <poll.h>

namespace nq {

/// The end of a wait, on the monotonic clock, so that a wait cut short by a signal resumes with the
/// time left.
class nqDeadline {
public:
    /// No limit.
    nqDeadline() = default;

    /// `timeoutMs` milliseconds from now; 0 or less has passed already.
    explicit nqDeadline(std::int64_t timeoutMs);

    /// This one, or one `timeoutMs` milliseconds from now if that comes first.
    nqDeadline orIn(std::int64_t timeoutMs) const;

    bool hasPassed() const;

    /// poll() until something is reported or the deadline is there. Returns what poll() returned
    /// last, never -1 for a signal.
    int poll(pollfd* descriptors, nfds_t count) const;

private:
    std::chrono::steady_clock::time_point mEnd = std::chrono::steady_clock::time_point::max();
};

} // namespace nq
