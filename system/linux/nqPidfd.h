#pragma once

#include <csignal>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace nq {

// By the kernel's numbers: the C library names these operations from 2.36 on only, and a program
// that imports such a name does not start with an older one.

/// For waitid(): the child that a pidfd means.
constexpr auto waitForPidfd = static_cast<idtype_t>(3);

/// A descriptor, close-on-exec, which means this process whatever becomes of its number; -1 with
/// errno where there is no such process or the kernel refuses.
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
