#pragma once

#include <csignal>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace nq {

// By the kernel's numbers: the C library has these names only since 2.36, and a program that
// imports one does not start with an older library.

/// For waitid(): the child that the pidfd refers to.
constexpr auto waitForPidfd = static_cast<idtype_t>(3);

/// A close-on-exec descriptor of the process, which stays its own when the pid is recycled; -1 with
/// errno when there is no such process or the kernel refuses.
inline int pidfdOpen(pid_t pid)
{
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
}

/// 0, or -1 with errno.
inline int pidfdSendSignal(int pidfd, int signal)
{
    return static_cast<int>(::syscall(SYS_pidfd_send_signal, pidfd, signal, nullptr, 0));
}

} // namespace nq
