#pragma once

#include <cstdint>

/// What this process has asked of the kernel and of the allocator so far. The program that links
/// counts.cpp counts the calls of the shared libraries too, since theirs resolve to its functions.
namespace cost {

struct Counts {
    std::uint64_t mMessageCalls = 0; // send and recv
    std::uint64_t mWaitCalls = 0;    // select, ppoll and poll, of those that may sleep
    std::uint64_t mLooks = 0;        // the same with no time to sleep
    std::uint64_t mAllocations = 0;
};

inline Counts operator-(const Counts& left, const Counts& right)
{
    return {
        left.mMessageCalls - right.mMessageCalls,
        left.mWaitCalls - right.mWaitCalls,
        left.mLooks - right.mLooks,
        left.mAllocations - right.mAllocations};
}

Counts counts();

} // namespace cost
