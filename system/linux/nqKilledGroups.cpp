#include "system/linux/nqKilledGroups.h"

#include <algorithm>
#include <cstddef>
#include <deque>
#include <mutex>

namespace nq {

namespace {

// Far more than one host replaces while a killed process takes to die, little enough to search.
constexpr std::size_t maxRemembered = 256;

struct Registry {
    std::mutex mMutex;
    std::deque<pid_t> mGroups;
};

Registry& registry()
{
    static Registry instance;
    return instance;
}

void forget(std::deque<pid_t>& groups, pid_t group)
{
    groups.erase(std::remove(groups.begin(), groups.end(), group), groups.end());
}

} // namespace

void nqKilledGroups::add(pid_t group)
{
    const std::lock_guard lock(registry().mMutex);
    std::deque<pid_t>& groups = registry().mGroups;
    forget(groups, group);
    groups.push_back(group);
    if (groups.size() > maxRemembered)
        groups.pop_front();
}

void nqKilledGroups::remove(pid_t group)
{
    const std::lock_guard lock(registry().mMutex);
    forget(registry().mGroups, group);
}

bool nqKilledGroups::contains(pid_t group)
{
    const std::lock_guard lock(registry().mMutex);
    const std::deque<pid_t>& groups = registry().mGroups;
    return std::find(groups.begin(), groups.end(), group) != groups.end();
}

} // namespace nq
