#include "tests/common/processes.h"

#include "tests/common/files.h"
#include "tests/common/waiting.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <poll.h>
#include <sstream>
#include <sys/syscall.h>
#include <system_error>
#include <utility>

namespace common {

namespace {

constexpr uid_t foreignUser = 65'534;

/// What the kernel says of a process; as it is here for one that is gone.
struct Status {
    char mState = 0;
    pid_t mParent = 0;
    std::string mStartedAt; // tells it from a later one with the same number
};

Status statusOf(pid_t process)
{
    // The program's name stands in brackets and may hold anything; the fields follow the last one.
    const std::string stat = contentOf("/proc/" + std::to_string(process) + "/stat");
    const std::size_t end = stat.rfind(')');
    Status status;
    if (end == std::string::npos)
        return status;
    std::istringstream fields(stat.substr(end + 1));
    fields >> status.mState >> status.mParent;
    for (int field = 5; field <= 22; ++field) // numbered as in the kernel's description
        fields >> status.mStartedAt;
    return status;
}

} // namespace

std::vector<pid_t> allProcesses()
{
    std::vector<pid_t> processes;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") == std::string::npos)
            processes.push_back(std::stoi(name));
    }
    return processes;
}

std::vector<pid_t> children()
{
    std::vector<pid_t> processes = allProcesses();
    const auto isForeign = [](pid_t process) { return statusOf(process).mParent != ::getpid(); };
    processes.erase(std::remove_if(processes.begin(), processes.end(), isForeign), processes.end());
    return processes;
}

std::string commandLine(pid_t process)
{
    std::string line = contentOf("/proc/" + std::to_string(process) + "/cmdline");
    std::replace(line.begin(), line.end(), '\0', ' ');
    return line;
}

std::size_t residentBytes()
{
    std::ifstream statm("/proc/self/statm");
    std::size_t total = 0;
    std::size_t resident = 0;
    statm >> total >> resident;
    return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

ProcessWatch::ProcessWatch(pid_t process)
    : mProcess(process),
      mFd(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)))
{
    if (mFd != -1 || errno == ESRCH)
        return;
    if (errno != ENOSYS)
        throw std::system_error(
            errno, std::generic_category(), "no watch on process " + std::to_string(process));
    mStartedAt = statusOf(process).mStartedAt;
}

ProcessWatch::~ProcessWatch()
{
    if (mFd != -1)
        ::close(mFd);
}

ProcessWatch::ProcessWatch(ProcessWatch&& other) noexcept
    : mProcess(other.mProcess),
      mFd(std::exchange(other.mFd, -1)),
      mStartedAt(std::move(other.mStartedAt))
{
}

bool ProcessWatch::endsWithin(std::chrono::milliseconds limit) const
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    if (mFd != -1)
        return becomesReady(mFd, POLLIN, deadline);
    while (isThere()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        ::poll(nullptr, 0, 1); // nothing tells of the end of somebody else's child without a pidfd
    }
    return true;
}

bool ProcessWatch::lives() const
{
    return !endsWithin(std::chrono::milliseconds(0));
}

bool ProcessWatch::kill(int signal) const
{
    if (mFd != -1)
        return ::syscall(SYS_pidfd_send_signal, mFd, signal, nullptr, 0) == 0;
    return isThere() && ::kill(mProcess, signal) == 0;
}

bool ProcessWatch::isThere() const
{
    const Status status = statusOf(mProcess);
    return !mStartedAt.empty() && status.mStartedAt == mStartedAt && status.mState != 'Z' &&
           status.mState != 'X';
}

int waitForExitCode(pid_t child)
{
    int status = 0;
    pid_t reaped = -1;
    do
        reaped = ::waitpid(child, &status, 0);
    while (reaped == -1 && errno == EINTR);
    return reaped == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool mayChangeUser()
{
    return ::geteuid() == 0;
}

bool becomeForeignUser()
{
    return ::setgroups(0, nullptr) == 0 &&
           ::setresgid(foreignUser, foreignUser, foreignUser) == 0 &&
           ::setresuid(foreignUser, foreignUser, foreignUser) == 0;
}

} // namespace common
