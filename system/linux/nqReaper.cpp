#include "system/linux/nqReaper.h"

#include <algorithm>
#include <mutex>
#include <new>
#include <pthread.h>
#include <vector>

namespace nq {

namespace {

/// Never destroyed: static objects of the host may own processes until the very end. A forked child
/// starts without any: what it copied are no children of its own, and another thread of the host
/// may have held the lock.
struct Leftovers {
    std::mutex mMutex;
    std::vector<nqChild> mChildren;

    Leftovers()
    {
        if (::pthread_atfork(lock, unlock, startAnew) != 0)
            throw std::bad_alloc();
    }

    static Leftovers& instance()
    {
        static auto* const leftovers = new Leftovers;
        return *leftovers;
    }

    static void lock()
    {
        instance().mMutex.lock();
    }
    static void unlock()
    {
        instance().mMutex.unlock();
    }
    static void startAnew()
    {
        instance().mChildren.clear();
        unlock();
    }
};

} // namespace

void nqReaper::takeOver(nqChild&& child) noexcept
{
    try {
        Leftovers& leftovers = Leftovers::instance();
        const std::lock_guard guard(leftovers.mMutex);
        leftovers.mChildren.push_back(std::move(child));
    } catch (const std::bad_alloc&) {
        // One zombie until the host ends, rather than the end of the host.
    }
}

void nqReaper::reapEnded() noexcept
{
    try {
        Leftovers& leftovers = Leftovers::instance();
        const std::lock_guard guard(leftovers.mMutex);
        std::vector<nqChild>& children = leftovers.mChildren;
        const auto ended = std::remove_if(
            children.begin(), children.end(), [](nqChild& child) { return child.reapIfEnded(); });
        children.erase(ended, children.end());
    } catch (const std::bad_alloc&) {
        // Without memory for the list there is nobody in it.
    }
}

} // namespace nq
