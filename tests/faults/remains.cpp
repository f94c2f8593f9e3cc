#include "remains.h"

#include <cerrno>
#include <csignal>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace faults {

void adoptOrphans()
{
    if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0)
        throw std::system_error(errno, std::generic_category(), "prctl");
}

std::string reapOrphans()
{
    std::string wrong;
    siginfo_t ended{};
    while (waitid(P_ALL, 0, &ended, WEXITED | WNOWAIT) == 0) {
        // Every worker leads its group, and what a worker has forked does not.
        if (getpgid(ended.si_pid) == ended.si_pid)
            wrong += " never reaped: " + std::to_string(ended.si_pid);
        waitid(P_PID, static_cast<id_t>(ended.si_pid), &ended, WEXITED);
    }
    return wrong;
}

} // namespace faults
