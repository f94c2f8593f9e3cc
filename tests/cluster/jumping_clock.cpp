// Loaded into a program before its libraries: adds the seconds that the file named by
// NQ_CLOCK_OFFSET holds, in binary, to its wall clock. Allocates nothing, since a program's
// allocator may ask for the time.
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

std::int64_t offset()
{
    static const volatile std::int64_t* mapped = nullptr;
    if (mapped == nullptr) {
        const char* const path = ::getenv("NQ_CLOCK_OFFSET");
        const int file = path == nullptr ? -1 : ::open(path, O_RDONLY | O_CLOEXEC);
        if (file == -1)
            return 0;
        void* const memory = ::mmap(nullptr, sizeof(*mapped), PROT_READ, MAP_SHARED, file, 0);
        ::close(file);
        if (memory == MAP_FAILED)
            return 0;
        mapped = static_cast<const volatile std::int64_t*>(memory);
    }
    return *mapped;
}

} // namespace

extern "C" {

[[gnu::visibility("default")]] int clock_gettime(clockid_t clock, timespec* now) noexcept
{
    const long result = ::syscall(SYS_clock_gettime, clock, now);
    if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE))
        now->tv_sec += offset();
    return static_cast<int>(result);
}

[[gnu::visibility("default")]] int gettimeofday(timeval* now, void*) noexcept
{
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    now->tv_sec = time.tv_sec;
    now->tv_usec = time.tv_nsec / 1'000;
    return 0;
}

[[gnu::visibility("default")]] time_t time(time_t* now) noexcept
{
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    if (now != nullptr)
        *now = time.tv_sec;
    return time.tv_sec;
}
}
