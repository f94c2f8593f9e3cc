#pragma once

#include "system/linux/nqChild.h"

namespace nq {

/// Children that were killed and whose owner is gone, but which the kernel could not end in time: a
/// process in uninterruptible sleep dies only when its device answers. Any thread may call.
class nqReaper {
public:
    static void takeOver(nqChild&& child) noexcept;

    /// Reaps, without waiting, those that have ended since.
    static void reapEnded() noexcept;
};

} // namespace nq
