#pragma once

#include "system/nqThread.h"

#include <cerrno>

namespace nq {

/// Repeats a call that a signal interrupts. Not for close(), which must never be called twice, nor
/// for waits with a time-out, which nqDeadline resumes with the time left.
///
/// Holds off cancellation of the thread, which could strike after a call that succeeded and lose
/// its result, a descriptor or bytes.
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
