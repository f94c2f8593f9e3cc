#pragma once

#include <chrono>
#include <ctime>
#include <functional>
#include <optional>
#include <poll.h>
#include <sys/types.h>
#include <vector>

/// The program that links system_calls.cpp has functions of its own before those of the C library,
/// for itself and for every library that it loads. A test may answer in the kernel's place: a fault
/// then takes no luck, and a wait no time. For tests of one thread.
namespace system_calls {

/// What answers. A function that is empty, or returns nothing, leaves the call to the kernel. Calls
/// made within an answer always reach the kernel.
struct Answers {
    std::function<std::optional<int>(const pollfd&, int timeoutMs)> mPoll;
    std::function<std::optional<int>(const pollfd*, nfds_t, const timespec* limit)> mPpoll;
    std::function<std::optional<int>(const char* path, int flags)> mOpen;
    std::function<std::optional<int>(int flags)> mPipe2;
    std::function<std::optional<int>(int descriptor)> mClose;
    std::function<std::optional<ssize_t>(int descriptor, const void* bytes, size_t size)> mWrite;
    std::function<std::optional<int>(int option)> mGetsockopt;
    std::function<std::optional<int>()> mShutdown;
    std::function<std::optional<int>(pid_t)> mKill;
    std::function<std::optional<long>(long number)> mSyscall;
    std::function<std::optional<timespec>()> mClock;
};

/// Those of this program.
Answers& answers();

/// An answer that fails with `error`.
int failWith(int error);

/// Gives every call back to the kernel at its end.
class AnsweredCalls {
public:
    AnsweredCalls() = default;
    AnsweredCalls(const AnsweredCalls&) = delete;
    AnsweredCalls& operator=(const AnsweredCalls&) = delete;
    ~AnsweredCalls()
    {
        answers() = Answers();
    }
};

/// Answers waits and clocks for as long as it lives: nothing is ever reported, a wait passes at
/// once and moves the clock by its time, and a look at the clock takes a microsecond.
class SimulatedTime : public AnsweredCalls {
public:
    SimulatedTime();

    /// Since the beginning.
    std::chrono::nanoseconds passed() const
    {
        return mPassed;
    }

    /// How long each wait was that may sleep, in the order of the waits.
    const std::vector<std::chrono::nanoseconds>& sleeps() const
    {
        return mSleeps;
    }

    /// How many waits were mere looks.
    int looks() const
    {
        return mLooks;
    }

private:
    void wait(std::chrono::nanoseconds time);

    std::chrono::nanoseconds mPassed{0};
    std::vector<std::chrono::nanoseconds> mSleeps;
    int mLooks = 0;
};

} // namespace system_calls
