// Preloaded into a host and its workers: stands before the C library's functions through which the
// libraries enter the kernel, and lets chosen calls from chosen places fail or fall short.

#include "plan.h"

#include "tests/common/syscallArguments.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <ctime>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using faults::Action;
using faults::Verdict;

constexpr int anySelector = -1;
constexpr int noConnection = -1;

/// The C library's function of one name. Found when the shim is loaded, because the child between
/// vfork and exec must not search; found at the call only for who calls before that.
template <typename Function>
Function* found(Function*& function, const char* name)
{
    if (function == nullptr)
        function = reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
    return function;
}

/// Makes the call, or returns `failed` with the error number that the plan wants instead.
template <typename Result, typename Call>
Result perform(const Verdict& verdict, Result failed, Call call)
{
    if (verdict.mAction == Action::none || verdict.mAction == Action::shorten)
        return call();
    faults::noteInjection(verdict);
    if (verdict.mAction == Action::failAfter)
        call();
    errno = verdict.mValue;
    return failed;
}

/// What the kernel says of a connection that is gone, it says when the connection is gone.
void hangUp(const Verdict& verdict, int connection)
{
    if (verdict.mAction == Action::hangUp)
        ::shutdown(connection, SHUT_RDWR);
}

/// The length that the plan leaves of `size`.
size_t shortened(const Verdict& verdict, size_t size)
{
    if (verdict.mAction != Action::shorten)
        return size;
    faults::noteInjection(verdict);
    return static_cast<size_t>(verdict.mValue);
}

/// A child that somebody else has reaped is gone, and cannot be waited for; one that lives is not
/// disturbed.
template <typename Reap>
int reapForSomebodyElse(const Verdict& verdict, Reap hasReaped)
{
    if (!hasReaped())
        return 0;
    faults::noteInjection(verdict);
    errno = verdict.mValue;
    return -1;
}

} // namespace

// Macros, because the place of a call is known only in the very function that was called, and
// because the linker finds that function by its plain name.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define NQ_REAL(name)                                                                              \
    namespace {                                                                                    \
    decltype(::name)* name##Pointer = nullptr;                                                     \
    decltype(::name)* name##Real()                                                                 \
    {                                                                                              \
        return found(name##Pointer, #name);                                                        \
    }                                                                                              \
    [[maybe_unused]] const bool name##IsFound = name##Real() != nullptr;                           \
    }

#define NQ_VERDICT(selector) faults::verdictOn(__builtin_return_address(0), selector)

// A function whose only disturbance is to fail.
#define NQ_FAILING(name, selector, parameters, arguments, specifier)                               \
    NQ_REAL(name)                                                                                  \
    extern "C" int name parameters specifier                                                       \
    {                                                                                              \
        return perform(NQ_VERDICT(selector), -1, [&] { return name##Real() arguments; });          \
    }

// The same for one that does not return an int.
#define NQ_FAILING_WITH(failed, name, parameters, arguments, specifier)                            \
    NQ_REAL(name)                                                                                  \
    extern "C" decltype(failed) name parameters specifier                                          \
    {                                                                                              \
        return perform(NQ_VERDICT(anySelector), failed, [&] { return name##Real() arguments; });   \
    }

// A function that moves bytes, which can also move fewer than asked for.
#define NQ_MOVING(name, connection, parameters, arguments)                                         \
    NQ_REAL(name)                                                                                  \
    extern "C" ssize_t name parameters                                                             \
    {                                                                                              \
        const Verdict verdict = faults::verdictOn(__builtin_return_address(0), anySelector, size); \
        size = shortened(verdict, size);                                                           \
        hangUp(verdict, connection);                                                               \
        return perform(verdict, ssize_t{-1}, [&] { return name##Real() arguments; });              \
    }
// NOLINTEND(bugprone-macro-parentheses)

NQ_MOVING(
    getrandom, noConnection, (void* bytes, size_t size, unsigned int flags), (bytes, size, flags))
NQ_MOVING(pread, noConnection, (int fd, void* bytes, size_t size, off_t at), (fd, bytes, size, at))
NQ_MOVING(read, noConnection, (int fd, void* bytes, size_t size), (fd, bytes, size))
NQ_MOVING(recv, fd, (int fd, void* bytes, size_t size, int flags), (fd, bytes, size, flags))
NQ_MOVING(send, fd, (int fd, const void* bytes, size_t size, int flags), (fd, bytes, size, flags))
NQ_MOVING(write, noConnection, (int fd, const void* bytes, size_t size), (fd, bytes, size))

NQ_FAILING_WITH(
    MAP_FAILED,
    mmap,
    (void* at, size_t size, int protection, int flags, int fd, off_t offset),
    (at, size, protection, flags, fd, offset),
    noexcept)
NQ_FAILING_WITH(static_cast<DIR*>(nullptr), opendir, (const char* path), (path), )
NQ_FAILING_WITH(static_cast<dirent*>(nullptr), readdir, (DIR * folder), (folder), )
NQ_FAILING_WITH(
    ssize_t{-1},
    readlink,
    (const char* path, char* text, size_t size),
    (path, text, size),
    noexcept)

NQ_FAILING(
    accept4,
    anySelector,
    (int fd, sockaddr* peer, socklen_t* size, int flags),
    (fd, peer, size, flags), )
NQ_FAILING(access, anySelector, (const char* path, int mode), (path, mode), noexcept)
NQ_FAILING(
    bind, anySelector, (int fd, const sockaddr* at, socklen_t size), (fd, at, size), noexcept)
NQ_FAILING(chdir, anySelector, (const char* path), (path), noexcept)
NQ_FAILING(close, anySelector, (int fd), (fd), )
NQ_FAILING(
    close_range,
    anySelector,
    (unsigned int first, unsigned int last, int flags),
    (first, last, flags),
    noexcept)
NQ_FAILING(connect, anySelector, (int fd, const sockaddr* to, socklen_t size), (fd, to, size), )
NQ_FAILING(dup2, anySelector, (int from, int to), (from, to), noexcept)
NQ_FAILING(epoll_create1, anySelector, (int flags), (flags), noexcept)
NQ_FAILING(
    epoll_ctl,
    anySelector,
    (int set, int operation, int fd, epoll_event* event),
    (set, operation, fd, event),
    noexcept)
NQ_FAILING(eventfd, anySelector, (unsigned int count, int flags), (count, flags), noexcept)
NQ_FAILING(
    execve,
    anySelector,
    (const char* path, char* const* arguments, char* const* variables),
    (path, arguments, variables),
    noexcept)
NQ_FAILING(getpgid, anySelector, (pid_t pid), (pid), noexcept)
NQ_FAILING(
    getsockopt,
    name,
    (int fd, int level, int name, void* value, socklen_t* size),
    (fd, level, name, value, size),
    noexcept)
NQ_FAILING(kill, anySelector, (pid_t pid, int signal), (pid, signal), noexcept)
NQ_FAILING(listen, anySelector, (int fd, int backlog), (fd, backlog), noexcept)
NQ_FAILING(madvise, anySelector, (void* at, size_t size, int advice), (at, size, advice), noexcept)
NQ_FAILING(nanosleep, anySelector, (const timespec* time, timespec* left), (time, left), )
NQ_FAILING(pipe2, anySelector, (int* ends, int flags), (ends, flags), noexcept)
NQ_FAILING(
    poll, anySelector, (pollfd * watched, nfds_t count, int timeout), (watched, count, timeout), )
NQ_FAILING(
    ppoll,
    anySelector,
    (pollfd * watched, nfds_t count, const timespec* timeout, const sigset_t* mask),
    (watched, count, timeout, mask), )
NQ_FAILING(
    prlimit,
    anySelector,
    (pid_t pid, __rlimit_resource resource, const rlimit* wanted, rlimit* before),
    (pid, resource, wanted, before),
    noexcept)
NQ_FAILING(
    select,
    anySelector,
    (int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout),
    (count, readable, writable, exceptional, timeout), )
NQ_FAILING(
    setpriority,
    anySelector,
    (__priority_which_t which, id_t who, int niceness),
    (which, who, niceness),
    noexcept)
NQ_FAILING(
    setsockopt,
    name,
    (int fd, int level, int name, const void* value, socklen_t size),
    (fd, level, name, value, size),
    noexcept)
NQ_FAILING(setsid, anySelector, (), (), noexcept)
NQ_FAILING(shutdown, anySelector, (int fd, int how), (fd, how), noexcept)
NQ_FAILING(
    sigtimedwait,
    anySelector,
    (const sigset_t* signals, siginfo_t* info, const timespec* timeout),
    (signals, info, timeout), )
NQ_FAILING(socket, anySelector, (int domain, int type, int kind), (domain, type, kind), noexcept)
NQ_FAILING(
    socketpair,
    anySelector,
    (int domain, int type, int kind, int* ends),
    (domain, type, kind, ends),
    noexcept)

NQ_FAILING(stat, anySelector, (const char* path, struct stat* file), (path, file), noexcept)

NQ_REAL(getcwd)
NQ_REAL(waitid)
NQ_REAL(waitpid)
NQ_REAL(fcntl)
NQ_REAL(open)
NQ_REAL(syscall)

extern "C" {

char* getcwd(char* path, size_t size) noexcept
{
    return perform(NQ_VERDICT(anySelector), static_cast<char*>(nullptr), [&] {
        return getcwdReal()(path, size);
    });
}

int waitid(idtype_t kind, id_t id, siginfo_t* info, int options)
{
    const Verdict verdict = NQ_VERDICT(anySelector);
    const auto wait = [&] { return waitidReal()(kind, id, info, options); };
    if (verdict.mAction != Action::failAfter)
        return perform(verdict, -1, wait);
    return reapForSomebodyElse(verdict, [&] { return wait() == 0 && info->si_pid != 0; });
}

pid_t waitpid(pid_t pid, int* status, int options)
{
    const Verdict verdict = NQ_VERDICT(anySelector);
    const auto wait = [&] { return waitpidReal()(pid, status, options); };
    if (verdict.mAction != Action::failAfter)
        return perform(verdict, pid_t{-1}, wait);
    return reapForSomebodyElse(verdict, [&] { return wait() > 0; });
}

// Those without a fixed list of arguments hand on as many as any operation takes: what nobody has
// passed is in a register all the same, and nobody looks at it.

int fcntl(int fd, int operation, ...)
{
    va_list list;
    va_start(list, operation);
    void* argument = va_arg(list, void*);
    va_end(list);
    return perform(NQ_VERDICT(operation), -1, [&] { return fcntlReal()(fd, operation, argument); });
}

int open(const char* path, int flags, ...)
{
    va_list list;
    va_start(list, flags);
    const auto mode = va_arg(list, mode_t);
    va_end(list);
    return perform(NQ_VERDICT(anySelector), -1, [&] { return openReal()(path, flags, mode); });
}

long syscall(long number, ...) noexcept
{
    va_list list;
    va_start(list, number);
    const common::SyscallArguments arguments(list);
    va_end(list);
    const Verdict verdict = NQ_VERDICT(static_cast<int>(number));
    const auto call = [&] { return arguments.callWith(syscallReal(), number); };
    if (number != SYS_waitid || verdict.mAction != Action::failAfter)
        return perform(verdict, -1L, call);
    const auto* const info = arguments.pointer<siginfo_t>(2);
    return reapForSomebodyElse(verdict, [&] { return call() == 0 && info->si_pid != 0; });
}

// The C library keeps this one for its own pthread_atfork, which is linked into each library.
using ForkHandler = void (*)();
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name is the C library's.
int __register_atfork(
    ForkHandler prepare, ForkHandler inParent, ForkHandler inChild, void* library) noexcept;
}

NQ_REAL(__register_atfork)

extern "C" int __register_atfork(
    ForkHandler prepare, ForkHandler inParent, ForkHandler inChild, void* library) noexcept
{
    const Verdict verdict = NQ_VERDICT(anySelector);
    return perform(verdict, verdict.mValue, [&] {
        return __register_atforkReal()(prepare, inParent, inChild, library);
    });
}

// A function that calls vfork must not return before its child has called exec, since both run on
// one stack. So this one only jumps there, after a look at the plan.
NQ_REAL(vfork)

extern "C" {

// Found from the assembly below by these very names.
[[gnu::visibility("hidden")]] void* nqRealVfork();
[[gnu::visibility("hidden")]] int nqVforkFails(const void* returnAddress);

void* nqRealVfork()
{
    return reinterpret_cast<void*>(vforkReal());
}

int nqVforkFails(const void* returnAddress)
{
    const Verdict verdict = faults::verdictOn(returnAddress, anySelector);
    return perform(verdict, -1, [] { return 0; });
}
}

asm(R"(
    .text
    .globl vfork
    .type vfork, @function
vfork:
    movq (%rsp), %rdi
    subq $8, %rsp
    call nqVforkFails
    testl %eax, %eax
    jnz 1f
    call nqRealVfork
    addq $8, %rsp
    jmp *%rax
1:  addq $8, %rsp
    ret
    .size vfork, . - vfork
)");
