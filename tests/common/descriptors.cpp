#include "tests/common/descriptors.h"

#include <cerrno>
#include <dirent.h>
#include <filesystem>
#include <system_error>

namespace common {

namespace {

/// In a PID namespace that has no /proc of its own, the number of this process is that of another
/// one there.
std::string folderOf(pid_t process)
{
    const bool isOwn = process == ::getpid();
    return "/proc/" + (isOwn ? "self" : std::to_string(process)) + "/fd";
}

} // namespace

std::set<int> openDescriptorNumbers(pid_t process)
{
    const std::string path = folderOf(process);
    DIR* const folder = ::opendir(path.c_str());
    if (folder == nullptr)
        throw std::system_error(errno, std::generic_category(), path);
    const int ownNumber = process == ::getpid() ? ::dirfd(folder) : -1;
    std::set<int> numbers;
    while (const dirent* entry = ::readdir(folder)) {
        if (entry->d_name[0] == '.')
            continue;
        if (const int number = std::stoi(entry->d_name); number != ownNumber)
            numbers.insert(number);
    }
    ::closedir(folder);
    return numbers;
}

std::map<int, std::string> openDescriptors(pid_t process)
{
    std::map<int, std::string> open;
    for (const int number : openDescriptorNumbers(process)) {
        std::error_code closedMeanwhile;
        const auto target = std::filesystem::read_symlink(
            folderOf(process) + "/" + std::to_string(number), closedMeanwhile);
        if (!closedMeanwhile)
            open[number] = target.string();
    }
    return open;
}

DescriptorLimit::DescriptorLimit()
{
    ::getrlimit(RLIMIT_NOFILE, &mBefore);
}

DescriptorLimit::~DescriptorLimit()
{
    ::setrlimit(RLIMIT_NOFILE, &mBefore);
}

bool DescriptorLimit::set(rlim_t soft) const
{
    const rlimit wanted{soft, mBefore.rlim_max};
    return ::setrlimit(RLIMIT_NOFILE, &wanted) == 0;
}

bool DescriptorLimit::exhaust() const
{
    const Descriptor lowestFree(::dup(STDERR_FILENO));
    return set(static_cast<rlim_t>(lowestFree.get()));
}

bool DescriptorLimit::exhaustButOne() const
{
    const Descriptor lowestFree(::dup(STDERR_FILENO));
    return set(static_cast<rlim_t>(lowestFree.get()) + 1);
}

} // namespace common
