#include "benchmarks/common/processes.h"

#include "benchmarks/common/clock.h"
#include "benchmarks/common/fail.h"

#include <filesystem>
#include <fstream>
#include <sched.h>
#include <spawn.h>
#include <sstream>
#include <sys/resource.h>
#include <unistd.h>

namespace bench {

namespace {

// Nothing for a process that has just gone.
pid_t parentOf(const std::string& pid)
{
    std::ifstream file("/proc/" + pid + "/stat");
    std::string text;
    std::getline(file, text);
    // The name stands in brackets and may hold blanks and brackets itself.
    const std::size_t nameEnd = text.rfind(')');
    if (nameEnd == std::string::npos)
        return 0;
    std::istringstream rest(text.substr(nameEnd + 1));
    char state = 0;
    pid_t parent = 0;
    rest >> state >> parent;
    return parent;
}

} // namespace

std::vector<pid_t> children()
{
    std::vector<pid_t> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string name = entry.path().filename().string();
        const bool isPid = name.find_first_not_of("0123456789") == std::string::npos;
        if (isPid && parentOf(name) == ::getpid())
            found.push_back(static_cast<pid_t>(std::stol(name)));
    }
    return found;
}

std::int64_t cpuNanosecondsOf(pid_t pid)
{
    clockid_t clock = 0;
    if (::clock_getcpuclockid(pid, &clock) != 0)
        fail("a worker has gone while its time was taken");
    return clockNanoseconds(clock);
}

std::uint64_t residentBytesOf(pid_t pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/statm");
    std::uint64_t all = 0;
    std::uint64_t resident = 0;
    file >> all >> resident;
    return resident * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
}

void useProcessors(const std::string& list)
{
    if (list.empty())
        return;
    cpu_set_t set;
    CPU_ZERO(&set);
    std::istringstream stream(list);
    for (std::string number; std::getline(stream, number, ',');)
        CPU_SET(std::stoul(number), &set);
    require(::sched_setaffinity(0, sizeof set, &set) == 0, "choose the processors");
}

void allowManyDescriptors()
{
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

pid_t spawn(const std::string& executable, const std::string& argument)
{
    // posix_spawn takes its texts as not const for historical reasons and leaves them alone.
    char* const arguments[] = {
        const_cast<char*>(executable.c_str()), const_cast<char*>(argument.c_str()), nullptr};
    // A worker that inherits the socket of another keeps it alive for ever.
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    pid_t pid = 0;
    const int error =
        ::posix_spawn(&pid, executable.c_str(), &actions, nullptr, arguments, environ);
    ::posix_spawn_file_actions_destroy(&actions);
    if (error != 0)
        fail("a worker cannot be started");
    return pid;
}

} // namespace bench
