#include "system/linux/nqReaper.h"

#include "system/linux/nqForkSafe.h"

#include <algorithm>
#include <new>
#include <utility>
#include <vector>

namespace nq {

namespace {

struct Leftovers {
    std::vector<nqChild> mChildren;

    // What it copied are no children of its own.
    void inForkedChild()
    {
        mChildren.clear();
    }
};

} // namespace

void nqReaper::takeOver(nqChild&& child) noexcept
{
    try {
        nqForkSafe<Leftovers>::access()->mChildren.push_back(std::move(child));
    } catch (const std::bad_alloc&) {
        // One zombie until the host ends, rather than the end of the host.
    }
}

void nqReaper::reapEnded() noexcept
{
    try {
        const auto leftovers = nqForkSafe<Leftovers>::access();
        std::vector<nqChild>& children = leftovers->mChildren;
        const auto ended = std::remove_if(
            children.begin(), children.end(), [](nqChild& child) { return child.reapIfEnded(); });
        children.erase(ended, children.end());
    } catch (const std::bad_alloc&) {
        // Without memory for the list there is nobody in it.
    }
}

} // namespace nq
