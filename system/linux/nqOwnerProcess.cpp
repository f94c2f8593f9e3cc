#include "system/nqOwnerProcess.h"

#include <atomic>
#include <cstddef>
#include <new>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

namespace nq {

namespace {

using Mark = std::atomic<std::uint64_t>;
static_assert(Mark::is_always_lock_free);

constexpr std::uint64_t none = 0;

/// How many marks this process and its ancestors have used. A child continues its parent's count,
/// so it never uses a mark that an object copied from there may hold.
Mark usedMarks{none};

/// Where the mark lives when the kernel cannot wipe memory in a child.
Mark ordinaryMark{none};

void wipeOrdinaryMark()
{
    ordinaryMark = none;
}

Mark& makeMark() noexcept
{
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    void* const memory =
        ::mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory != MAP_FAILED && ::madvise(memory, page, MADV_WIPEONFORK) == 0)
        return *new (memory) Mark(none);
    if (memory != MAP_FAILED)
        ::munmap(memory, page);
    // Before Linux 4.14: good for every child but one that skips the fork handlers.
    ::pthread_atfork(nullptr, nullptr, wipeOrdinaryMark);
    return ordinaryMark;
}

/// The mark of this process. It is none in a child until it makes, or asks, its first object.
std::uint64_t currentMark() noexcept
{
    static Mark& mark = makeMark();
    std::uint64_t current = mark.load(std::memory_order_relaxed);
    if (current != none)
        return current;
    // Counted first: another thread may fork between the two.
    const std::uint64_t fresh = ++usedMarks;
    return mark.compare_exchange_strong(current, fresh) ? fresh : current;
}

/// Made when the library is loaded, so that no fork can catch another thread at it.
[[maybe_unused]] const std::uint64_t markAtLoad = currentMark();

} // namespace

nqOwnerProcess::nqOwnerProcess() noexcept
    : mMark(currentMark())
{
}

bool nqOwnerProcess::isThisProcess() const noexcept
{
    return mMark == currentMark();
}

} // namespace nq
