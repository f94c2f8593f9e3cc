#include "tests/chaos/surroundings.h"

#include "tests/chaos/violation.h"

#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace chaos {

UnusualSurroundings::UnusualSurroundings(const Surroundings& wanted)
    : mWanted(wanted)
{
    openMany(wanted.otherDescriptors);
    if (wanted.ignoresChildSignal)
        std::signal(SIGCHLD, SIG_IGN);
    if (wanted.hasSignalEveryMillisecond)
        mStorm.emplace();
}

UnusualSurroundings::~UnusualSurroundings()
{
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

void raiseDescriptorLimit()
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

} // namespace chaos
