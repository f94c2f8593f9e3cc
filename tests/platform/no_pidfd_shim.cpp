// Preloaded into the process tests, so that they run as on a kernel, or in a sandbox, that refuses
// pidfds and knows no close_range.
#include "tests/common/syscallArguments.h"

#include <cerrno>
#include <cstdarg>
#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

using SystemCall = decltype(::syscall);

SystemCall* realSystemCall()
{
    return reinterpret_cast<SystemCall*>(::dlsym(RTLD_NEXT, "syscall"));
}

// Found when the shim is loaded, because the child between vfork and exec must not search.
SystemCall* const systemCall = realSystemCall();

int refuse()
{
    errno = ENOSYS;
    return -1;
}

} // namespace

extern "C" {

int close_range(unsigned int, unsigned int, int) noexcept
{
    return refuse();
}

long syscall(long number, ...) noexcept
{
    if (number == SYS_pidfd_open || number == SYS_pidfd_send_signal)
        return refuse();
    va_list list;
    va_start(list, number);
    const common::SyscallArguments arguments(list);
    va_end(list);
    // Who calls before the shim is initialised runs no vfork.
    SystemCall* const call = systemCall != nullptr ? systemCall : realSystemCall();
    return arguments.callWith(call, number);
}
}
