#include "tests/common/files.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <system_error>

namespace common {

namespace {

[[noreturn]] void throwSystemError(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

} // namespace

std::string contentOf(const std::string& path)
{
    const std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

TemporaryFolder::TemporaryFolder()
{
    std::string path = (std::filesystem::temp_directory_path() / "nq_test_XXXXXX").string();
    if (::mkdtemp(path.data()) == nullptr)
        throwSystemError(path);
    mPath = path;
}

TemporaryFolder::~TemporaryFolder()
{
    std::error_code leftAsItIs;
    std::filesystem::remove_all(mPath, leftAsItIs);
}

std::string TemporaryFolder::path() const
{
    return mPath.string();
}

std::string TemporaryFolder::file(const std::string& name) const
{
    return (mPath / name).string();
}

std::string
TemporaryFolder::addFile(const std::string& name, const std::string& content, mode_t mode) const
{
    std::string path = file(name);
    std::ofstream(path) << content;
    if (::chmod(path.c_str(), mode) != 0)
        throwSystemError(path);
    return path;
}

std::string TemporaryFolder::addScript(const std::string& name, const std::string& body) const
{
    return addFile(name, "#!/bin/sh\n" + body, S_IRWXU);
}

std::string TemporaryFolder::addFifo(const std::string& name) const
{
    std::string path = file(name);
    if (::mkfifo(path.c_str(), S_IRUSR | S_IWUSR) != 0)
        throwSystemError(path);
    return path;
}

CurrentFolder::CurrentFolder(const std::string& folder)
    : mBefore(std::filesystem::current_path())
{
    std::filesystem::current_path(folder);
}

CurrentFolder::~CurrentFolder()
{
    std::error_code leftAsItIs;
    std::filesystem::current_path(mBefore, leftAsItIs);
}

FileSizeLimit::FileSizeLimit(rlim_t bytes)
{
    ::getrlimit(RLIMIT_FSIZE, &mBefore);
    const rlimit limit{bytes, mBefore.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limit);
}

FileSizeLimit::~FileSizeLimit()
{
    ::setrlimit(RLIMIT_FSIZE, &mBefore);
}

} // namespace common
