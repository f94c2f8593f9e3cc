// Preloaded into nqrun: notes in the file NQRUN_SYNCED the name of each file that it puts on disk,
// in the order in which it does. The disk has no room for the one that NQRUN_UNSYNCED names.
#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

/// Notes it, and returns what the system call did, or -1.
int noted(int file, long result)
{
    const std::string link = "/proc/self/fd/" + std::to_string(file);
    std::array<char, 4096> path{};
    const ssize_t size = ::readlink(link.c_str(), path.data(), path.size());
    std::string line(path.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
    line.erase(0, line.rfind('/') + 1);
    const char* const failing = std::getenv("NQRUN_UNSYNCED");
    if (failing != nullptr && line == failing) {
        errno = ENOSPC;
        return -1;
    }
    line += '\n';
    const char* const name = std::getenv("NQRUN_SYNCED");
    const int notes =
        name != nullptr ? ::open(name, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600) : -1;
    if (notes < 0 || ::write(notes, line.data(), line.size()) < 0)
        std::abort();
    ::close(notes);
    return static_cast<int>(result);
}

} // namespace

extern "C" int fdatasync(int file)
{
    return noted(file, ::syscall(SYS_fdatasync, file));
}

extern "C" int syncfs(int file)
{
    return noted(file, ::syscall(SYS_syncfs, file));
}
