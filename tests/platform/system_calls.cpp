#include "tests/platform/system_calls.h"

#include "tests/common/syscallArguments.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace {

/// The C library's function behind one of those below.
template <typename Function>
Function* next(const char* name)
{
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

using Open = int(const char*, int, ...);
using SystemCall = long(long, ...);

// Found when the program is loaded, because the child between vfork and exec must not search.
auto* const realWrite = next<decltype(::write)>("write");
auto* const realSyscall = next<SystemCall>("syscall");

/// Asks `answer`, which is out of the way meanwhile.
template <typename Result, typename... Parameters, typename... Arguments>
std::optional<Result>
ask(std::function<std::optional<Result>(Parameters...)>& answer, Arguments&&... arguments)
{
    if (!answer)
        return std::nullopt;
    auto asked = std::exchange(answer, nullptr);
    const std::optional<Result> result = asked(std::forward<Arguments>(arguments)...);
    answer = std::move(asked);
    return result;
}

} // namespace

namespace system_calls {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

Answers& answers()
{
    static Answers all;
    return all;
}

int failWith(int error)
{
    errno = error;
    return -1;
}

SimulatedTime::SimulatedTime()
{
    answers().mClock = [this] {
        constexpr seconds start{1'000'000};
        mPassed += std::chrono::microseconds(1);
        const auto now = start + mPassed;
        const auto whole = std::chrono::duration_cast<seconds>(now);
        return timespec{
            static_cast<time_t>(whole.count()), static_cast<long>((now - whole).count())};
    };
    answers().mPpoll = [this](const pollfd* descriptors, nfds_t count, const timespec* limit) {
        if (limit == nullptr)
            std::abort(); // this wait would never end
        if (descriptors == nullptr && count != 0)
            return failWith(EFAULT);
        wait(seconds(limit->tv_sec) + nanoseconds(limit->tv_nsec));
        return 0;
    };
    answers().mPoll = [this](const pollfd&, int timeoutMs) {
        wait(milliseconds(timeoutMs));
        return 0;
    };
}

void SimulatedTime::wait(nanoseconds time)
{
    mPassed += time;
    if (time == nanoseconds(0))
        ++mLooks;
    else
        mSleeps.push_back(time);
}

} // namespace system_calls

using system_calls::answers;

extern "C" {

int poll(pollfd* descriptors, nfds_t count, int timeoutMs)
{
    static auto* const call = next<decltype(::poll)>("poll");
    if (descriptors != nullptr)
        if (const auto answer = ask(answers().mPoll, *descriptors, timeoutMs))
            return *answer;
    return call(descriptors, count, timeoutMs);
}

int ppoll(pollfd* descriptors, nfds_t count, const timespec* limit, const sigset_t* mask)
{
    static auto* const call = next<decltype(::ppoll)>("ppoll");
    if (const auto answer = ask(answers().mPpoll, descriptors, count, limit))
        return *answer;
    return call(descriptors, count, limit, mask);
}

int open(const char* path, int flags, ...)
{
    static auto* const call = next<Open>("open");
    if (const auto answer = ask(answers().mOpen, path, flags))
        return *answer;
    va_list list;
    va_start(list, flags);
    const unsigned int mode = (flags & O_CREAT) != 0 ? va_arg(list, unsigned int) : 0;
    va_end(list);
    return call(path, flags, mode);
}

int pipe2(int* ends, int flags) noexcept
{
    static auto* const call = next<decltype(::pipe2)>("pipe2");
    if (const auto answer = ask(answers().mPipe2, flags))
        return *answer;
    return call(ends, flags);
}

int close(int descriptor)
{
    static auto* const call = next<decltype(::close)>("close");
    if (const auto answer = ask(answers().mClose, descriptor))
        return *answer;
    return call(descriptor);
}

ssize_t write(int descriptor, const void* bytes, size_t size)
{
    if (const auto answer = ask(answers().mWrite, descriptor, bytes, size))
        return *answer;
    return realWrite(descriptor, bytes, size);
}

int getsockopt(int socket, int level, int option, void* value, socklen_t* size) noexcept
{
    static auto* const call = next<decltype(::getsockopt)>("getsockopt");
    if (const auto answer = ask(answers().mGetsockopt, option))
        return *answer;
    return call(socket, level, option, value, size);
}

int shutdown(int socket, int how) noexcept
{
    static auto* const call = next<decltype(::shutdown)>("shutdown");
    if (const auto answer = ask(answers().mShutdown))
        return *answer;
    return call(socket, how);
}

int kill(pid_t process, int signal) noexcept
{
    static auto* const call = next<decltype(::kill)>("kill");
    if (const auto answer = ask(answers().mKill, process))
        return *answer;
    return call(process, signal);
}

int clock_gettime(clockid_t clock, timespec* now) noexcept
{
    static auto* const call = next<decltype(::clock_gettime)>("clock_gettime");
    if (const auto answer = ask(answers().mClock)) {
        *now = *answer;
        return 0;
    }
    return call(clock, now);
}

long syscall(long number, ...) noexcept
{
    if (const auto answer = ask(answers().mSyscall, number))
        return *answer;
    va_list list;
    va_start(list, number);
    const common::SyscallArguments arguments(list);
    va_end(list);
    // Who calls before this program is initialised runs no vfork.
    SystemCall* const call = realSyscall != nullptr ? realSyscall : next<SystemCall>("syscall");
    return arguments.callWith(call, number);
}
}
