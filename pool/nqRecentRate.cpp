#include "pool/nqRecentRate.h"

#include <algorithm>

namespace nq {

namespace {

using Slots = std::chrono::duration<std::int64_t, std::deci>;

std::int64_t slotOf(nqRecentRate::Clock::time_point time)
{
    return std::chrono::floor<Slots>(time.time_since_epoch()).count();
}

std::size_t indexOf(std::int64_t slot, std::size_t slots)
{
    return static_cast<std::size_t>(slot) % slots;
}

} // namespace

void nqRecentRate::add(Clock::time_point now)
{
    constexpr auto slots = static_cast<std::int64_t>(slotCount);
    const std::int64_t current = slotOf(now);
    for (std::int64_t slot = std::max(mLatest + 1, current - slots + 1); slot <= current; ++slot)
        mCounts[indexOf(slot, slotCount)] = 0;
    mLatest = std::max(mLatest, current);
    ++mCounts[indexOf(mLatest, slotCount)];
}

double nqRecentRate::perSecond(Clock::time_point now, Clock::time_point since) const
{
    constexpr auto slots = static_cast<std::int64_t>(slotCount);
    const std::int64_t first = std::max<std::int64_t>(slotOf(now) - slots + 1, 0);
    std::uint64_t count = 0;
    for (std::int64_t slot = std::max(first, mLatest - slots + 1); slot <= mLatest; ++slot)
        count += mCounts[indexOf(slot, slotCount)];

    const Clock::time_point begin = std::max(since, Clock::time_point(Slots(first)));
    const std::chrono::duration<double> seconds = now - begin;
    return seconds.count() > 0 ? static_cast<double>(count) / seconds.count() : 0;
}

} // namespace nq
