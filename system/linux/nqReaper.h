#pragma once

#include "system/linux/nqChild.h"

namespace nq {

/// Killed children whose owner is gone, but which the kernel could not end in time: a process in
/// uninterruptible sleep dies only when its device answers. Any thread may call.
class nqReaper {
public:
    static void takeOver(nqChild&& child) noexcept;

    /// Reaps those that have ended, without waiting.
    static void reapEnded() noexcept;
};

} // namespace nq
