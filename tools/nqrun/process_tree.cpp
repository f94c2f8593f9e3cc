#include "tools/nqrun/process_tree.h"

#include "tools/nqrun/descriptor.h"
#include "tools/nqrun/io.h"
#include "tools/nqrun/text.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <dirent.h>
#include <memory>
#include <string>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unordered_set>

// What moves here: processes that fork, exit and are handed over to their subreaper while they are
// looked at. A look may miss one; the end is therefore known by wait() alone, which says ECHILD
// once nothing is left, and never by an empty list.

namespace nqrun {

namespace {

constexpr long reapPauseNs = 2'000'000; // a killed process is gone in less, mostly

std::string procPath(pid_t process, const char* name)
{
    return "/proc/" + std::to_string(process) + '/' + name;
}

struct CloseFolder {
    void operator()(DIR* folder) const
    {
        ::closedir(folder);
    }
};

// The children that each thread of a process has started.
void appendChildren(pid_t process, std::vector<pid_t>& children)
{
    const std::string folder = procPath(process, "task");
    const std::unique_ptr<DIR, CloseFolder> threads(::opendir(folder.c_str()));
    if (!threads)
        return;
    while (const dirent* const entry = ::readdir(threads.get())) {
        if (entry->d_name[0] == '.')
            continue;
        const std::string list = contentOf(folder + '/' + entry->d_name + "/children");
        for (std::size_t begin = 0; begin < list.size();) {
            const std::size_t end = std::min(list.find(' ', begin), list.size());
            if (const auto pid = parseNumber(std::string_view(list).substr(begin, end - begin)))
                children.push_back(static_cast<pid_t>(*pid));
            begin = end + 1;
        }
    }
}

struct Descendant {
    pid_t pid = 0;
    pid_t parent = 0;
};

std::vector<Descendant> familyOf(pid_t ancestor)
{
    std::vector<Descendant> family;
    std::unordered_set<pid_t> known;
    std::vector<pid_t> children;
    appendChildren(ancestor, children);
    for (const pid_t child : children) {
        if (known.insert(child).second)
            family.push_back({child, ancestor});
    }
    for (std::size_t next = 0; next < family.size(); ++next) {
        const pid_t parent = family[next].pid;
        children.clear();
        appendChildren(parent, children);
        for (const pid_t child : children) {
            if (known.insert(child).second)
                family.push_back({child, parent});
        }
    }
    return family;
}

// 0 when there is no such process.
pid_t parentOf(pid_t process)
{
    const std::string line = contentOf(procPath(process, "stat"));
    const std::size_t nameEnd = line.rfind(')'); // the name may hold anything
    if (nameEnd == line.npos || line.size() < nameEnd + 5)
        return 0;
    const std::size_t begin = nameEnd + 4; // ") S "
    const std::size_t end = std::min(line.find(' ', begin), line.size());
    const auto parent = parseNumber(std::string_view(line).substr(begin, end - begin));
    return static_cast<pid_t>(parent.value_or(0));
}

enum class Signalled {
    yes,
    gone,    // it is not there any more, or its pid means somebody else now
    refused, // it runs with rights that this process does not have
};

Signalled signalDescendant(const Descendant& descendant, int signal)
{
    const Descriptor process(static_cast<int>(::syscall(SYS_pidfd_open, descendant.pid, 0)));
    if (!process.isOpen())
        return Signalled::gone;
    // The descriptor stands for whoever had the pid just now. With the parent that was seen before,
    // or handed over to this process, it is a descendant.
    const pid_t parent = parentOf(descendant.pid);
    if (parent != descendant.parent && parent != ::getpid())
        return Signalled::gone;
    if (::syscall(SYS_pidfd_send_signal, process.number(), signal, nullptr, 0) == 0)
        return Signalled::yes;
    return errno == EPERM ? Signalled::refused : Signalled::gone;
}

// Stops one after the other until a look finds nobody new. Whole groups at once, since a family
// that forks without end leaves this process a small share of the processor: members of a group
// that has a stopped member are descendants too, and its number cannot come to mean another one.
std::unordered_set<pid_t> stopAll()
{
    std::unordered_set<pid_t> stopped;
    std::unordered_set<pid_t> groups;
    for (bool isNew = true; isNew;) {
        isNew = false;
        for (const Descendant& descendant : familyOf(::getpid())) {
            if (!stopped.insert(descendant.pid).second)
                continue;
            isNew = true;
            if (signalDescendant(descendant, SIGSTOP) != Signalled::yes)
                continue;
            const pid_t group = ::getpgid(descendant.pid);
            if (group > 1 && group != ::getpgrp() && groups.insert(group).second)
                ::kill(-group, SIGSTOP);
        }
    }
    return groups;
}

// False when there was somebody, and none could be signalled.
bool killAll()
{
    bool hasRefused = false;
    bool hasSignalled = false;
    for (const Descendant& descendant : familyOf(::getpid())) {
        const Signalled result = signalDescendant(descendant, SIGKILL);
        hasSignalled = hasSignalled || result != Signalled::refused;
        hasRefused = hasRefused || result == Signalled::refused;
    }
    return hasSignalled || !hasRefused;
}

// True when no child is left.
bool reapAll(const OnReaped& onReaped)
{
    for (;;) {
        int status = 0;
        rusage usage{};
        const pid_t child = ::wait4(-1, &status, WNOHANG | __WALL, &usage);
        if (child > 0) {
            onReaped(child, status, usage);
            continue;
        }
        if (child < 0 && errno == EINTR)
            continue;
        return child < 0;
    }
}

std::uint64_t residentPages(pid_t process)
{
    const std::string line = contentOf(procPath(process, "statm"));
    const std::size_t begin = line.find(' ') + 1;
    const std::size_t end = std::min(line.find(' ', begin), line.size());
    return parseNumber(std::string_view(line).substr(begin, end - begin)).value_or(0);
}

// Each page divided by the number of processes that have it; nothing when it may not be read.
std::optional<std::uint64_t> proportionalMemory(pid_t process)
{
    const std::string text = contentOf(procPath(process, "smaps_rollup"));
    const std::size_t label = text.find("\nPss:");
    if (label == text.npos)
        return std::nullopt;
    const std::size_t begin = text.find_first_of("0123456789", label);
    const std::size_t end = text.find(' ', begin);
    if (begin == text.npos || end == text.npos)
        return std::nullopt;
    const auto kilobytes = parseNumber(std::string_view(text).substr(begin, end - begin));
    if (!kilobytes)
        return std::nullopt;
    return *kilobytes * 1024;
}

} // namespace

bool adoptOrphans()
{
    return ::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) == 0;
}

std::vector<pid_t> childrenOf(pid_t process)
{
    std::vector<pid_t> children;
    appendChildren(process, children);
    return children;
}

std::vector<pid_t> descendantsOf(pid_t ancestor)
{
    std::vector<pid_t> processes;
    for (const Descendant& descendant : familyOf(ancestor))
        processes.push_back(descendant.pid);
    return processes;
}

std::uint64_t residentMemory(pid_t ancestor, bool withItself, std::uint64_t enough)
{
    std::vector<pid_t> processes = descendantsOf(ancestor);
    if (withItself)
        processes.push_back(ancestor);
    static const auto pageBytes = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
    std::uint64_t sum = 0;
    for (const pid_t process : processes)
        sum += residentPages(process) * pageBytes;
    if (sum <= enough || processes.size() < 2)
        return sum;
    std::uint64_t shared = 0;
    for (const pid_t process : processes)
        shared += proportionalMemory(process).value_or(residentPages(process) * pageBytes);
    return shared;
}

bool endDescendants(const OnReaped& onReaped)
{
    if (reapAll(onReaped))
        return true;
    for (const pid_t group : stopAll())
        ::kill(-group, SIGKILL);
    for (;;) {
        const bool isAllowed = killAll();
        if (reapAll(onReaped))
            return true;
        if (!isAllowed)
            return false;
        const timespec pause{0, reapPauseNs};
        sigset_t ends;
        sigemptyset(&ends);
        sigaddset(&ends, SIGCHLD);
        ::sigtimedwait(&ends, nullptr, &pause); // returns at once where SIGCHLD is blocked
    }
}

void awaitOrphans(const std::vector<pid_t>& spared, std::chrono::milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    for (;;) {
        bool isAny = false;
        for (const pid_t child : childrenOf(::getpid())) {
            if (std::find(spared.begin(), spared.end(), child) != spared.end())
                continue;
            if (::waitpid(child, nullptr, WNOHANG) == 0) {
                isAny = true;
                if (std::chrono::steady_clock::now() >= end)
                    signalDescendant({child, ::getpid()}, SIGKILL);
            }
        }
        if (!isAny)
            return;
        const timespec pause{0, reapPauseNs};
        ::nanosleep(&pause, nullptr);
        if (std::chrono::steady_clock::now() >= end + limit)
            return; // the kernel does not let them go, or they have other rights
    }
}

} // namespace nqrun
