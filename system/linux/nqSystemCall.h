#pragma once

#include <cerrno>

namespace nq {

/// Calls again for as long as a signal cuts the call short. Not for close(), which must never be
/// called twice, and not for waits with a time-out, which nqDeadline resumes with the time left.
template <typename Call>
auto retryOnSignal(Call call) -> decltype(call())
{
    decltype(call()) result;
    do
        result = call();
    while (result == -1 && errno == EINTR);
    return result;
}

} // namespace nq
