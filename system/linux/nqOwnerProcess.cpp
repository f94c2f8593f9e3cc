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
/// so its mark differs from those in the objects that it copied.
Mark usedMarks{none};

/// Holds the mark where the kernel cannot wipe memory in a child.
Mark ordinaryMark{none};

Mark& makeMark() noexcept
{
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    void* const memory =
        ::mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory != MAP_FAILED && ::madvise(memory, page, MADV_WIPEONFORK) == 0)
        return *new (memory) Mark(none);
    if (memory != MAP_FAILED)
        ::munmap(memory, page);
    return ordinaryMark; // before Linux 4.14
}

Mark& markPlace() noexcept
{
    static Mark& mark = makeMark();
    return mark;
}

void wipeMark()
{
    markPlace() = none;
}

/// Emulators of other processors accept the wish for a wiped page and do nothing about it. Without
/// the kernel's help, only a child whose fork runs no handlers is missed.
[[maybe_unused]] const int handlerAtLoad = ::pthread_atfork(nullptr, nullptr, wipeMark);

/// The mark of this process; a forked child gets its own here, at its first call.
std::uint64_t currentMark() noexcept
{
    Mark& mark = markPlace();
    std::uint64_t current = mark.load(std::memory_order_relaxed);
    if (current != none)
        return current;
    // Counted before it is stored: another thread may fork in between.
    const std::uint64_t fresh = ++usedMarks;
    return mark.compare_exchange_strong(current, fresh) ? fresh : current;
}

/// Made when the library is loaded, before another thread can fork in the middle of it.
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
