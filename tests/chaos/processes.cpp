#include "tests/chaos/processes.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <poll.h>
#include <sstream>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace chaos {

ProcessHandle::ProcessHandle(pid_t process)
    : mFd(static_cast<int>(syscall(SYS_pidfd_open, process, 0)))
{
}

ProcessHandle::~ProcessHandle()
{
    if (mFd != -1)
        close(mFd);
}

ProcessHandle::ProcessHandle(ProcessHandle&& other) noexcept
    : mFd(std::exchange(other.mFd, -1))
{
}

bool ProcessHandle::lives() const
{
    return !endsWithin(0);
}

bool ProcessHandle::endsWithin(int milliseconds) const
{
    using Clock = std::chrono::steady_clock;
    if (mFd == -1)
        return true;
    const auto deadline = Clock::now() + std::chrono::milliseconds(milliseconds);
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd watched{mFd, POLLIN, 0};
        const int ready = poll(&watched, 1, static_cast<int>(std::max<long>(left, 0)));
        if (ready > 0)
            return true;
        if (ready == 0 || errno != EINTR)
            return false;
    }
}

bool ProcessHandle::send(int signal) const
{
    return mFd != -1 && syscall(SYS_pidfd_send_signal, mFd, signal, nullptr, 0) == 0;
}

std::string commandLine(pid_t process)
{
    const std::ifstream file("/proc/" + std::to_string(process) + "/cmdline", std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    std::string line = text.str();
    std::replace(line.begin(), line.end(), '\0', ' ');
    return line;
}

std::vector<pid_t> processesWith(const std::string& text)
{
    std::vector<pid_t> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos)
            continue;
        const pid_t process = std::stoi(name);
        if (process != getpid() && commandLine(process).find(text) != std::string::npos)
            found.push_back(process);
    }
    return found;
}

std::size_t openDescriptorCount()
{
    const std::filesystem::directory_iterator open("/proc/self/fd");
    // The iteration holds one of its own.
    return static_cast<std::size_t>(std::distance(begin(open), end(open))) - 1;
}

std::size_t residentBytes()
{
    std::ifstream statm("/proc/self/statm");
    std::size_t total = 0;
    std::size_t resident = 0;
    statm >> total >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

} // namespace chaos
