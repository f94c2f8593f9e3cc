#include "system/linux/nqProcFile.h"

#include "system/linux/nqDescriptor.h"
#include "system/linux/nqSystemCall.h"

#include <charconv>
#include <cstddef>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <unistd.h>

namespace nq {

namespace {

struct Stat {
    char mState; // 'Z' for a zombie, 'X' for one that is being reaped
    std::uint64_t mStartTicks;
};

struct CloseFolder {
    void operator()(DIR* folder) const
    {
        ::closedir(folder);
    }
};

std::optional<pid_t> asNumber(std::string_view text)
{
    pid_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return number;
}

bool showsOurNamespace()
{
    char target[std::numeric_limits<pid_t>::digits10 + 2];
    const ssize_t size = ::readlink("/proc/self", target, sizeof target);
    return size > 0 && asNumber({target, static_cast<std::size_t>(size)}) == ::getpid();
}

// The line is "pid (name) state ...", and the name may hold anything, even ") ".
std::optional<Stat> parse(std::string_view line)
{
    constexpr int fieldsFromStateToStart = 19;
    const std::size_t nameEnd = line.rfind(") ");
    if (nameEnd == std::string_view::npos || nameEnd + 2 >= line.size())
        return std::nullopt;
    std::size_t position = nameEnd + 2;
    Stat stat{line[position], 0};
    for (int field = 0; field < fieldsFromStateToStart; ++field) {
        position = line.find(' ', position);
        if (position == std::string_view::npos)
            return std::nullopt;
        ++position;
    }
    const char* const end = line.data() + line.size();
    if (std::from_chars(line.data() + position, end, stat.mStartTicks).ec != std::errc())
        return std::nullopt;
    return stat;
}

std::optional<Stat> readStat(pid_t pid)
{
    const std::string path = "/proc/" + std::to_string(pid) + "/stat";
    const nqDescriptor file(
        retryOnSignal([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); }));
    if (!file.isOpen())
        return std::nullopt;
    char line[2048]; // some fifty numbers and a name of at most 64 bytes
    const ssize_t size = retryOnSignal([&] { return ::read(file.get(), line, sizeof line); });
    if (size <= 0)
        return std::nullopt;
    return parse({line, static_cast<std::size_t>(size)});
}

bool isRunning(pid_t pid)
{
    const std::optional<Stat> stat = readStat(pid);
    return stat && stat->mState != 'Z' && stat->mState != 'X';
}

} // namespace

std::optional<nqStart> nqProcFile::startOf(pid_t pid)
{
    if (!showsOurNamespace())
        return std::nullopt;
    const std::optional<Stat> stat = readStat(pid);
    return stat ? std::optional(nqStart{stat->mStartTicks, pid}) : std::nullopt;
}

std::optional<bool> nqProcFile::hasLivingMember(pid_t group)
{
    if (!showsOurNamespace())
        return std::nullopt;
    const std::unique_ptr<DIR, CloseFolder> processes(::opendir("/proc"));
    if (processes == nullptr)
        return std::nullopt;
    while (const dirent* entry = ::readdir(processes.get())) {
        const std::optional<pid_t> pid = asNumber(entry->d_name);
        if (pid && ::getpgid(*pid) == group && isRunning(*pid))
            return true;
    }
    return false;
}

} // namespace nq
