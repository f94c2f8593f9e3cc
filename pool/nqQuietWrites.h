#pragma once

#include <csignal>

namespace nq {

/// Keeps writes from raising signals in the calling thread for as long as it lives, without
/// touching the host's handlers: SIGPIPE, when nobody is left who reads, and SIGXFSZ, at the limit
/// of file sizes. What was pending before stays pending.
class nqQuietWrites {
public:
    nqQuietWrites();
    ~nqQuietWrites();
    nqQuietWrites(const nqQuietWrites&) = delete;
    nqQuietWrites& operator=(const nqQuietWrites&) = delete;

private:
    sigset_t mMine{}; // the others are pending, and therefore blocked already
    sigset_t mHostMask{};
};

} // namespace nq
