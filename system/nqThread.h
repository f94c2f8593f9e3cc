#pragma once

#include "nqExport.h"

#include <string>

namespace nq {

/// The calling thread. Nothing blocks, and only allocation throws.
class NQ_API nqThread {
public:
    /// The kernel's id of the calling thread, in decimal; the one that debuggers and /proc show.
    static std::string CurrentThreadId();

    /// Ends the calling thread here if it has been cancelled and may be: the stack is unwound, by
    /// something that no handler may keep.
    static void EndIfCancelled();

    /// Keeps pthread_cancel() from acting on the calling thread for as long as it lives; what was
    /// asked for meanwhile acts at the thread's next cancellation point afterwards. May be nested.
    ///
    /// Cancellation unwinds the stack like an exception. In a function that lets no exception out
    /// it would end the whole process, and in the middle of a transfer it would lose what has been
    /// moved.
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
