"""What every call by which the libraries enter the kernel can suffer.

FAULTS is searched for the most exact key first: "call:SELECTOR@function", then "call:SELECTOR" for a
call that chooses its operation by a number, then "call@function" for a call inside one function of
the libraries, then "call". The errors are those of the calls' manual pages that a library can meet without being at
fault itself, and those of a sandbox or a security module.
"""

import errno
from dataclasses import dataclass

# What a host may notice of a fault that strikes once.
TRANSPARENT = "transparent"  # nothing: every launch succeeds, every job is answered
COSTLY = "costly"  # one launch or one worker, and what that worker was doing


@dataclass(frozen=True)
class Fault:
    action: str  # as in plan.h
    value: int  # error number or length
    name: str
    tolerance: str
    lasts: tuple  # False: strikes once; True: strikes at every call from some call on


def ways(lasts):
    return (False, True) if lasts else (False,)


def transparent(*names, lasts=False):
    return [Fault("fail", getattr(errno, name), name, TRANSPARENT, ways(lasts)) for name in names]


def costly(*names, lasts=False):
    return [Fault("fail", getattr(errno, name), name, COSTLY, ways(lasts)) for name in names]


def after(*names):
    """The call does its work and then reports an error."""
    return [
        Fault("fail-after", getattr(errno, name), name, TRANSPARENT, ways(False)) for name in names
    ]


def reaped_by_host():
    """A host that reaps every child does so all the time."""
    return [Fault("fail-after", errno.ECHILD, "ECHILD", TRANSPARENT, (True,))]


def hang_up(*names):
    """The connection is gone for both of its ends, and the call says so."""
    return [Fault("hang-up", getattr(errno, name), name, COSTLY, ways(False)) for name in names]


def short(*lengths, lasting=()):
    return [
        Fault("shorten", length, f"short-{length}", TRANSPARENT, ways(length in lasting))
        for length in sorted({*lengths, *lasting})
    ]


NO_DESCRIPTOR = costly("EMFILE", "ENFILE", lasts=True)
NO_MEMORY = costly("ENOMEM", lasts=True)
NO_PIDFD = transparent("ENOSYS", "EPERM", "EMFILE", "ENFILE", "ENOMEM", lasts=True)
# Around the frame header of four bytes, and around the sizes of the receiver's pieces.
LENGTHS = (1, 2, 3, 4, 5, 6, 7, 8, 9, 15, 16, 17, 63, 4095, 4096, 4097, 65535)

FAULTS = {
    "__register_atfork": NO_MEMORY,
    "accept4": transparent("EINTR", "EAGAIN", "ECONNABORTED") + NO_DESCRIPTOR + NO_MEMORY
    + costly("ENOBUFS", "EPERM"),
    "access": transparent("ENOENT", "EIO", lasts=True),  # only words of a message depend on it
    "bind": costly("EADDRINUSE", "ENOMEM", "EACCES", lasts=True),
    "chdir": costly("EACCES", "ENOENT", "EIO", "ENOMEM"),
    # The descriptor is gone whatever close() reports.
    "close": after("EINTR", "EIO"),
    "close_range": transparent("ENOSYS", "EMFILE", "ENOMEM", "EPERM", lasts=True),
    "connect": transparent("EINTR")
    + costly("EAGAIN", "ECONNREFUSED", "ECONNRESET", "EACCES", "ENOMEM", lasts=True),
    "dup2": transparent("EINTR") + costly("EBUSY", "EMFILE"),
    # A host without the descriptor waits by the pump; an entry that is missing is tried again.
    "epoll_create1": transparent("EMFILE", "ENFILE", "ENOMEM", lasts=True),
    "epoll_ctl": transparent("ENOMEM", "ENOSPC", lasts=True),
    "eventfd": transparent("EMFILE", "ENFILE", "ENODEV", "ENOMEM", lasts=True),
    "execve": costly("E2BIG", "EACCES", "EAGAIN", "EIO", "EMFILE", "ENFILE", "ENOENT", "ENOMEM",
                     "ETXTBSY", lasts=True),
    # No descriptor rather than one among the standard streams.
    "fcntl:F_DUPFD_CLOEXEC": costly("EMFILE", "EINVAL", lasts=True),
    "fcntl:F_GETFD": transparent("EBADF"),  # the host runs with that stream closed
    "fcntl:F_SETFD": transparent("EBADF"),  # a number that nobody uses
    "fcntl:F_SETFL": costly("EPERM", "EAGAIN"),
    "fcntl:F_SETOWN": costly("EPERM", "ESRCH", "ENOMEM"),
    "fcntl:F_SETSIG": costly("EPERM", "EINVAL"),
    "getcwd": costly("ENOENT", "ENOMEM", "EACCES"),
    "getpgid": transparent("ESRCH", "EPERM", lasts=True),
    "getrandom": transparent("EINTR") + short(1, 2, 3, 7, 8, 15, lasting=(1,))
    + costly("ENOSYS", lasts=True),
    "getsockopt:SO_PEERCRED": costly("EACCES", "ENOMEM"),
    "getsockopt:SO_PEERPIDFD": transparent("ENOPROTOOPT", "EINVAL", "ESRCH", "EMFILE", "ENODATA",
                                           lasts=True),
    "kill": transparent("ESRCH", "EPERM"),
    "listen": costly("EADDRINUSE", "ENOMEM", lasts=True),
    # Without memory that the kernel wipes, a fork handler does it.
    "madvise": transparent("EINVAL", "ENOMEM", "EAGAIN", lasts=True),
    "mmap": transparent("ENOMEM", "EAGAIN", lasts=True),
    "nanosleep": transparent("EINTR"),
    "open": transparent("EINTR") + NO_DESCRIPTOR + NO_MEMORY + costly("EACCES", "ENOENT"),
    "pipe2": NO_DESCRIPTOR + NO_MEMORY,
    "poll": transparent("EINTR", "ENOMEM"),
    "ppoll": transparent("EINTR") + NO_MEMORY,
    # Tried again at the next look, so that a memory cap holds all the same.
    # Without them, stragglers are not told apart.
    "open@readStat": transparent("EINTR")
    + transparent("EMFILE", "ENFILE", "ENOMEM", "EACCES", "ENOENT", lasts=True),
    # Without it, a launch that has failed is waited for until its time is up.
    "opendir": transparent("EMFILE", "ENFILE", "ENOMEM", "EACCES", "ENOENT", lasts=True),
    "open@openMemoryStatistics": transparent("EINTR", "EMFILE", "ENFILE", "ENOMEM")
    + costly("EACCES", "ENOENT", lasts=True),
    # The file names a process that has ended meanwhile, or the kernel has no page for its text.
    "pread": transparent("EINTR") + costly("ESRCH", "ENOMEM", "EIO", lasts=True)
    + short(1, 2, 3, 4, 5, 8),
    "prlimit": transparent("EPERM", "ESRCH", lasts=True),
    "read": transparent("EINTR"),
    "read@readStat": transparent("EINTR") + transparent("ESRCH", "EIO", lasts=True),
    "readdir": transparent("ENOENT"),
    "readlink": transparent("EACCES", "ENOENT", "ENOMEM", lasts=True),
    "recv": transparent("EINTR", "EAGAIN", "ENOBUFS", "ENOMEM") + hang_up("ECONNRESET")
    + short(*LENGTHS, lasting=(3, 4095)),
    # One look at one byte, which decides whether a newcomer gets in.
    "recv@probeSilentHangUp": transparent("EINTR", "EAGAIN") + hang_up("ECONNRESET")
    + costly("ENOMEM", "ENOBUFS"),
    "select": transparent("EINTR", "ENOMEM", lasts=True),
    "send": transparent("EINTR", "EAGAIN", "ENOBUFS", "ENOMEM") + hang_up("EPIPE", "ECONNRESET")
    + short(*LENGTHS, lasting=(3, 4095)),
    "setpriority": transparent("EACCES", "EPERM", lasts=True),
    "setsockopt:SO_SNDBUF": transparent("ENOMEM", "ENOBUFS", lasts=True),
    "setsockopt:SO_SNDBUFFORCE": transparent("EPERM", "ENOMEM", "ENOBUFS", lasts=True),
    "setsid": costly("EPERM"),
    "shutdown": transparent("ENOTCONN"),
    "sigtimedwait": transparent("EINTR", "EAGAIN"),
    "socket": NO_DESCRIPTOR + NO_MEMORY + costly("ENOBUFS", "EACCES"),
    "socketpair": NO_DESCRIPTOR + NO_MEMORY + costly("ENOBUFS"),
    # The host has reaped the child before we could look.
    "stat": transparent("ENOENT", "EACCES", "EIO", lasts=True),  # only words of a message depend on it
    "syscall:SYS_pidfd_open": NO_PIDFD + transparent("ESRCH"),
    "syscall:SYS_pidfd_open@watchWith": NO_PIDFD + costly("ESRCH"),  # the peer has died
    "syscall:SYS_pidfd_send_signal": transparent("ESRCH", "EPERM", "ENOSYS", lasts=True),
    "vfork": costly("EAGAIN", "ENOMEM", "ENOSYS", lasts=True),
    # The host has reaped the child before we did.
    "syscall:SYS_waitid": transparent("EINTR") + reaped_by_host(),
    # Only looks at a child, at times when none of a pool's has ended.
    "waitid": transparent("EINTR"),
    "waitpid": transparent("EINTR") + reaped_by_host(),
    "write": transparent("EINTR", "EAGAIN") + costly("EIO", "ENOSPC", "EPIPE", "EBADF", lasts=True)
    + short(1, 2, 3, 20, lasting=(1,)),
    # Into an empty pipe whose other end is held.
    "write@runChild": transparent("EINTR"),
}

# Enters the kernel, perhaps, but cannot fail as the libraries call it.
CANNOT_FAIL = {
    "_exit": "does not return",
    "abort": "does not return",
    "closedir": "only for a stream that is not open",
    "clock_gettime": "only for a clock that does not exist",
    "fflush": "writes what the host has printed, whose errors are the host's",
    "geteuid": "always succeeds",
    "getpid": "always succeeds",
    "gettid": "always succeeds",
    "getpriority": "asks about the caller itself",
    "getrlimit": "asks for a limit that exists",
    "getrusage": "asks about the caller itself",
    "malloc_trim": "gives back what it can",
    "munmap": "only for memory that was never mapped",
    "localtime_r": "a zone that cannot be read is UTC",
    "pthread_mutex_lock": "a plain mutex that its own thread does not hold",
    "pthread_mutex_unlock": "held by the caller",
    "pthread_testcancel": "reports nothing",
    "pthread_sigmask": "only for an operation that does not exist",
    "sched_yield": "always succeeds",
    "sigpending": "only for memory that does not exist",
    "sysconf": "the C library has an answer to all questions",
    "syscall:SYS_rt_sigaction": "only for the two signals that nobody can change",
    "syscall:SYS_rt_sigprocmask": "only for an operation that does not exist",
    "syslog": "reports nothing, and the C library cares for its own socket",
}

# Never enters the kernel, but for memory.
PURE = {
    "_ITM_deregisterTMCloneTable",
    "_ITM_registerTMCloneTable",
    "_Unwind_Resume",
    "__environ",
    "__errno_location",
    "__fdelt_chk",
    "__gmon_start__",
    "__stack_chk_fail",
    "__tls_get_addr",
    "bcmp",
    "environ",
    "fileno",
    "free",
    "log10",
    "memchr",
    "memcmp",
    "memcpy",
    "memmove",
    "memset",
    "pow",
    "pthread_setcancelstate",
    "sigdescr_np",
    "sigaddset",
    "sigemptyset",
    "sigismember",
    "snprintf",
    "stdout",
    "strlen",
}
PURE_PREFIXES = ("_Z", "__cxa_", "__gxx_")  # the language's own

# The numbers by which calls choose their operation, as far as FAULTS and CANNOT_FAIL name them.
SELECTORS = {
    "fcntl": {"F_GETFD": 1, "F_SETFD": 2, "F_SETFL": 4, "F_SETOWN": 8, "F_SETSIG": 10, "F_DUPFD_CLOEXEC": 1030},
    "getsockopt": {"SO_PEERCRED": 17, "SO_PEERPIDFD": 77},
    "setsockopt": {"SO_SNDBUF": 7, "SO_SNDBUFFORCE": 32},
    "syscall": {
        "SYS_rt_sigaction": 13,
        "SYS_rt_sigprocmask": 14,
        "SYS_waitid": 247,
        "SYS_pidfd_send_signal": 424,
        "SYS_pidfd_open": 434,
    },
}


def calls():
    """The names of all functions that can suffer something."""
    return {key.split(":")[0].split("@")[0] for key in FAULTS}


def selector_name(call, number):
    """The name of a number, "" for a call without any, None for one that is not known."""
    if call not in SELECTORS:
        return ""
    return next((name for name, known in SELECTORS[call].items() if known == number), None)


def faults_of(call, selector, functions):
    """What a call inside `functions` can suffer; None for one that this table does not know."""
    exact = f"{call}:{selector}" if selector else call
    keys = [f"{exact}@{function}" for function in functions] + [exact]
    keys += [f"{call}@{function}" for function in functions] + [call]
    for key in keys:
        if key in FAULTS:
            return FAULTS[key]
        if key in CANNOT_FAIL:
            return []
    return None
