#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace nq {

/// Quantiles of any number of run times in bounded memory: each power of two is divided into eight
/// buckets of the same width, whose middle stands for all that is in them.
class nqRunTimes {
public:
    /// A negative time counts as none.
    void add(std::chrono::microseconds time);

    /// The time that the share `part` of all did not exceed, within a sixteenth; 0 when there is
    /// none. 0.5 asks for the median.
    std::chrono::microseconds quantile(double part) const;

    /// Exactly.
    std::chrono::microseconds longest() const;

private:
    static constexpr std::size_t bucketCount = 488; // 8 of each power that a time can have

    std::array<std::uint64_t, bucketCount> mCounts{};
    std::uint64_t mTotal = 0;
    std::uint64_t mLongest = 0; // microseconds
};

} // namespace nq
