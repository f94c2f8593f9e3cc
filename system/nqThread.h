#pragma once

#include "nqExport.h"

#include <string>

namespace nq {

/// The calling thread. Nothing blocks, and only allocation throws.
class NQ_API nqThread {
public:
    /// The kernel's id of the calling thread, in decimal; the one that debuggers and /proc show.
    static std::string CurrentThreadId();

    /// Ends the calling thread here if it has been cancelled and may be. The stack is unwound by an
    /// exception that no handler may swallow.
    static void EndIfCancelled();

    /// Holds off pthread_cancel() for the calling thread for as long as it lives; a cancellation
    /// requested meanwhile acts at the thread's next cancellation point afterwards. May be nested.
    ///
    /// Cancellation unwinds the stack like an exception: out of a noexcept function it would end
    /// the whole process, and in the middle of a transfer it would lose bytes.
    class NQ_API Uncancellable {
    public:
        Uncancellable();
        ~Uncancellable();
        Uncancellable(const Uncancellable&) = delete;
        Uncancellable& operator=(const Uncancellable&) = delete;

    private:
        int mStateBefore = 0;
    };
};

} // namespace nq
