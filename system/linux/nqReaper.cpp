#include "system/linux/nqReaper.h"

#include <algorithm>
#include <mutex>
#include <vector>

namespace nq {

namespace {

struct Leftovers {
    std::mutex mMutex;
    std::vector<nqChild> mChildren;
};

// Never destroyed: static objects of the host may own processes until the very end.
Leftovers& leftovers()
{
    static auto* const instance = new Leftovers;
    return *instance;
}

} // namespace

void nqReaper::takeOver(nqChild&& child)
{
    const std::lock_guard lock(leftovers().mMutex);
    leftovers().mChildren.push_back(std::move(child));
}

void nqReaper::reapEnded()
{
    const std::lock_guard lock(leftovers().mMutex);
    std::vector<nqChild>& children = leftovers().mChildren;
    const auto ended = std::remove_if(
        children.begin(), children.end(), [](nqChild& child) { return child.hasEnded(); });
    children.erase(ended, children.end());
}

} // namespace nq
