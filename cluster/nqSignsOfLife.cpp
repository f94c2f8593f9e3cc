#include "cluster/nqSignsOfLife.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace nq {

namespace {

constexpr std::int64_t looksInALease = 5;
constexpr std::int64_t leastGapsInALease = 4;           // between two looks, however far apart
constexpr std::chrono::milliseconds shortestLease{200}; // whatever a message says
constexpr std::chrono::milliseconds longestInterval{1'000};

std::chrono::milliseconds leaseOf(std::string_view value)
{
    std::int64_t lease = 0;
    for (const char digit : value) {
        if (digit < '0' || digit > '9' || lease > 1'000'000'000)
            break;
        lease = lease * 10 + (digit - '0');
    }
    return std::max(shortestLease, std::chrono::milliseconds(lease));
}

std::string inSeconds(std::chrono::milliseconds time)
{
    const std::int64_t tenths = time.count() / 100;
    return std::to_string(tenths / 10) + '.' + std::to_string(tenths % 10) + " s";
}

} // namespace

std::string nqSignsOfLife::valueOf(std::chrono::milliseconds lease, std::uint64_t count)
{
    return std::to_string(lease.count()) + ' ' + std::to_string(count);
}

// Between two looks that are far apart, Redis may have been away, and everybody's value stood
// still; or this process was stopped. So no such gap counts for more than a part of a lease: when
// all is back, there is enough left to come round in. Who looks rarely still finds out, after some
// looks.
std::vector<nqSignsOfLife::Lost>
nqSignsOfLife::look(const nqRedisReply& agents, TimePoint asked, TimePoint now)
{
    std::chrono::milliseconds shortest = longestInterval * looksInALease;
    for (std::size_t i = 0; i + 1 < agents.size(); i += 2)
        shortest = std::min(shortest, leaseOf(agents[i + 1].text()));
    const TimePoint before = std::exchange(mLastAsked, asked);
    mInterval = shortest / looksInALease;

    mIsAnyoneLate = false;
    for (auto& [name, seen] : mSeen)
        seen.isThere = false;
    std::vector<Lost> lost;
    for (std::size_t i = 0; i + 1 < agents.size(); i += 2) {
        const std::string name(agents[i].text());
        const std::string_view value = agents[i + 1].text();
        Seen& seen = mSeen[name];
        if (std::exchange(seen.isThere, true))
            continue;
        seen.isAlive = seen.value != value && !seen.value.empty();
        if (seen.value != value) {
            seen.value = value;
            seen.since = now;
            seen.counted = {};
            continue;
        }
        const std::chrono::milliseconds lease = leaseOf(value);
        const TimePoint::duration longestGap = lease / leastGapsInALease;
        seen.counted +=
            std::clamp<TimePoint::duration>(asked - std::max(before, seen.since), {}, longestGap);
        mIsAnyoneLate = mIsAnyoneLate || seen.counted > longestGap;
        const auto silent =
            std::chrono::duration_cast<std::chrono::milliseconds>(asked - seen.since);
        if (seen.counted >= lease)
            lost.push_back(
                {name,
                 seen.value,
                 "agent " + name + " was lost, " + inSeconds(silent) +
                     " after its last sign of life"});
    }
    for (auto each = mSeen.begin(); each != mSeen.end();)
        each = each->second.isThere ? std::next(each) : mSeen.erase(each);
    return lost;
}

std::vector<std::string> nqSignsOfLife::suspects() const
{
    std::vector<std::string> names;
    for (const auto& [name, seen] : mSeen) {
        if (!seen.isAlive)
            names.push_back(name);
    }
    return names;
}

} // namespace nq
