#include "system/nqDirUtils.h"

#include <cstdlib>
#include <memory>
#include <unistd.h>

namespace nq {

namespace {

struct FreeDeleter {
    void operator()(char* text) const
    {
        std::free(text);
    }
};

} // namespace

std::string nqDirUtils::GetAbsolutePathUtf8(const std::string& path)
{
    if (path.empty() || path.front() == '/')
        return path;

    std::string absolute = GetCurrentWorkingDirUtf8();
    if (absolute.empty())
        return absolute;
    if (absolute.back() != '/') // only the root directory ends in one
        absolute += '/';
    return absolute + path;
}

std::string nqDirUtils::ExtractFolder(const std::string& path)
{
    const std::size_t lastSlash = path.rfind('/');
    if (lastSlash == std::string::npos)
        return {};
    return lastSlash == 0 ? "/" : path.substr(0, lastSlash);
}

std::string nqDirUtils::GetCurrentWorkingDirUtf8()
{
    // A null buffer lets the C library allocate what the path needs, which may be more than
    // PATH_MAX.
    const std::unique_ptr<char, FreeDeleter> directory(::getcwd(nullptr, 0));
    return directory ? std::string(directory.get()) : std::string();
}

} // namespace nq
