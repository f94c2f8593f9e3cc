#pragma once

#include <string>

namespace nq {

/// The calling thread. Nothing blocks, and only allocation throws.
class [[gnu::visibility("default")]] nqThread
{
public:
    /// The kernel's id of the calling thread, in decimal; the one that debuggers and /proc show.
    static std::string CurrentThreadId();
};

} // namespace nq
