#include "pool/nqWholeFile.h"

#include "pool/nqQuietWrites.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace nq {

namespace {

/// 0, or an errno.
int writeNewFile(const std::string& path, std::string_view content, mode_t mode)
{
    ::unlink(path.c_str()); // left by a host that was killed
    const int descriptor =
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (descriptor < 0)
        return errno;
    const int error = writeAll(descriptor, content);
    if (::close(descriptor) != 0 && error == 0)
        return errno; // a file system that writes late says here what it could not
    return error;
}

} // namespace

int writeAll(int descriptor, std::string_view content)
{
    const nqQuietWrites quiet;
    while (!content.empty()) {
        const ssize_t count = ::write(descriptor, content.data(), content.size());
        if (count < 0 && errno != EINTR)
            return errno;
        content.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    return 0;
}

int replaceFile(const std::string& path, std::string_view content, mode_t mode)
{
    const std::string part = path + ".part";
    int error = writeNewFile(part, content, mode);
    if (error == 0 && ::rename(part.c_str(), path.c_str()) != 0)
        error = errno;
    if (error != 0)
        ::unlink(part.c_str());
    return error;
}

} // namespace nq
