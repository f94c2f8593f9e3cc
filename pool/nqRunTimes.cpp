#include "pool/nqRunTimes.h"

#include <algorithm>
#include <cmath>

namespace nq {

namespace {

constexpr std::uint64_t perPower = 8; // buckets; times below that many have one each

/// The power of two by which the times of a bucket differ at most.
unsigned shiftOf(std::uint64_t time)
{
    unsigned shift = 0;
    while ((time >> shift) >= 2 * perPower)
        ++shift;
    return shift;
}

std::size_t bucketOf(std::uint64_t time)
{
    const unsigned shift = shiftOf(time);
    return static_cast<std::size_t>(perPower * shift + (time >> shift));
}

/// The middle of all times that bucketOf() puts there.
std::uint64_t middleOf(std::size_t bucket)
{
    const std::uint64_t shift = bucket < 2 * perPower ? 0 : bucket / perPower - 1;
    const std::uint64_t first = (bucket - perPower * shift) << shift;
    return first + ((std::uint64_t{1} << shift) - 1) / 2;
}

} // namespace

void nqRunTimes::add(std::chrono::microseconds time)
{
    const auto counted = static_cast<std::uint64_t>(std::max(time, time.zero()).count());
    ++mCounts[bucketOf(counted)];
    ++mTotal;
    mLongest = std::max(mLongest, counted);
}

std::chrono::microseconds nqRunTimes::quantile(double part) const
{
    if (mTotal == 0)
        return {};
    const double rank = std::max(std::ceil(part * static_cast<double>(mTotal)), 1.0);
    std::size_t bucket = 0;
    std::uint64_t seen = mCounts[bucket];
    while (static_cast<double>(seen) < rank && bucket + 1 < bucketCount)
        seen += mCounts[++bucket];
    return std::chrono::microseconds(std::min(middleOf(bucket), mLongest));
}

std::chrono::microseconds nqRunTimes::longest() const
{
    return std::chrono::microseconds(mLongest);
}

} // namespace nq
