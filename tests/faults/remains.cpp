#include "remains.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <iterator>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace faults {

std::map<int, std::string> openDescriptors()
{
    std::map<int, std::string> open;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        const auto target = std::filesystem::read_symlink(entry.path(), gone);
        open[std::stoi(entry.path().filename().string())] = target.string();
    }
    for (auto entry = open.begin(); entry != open.end();) // the iteration's own is closed by now
        entry = fcntl(entry->first, F_GETFD) == -1 ? open.erase(entry) : std::next(entry);
    return open;
}

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
