#pragma once

#include "system/nqThread.h"

#include <cerrno>

namespace nq {

/// Calls again for as long as a signal cuts the call short. Not for close(), which must never be
/// called twice, and not for waits with a time-out, which nqDeadline resumes with the time left.
///
/// Cancellation of the thread has to wait: it acts after a call that succeeded as well, and would
/// lose what came of it, a descriptor or bytes.
template <typename Call>
auto retryOnSignal(Call call) -> decltype(call())
{
    const nqThread::Uncancellable untilReturned;
    decltype(call()) result;
    do
        result = call();
    while (result == -1 && errno == EINTR);
    return result;
}

} // namespace nq
