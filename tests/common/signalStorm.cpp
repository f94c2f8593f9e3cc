#include "tests/common/signalStorm.h"

#include <atomic>
#include <sys/time.h>

namespace common {

namespace {

std::atomic<std::uint64_t> handledSignals{0};

constexpr suseconds_t intervalUs = 1000;

void setTimer(suseconds_t microseconds)
{
    const timeval time{0, microseconds};
    const itimerval timer{time, time};
    ::setitimer(ITIMER_REAL, &timer, nullptr);
}

} // namespace

SignalStorm::SignalStorm()
{
    struct sigaction action {};
    action.sa_handler = [](int) { ++handledSignals; }; // without SA_RESTART: waits are cut short
    ::sigaction(SIGALRM, &action, &mBefore);
    setTimer(intervalUs);
}

SignalStorm::~SignalStorm()
{
    setTimer(0);
    // A tool that delivers signals late may still hold one, which the former disposition would turn
    // into the end of the program. Ignoring a signal discards what is pending.
    std::signal(SIGALRM, SIG_IGN);
    ::sigaction(SIGALRM, &mBefore, nullptr);
}

std::uint64_t SignalStorm::handled()
{
    return handledSignals;
}

} // namespace common
