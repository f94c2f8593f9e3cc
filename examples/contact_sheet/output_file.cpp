#include "examples/contact_sheet/output_file.h"

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace sheet {

OutputFile::OutputFile(const std::string& path)
    : mPath(path),
      mPartPath(path + ".part")
{
    std::error_code ignored;
    if (std::filesystem::is_directory(path, ignored))
        fail(EISDIR);
    mStream = std::fopen(mPartPath.c_str(), "wbe");
    if (!mStream)
        fail(errno);
}

OutputFile::~OutputFile()
{
    if (!mStream)
        return;
    std::fclose(mStream);
    std::remove(mPartPath.c_str());
}

const std::string& OutputFile::path() const
{
    return mPath;
}

std::FILE* OutputFile::stream()
{
    return mStream;
}

void OutputFile::keep()
{
    if (std::fflush(mStream) != 0 || std::ferror(mStream) != 0)
        fail(errno);
    if (std::rename(mPartPath.c_str(), mPath.c_str()) != 0)
        fail(errno);
    std::fclose(mStream);
    mStream = nullptr;
}

void OutputFile::fail(int error) const
{
    throw std::runtime_error(
        "cannot write " + mPath + ": " + std::generic_category().message(error));
}

} // namespace sheet
