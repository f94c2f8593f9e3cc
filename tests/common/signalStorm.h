#pragma once

#include <csignal>
#include <cstdint>

namespace common {

/// Raises SIGALRM each millisecond for as long as it lives. Its handler does nothing but count, and
/// cuts short whatever the process waits in.
class SignalStorm {
public:
    SignalStorm();
    ~SignalStorm();
    SignalStorm(const SignalStorm&) = delete;
    SignalStorm& operator=(const SignalStorm&) = delete;

    /// How many signals have been handled in the whole run.
    static std::uint64_t handled();

private:
    struct sigaction mBefore {};
};

} // namespace common
