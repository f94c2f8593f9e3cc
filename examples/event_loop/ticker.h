#pragma once

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <sys/timerfd.h>
#include <unistd.h>

/// A timer that a loop waits for like for any other descriptor.
class Ticker {
public:
    Ticker() = default;
    ~Ticker()
    {
        ::close(mTimer);
    }

    Ticker(const Ticker&) = delete;
    Ticker& operator=(const Ticker&) = delete;

    int descriptor() const
    {
        return mTimer;
    }

    /// Starts anew only if the period changes, so that frequent calls do not put the tick off.
    void setPeriod(std::chrono::milliseconds period)
    {
        if (period == mPeriod)
            return;
        mPeriod = period;
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(period);
        const std::chrono::nanoseconds rest = period - seconds;
        const timespec interval{seconds.count(), rest.count()};
        const itimerspec times{interval, interval};
        ::timerfd_settime(mTimer, 0, &times, nullptr);
    }

    /// Until this is called, the descriptor stays readable. Ticks that were missed count as one.
    void acknowledge() const
    {
        std::uint64_t expirations = 0;
        while (::read(mTimer, &expirations, sizeof expirations) < 0 && errno == EINTR) {
        }
    }

private:
    const int mTimer = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    std::chrono::milliseconds mPeriod{0};
};
