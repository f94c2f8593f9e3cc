#include "tools/nqrun/io.h"

#include "tools/nqrun/error.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <system_error>

namespace nqrun {

std::string lastError()
{
    return std::generic_category().message(errno);
}

bool writeAll(int descriptor, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t count = ::write(descriptor, bytes.data(), bytes.size());
        if (count >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
            continue;
        }
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN)
            return false;
        pollfd stream{descriptor, POLLOUT, 0}; // somebody has made a shared terminal non-blocking
        ::poll(&stream, 1, -1);
    }
    return true;
}

bool readAll(int descriptor, void* bytes, std::size_t count)
{
    char* next = static_cast<char*>(bytes);
    while (count > 0) {
        const ssize_t got = retryOnSignal([&] { return ::read(descriptor, next, count); });
        if (got == 0)
            errno = 0;
        if (got <= 0)
            return false;
        next += got;
        count -= static_cast<std::size_t>(got);
    }
    return true;
}

std::string readAt(int descriptor, std::uint64_t offset, std::size_t count)
{
    std::string bytes(count, '\0');
    std::size_t have = 0;
    while (have < count) {
        const ssize_t got = retryOnSignal([&] {
            return ::pread(
                descriptor, bytes.data() + have, count - have, static_cast<off_t>(offset + have));
        });
        if (got <= 0)
            break;
        have += static_cast<std::size_t>(got);
    }
    bytes.resize(have);
    return bytes;
}

std::string contentOf(const std::string& path)
{
    std::string content;
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.isOpen())
        return content;
    char part[4096];
    for (;;) {
        const ssize_t got = retryOnSignal([&] { return ::read(file.number(), part, sizeof part); });
        if (got <= 0)
            return content;
        content.append(part, static_cast<std::size_t>(got));
    }
}

std::string temporaryFolder()
{
    const char* const folder = std::getenv("TMPDIR");
    return folder != nullptr && *folder != '\0' ? folder : "/tmp";
}

Descriptor makeTemporaryFile()
{
    const std::string folder = temporaryFolder();
    Descriptor file(::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    if (file.isOpen())
        return file;
    if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL)
        throw Error("no temporary file can be made in " + folder + ": " + lastError());
    std::string name = folder + "/nqrun-XXXXXX"; // a file system without nameless files
    file = Descriptor(::mkostemp(name.data(), O_CLOEXEC));
    if (!file.isOpen())
        throw Error("no temporary file can be made in " + folder + ": " + lastError());
    ::unlink(name.c_str());
    return file;
}

void writeWhole(const std::string& path, std::string_view content, unsigned mode)
{
    const std::string temporary = path + ".new-" + std::to_string(::getpid());
    const Descriptor file(
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode));
    if (file.isOpen() && writeAll(file.number(), content) &&
        ::rename(temporary.c_str(), path.c_str()) == 0)
        return;
    const std::string problem = lastError();
    ::unlink(temporary.c_str());
    throw Error(path + " cannot be written: " + problem);
}

void checkSync(int result, const std::string& name)
{
    if (result != 0 && (errno == EIO || errno == ENOSPC || errno == EDQUOT))
        throw Error(name + " cannot be put on disk: " + lastError());
}

void lockFile(int descriptor, const std::string& name)
{
    struct flock whole {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    if (::fcntl(descriptor, F_SETLK, &whole) == 0)
        return;
    if (errno == EAGAIN || errno == EACCES)
        throw Error(name + " is in use by another nqrun");
    throw Error(name + " cannot be locked: " + lastError());
}

} // namespace nqrun
