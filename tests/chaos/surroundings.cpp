#include "tests/chaos/surroundings.h"

#include "tests/chaos/violation.h"

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

namespace chaos {

namespace {

constexpr long millisecondInUs = 1000;

std::atomic<std::uint64_t> timerSignals{0};

void countTimerSignal(int /*signal*/)
{
    ++timerSignals;
}

} // namespace

UnusualSurroundings::UnusualSurroundings(const Surroundings& wanted)
    : mWanted(wanted)
{
    openMany(wanted.otherDescriptors);
    if (wanted.ignoresChildSignal)
        std::signal(SIGCHLD, SIG_IGN);
    if (!wanted.hasSignalEveryMillisecond)
        return;
    struct sigaction action {};
    action.sa_handler = countTimerSignal; // without SA_RESTART: every wait is cut short
    sigaction(SIGALRM, &action, nullptr);
    setTimer(millisecondInUs);
}

UnusualSurroundings::~UnusualSurroundings()
{
    // The handler stays: a last signal may be on its way.
    if (mWanted.hasSignalEveryMillisecond)
        setTimer(0);
    if (mWanted.ignoresChildSignal)
        std::signal(SIGCHLD, SIG_DFL);
    for (const int other : mOthers)
        close(other);
}

void UnusualSurroundings::openMany(std::uint32_t count)
{
    mOthers.reserve(count);
    for (std::uint32_t i = 0; i < count; ++i) {
        const int other = open("/dev/null", O_RDWR | O_CLOEXEC);
        if (other == -1)
            reportViolation("this machine does not allow the descriptors that the plan wants");
        mOthers.push_back(other);
    }
}

void UnusualSurroundings::setTimer(long intervalUs)
{
    itimerval timer{};
    timer.it_interval.tv_usec = intervalUs;
    timer.it_value.tv_usec = intervalUs;
    setitimer(ITIMER_REAL, &timer, nullptr);
}

std::uint64_t handledTimerSignals()
{
    return timerSignals;
}

void raiseDescriptorLimit()
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

} // namespace chaos
