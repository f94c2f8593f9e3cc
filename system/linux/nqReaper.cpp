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

    // They are children of its parent.
    void resetInChild()
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
        // Better a zombie until the host ends than an exception out of a destructor.
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
        // The list could not even be made, so it is empty.
    }
}

} // namespace nq
