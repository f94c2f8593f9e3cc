#pragma once

#include "nqExport.h"

#include <cstdint>
#include <string>

namespace nq {

/// Small services of the machine and the process. Any thread may call; what may block or fail says
/// so.
class NQ_API nqSystemUtils {
public:
    /// A fresh random UUID (version 4) in lower-case hexadecimal, from the kernel's random source:
    /// 36 characters with hyphens, 32 without. Throws std::system_error when the kernel gives no
    /// random bytes, because a predictable pipe name is worse than no scheduler. Blocks only while
    /// the machine boots and the kernel has no random bytes yet.
    static std::string CreateUuid(bool withHyphens);

    /// The number of hardware threads that are online, at least 1.
    static int GetIdealThreadCount();

    /// Milliseconds of wall time since 1970-01-01T00:00:00Z. Meant for stamps, never for deadlines.
    static std::uint64_t GetMSecElapsedSinceEpoch();

    /// Returns freed memory that the allocator keeps to the kernel. Takes longer the more there is:
    /// call it when idle. By itself, the allocator returns nothing below a block in use: a worker
    /// whose hook kept 64 KiB from each of eight jobs of 16 MiB idled at 4 MiB with this call, and
    /// at 36 MiB without it.
    static void ReleaseFreeMemory();
};

} // namespace nq
