// Preloaded into the process tests, so that they run as on a kernel, or in a sandbox, that refuses
// pidfds and knows no close_range.

#include <cerrno>
#include <sys/types.h>

extern "C" {

int pidfd_open(pid_t, unsigned int) noexcept
{
    errno = ENOSYS;
    return -1;
}

int close_range(unsigned int, unsigned int, int) noexcept
{
    errno = ENOSYS;
    return -1;
}
}
