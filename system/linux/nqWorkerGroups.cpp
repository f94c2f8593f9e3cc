#include "system/linux/nqWorkerGroups.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace nq {

namespace {

enum class Standing : std::uint32_t {
    unknown,   // not ours, or forgotten
    started,   // may connect
    connected, // has done so
    ended,     // may not connect any more
};

// A group and its standing in one word, so that both change at once.
std::uint64_t entryOf(pid_t group, Standing standing)
{
    return std::uint64_t{static_cast<std::uint32_t>(group)} << 32 |
           static_cast<std::uint32_t>(standing);
}

// A group's place follows from its number, so a number that is used again takes the place of its
// former self. Two groups that meet in one place make the server forget the older, no more.
constexpr std::size_t places = 4096;
std::array<std::atomic<std::uint64_t>, places> entries{};

std::atomic<std::uint64_t>& placeOf(pid_t group)
{
    return entries[static_cast<std::uint32_t>(group) % places];
}

} // namespace

void nqWorkerGroups::started(pid_t group)
{
    placeOf(group) = entryOf(group, Standing::started);
}

void nqWorkerGroups::ended(pid_t group)
{
    placeOf(group) = entryOf(group, Standing::ended);
}

bool nqWorkerGroups::admits(pid_t group)
{
    std::uint64_t expected = entryOf(group, Standing::started);
    if (placeOf(group).compare_exchange_strong(expected, entryOf(group, Standing::connected)))
        return true;
    return expected != entryOf(group, Standing::connected) &&
           expected != entryOf(group, Standing::ended);
}

} // namespace nq
