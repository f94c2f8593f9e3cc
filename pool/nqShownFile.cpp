#include "pool/nqShownFile.h"

#include "pool/include/nqPool.h"
#include "pool/nqPoolWarning.h"
#include "pool/nqWholeFile.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace nq {

namespace {

constexpr mode_t forAll = 0666; // less what the umask says

std::string sentence(const std::string& what, const std::string& path, const std::string& cause)
{
    return what + " cannot be written: " + path + ": " + cause;
}

std::string textOf(int error)
{
    return std::generic_category().message(error);
}

/// The file itself where the path is a link. To replace what is no regular file, a device say,
/// would remove it.
std::string regularPath(const std::string& what, const std::string& path)
{
    std::error_code error;
    const auto type = std::filesystem::status(path, error).type();
    if (type == std::filesystem::file_type::directory)
        throw nqPoolError(sentence(what, path, textOf(EISDIR)));
    if (type != std::filesystem::file_type::not_found &&
        type != std::filesystem::file_type::regular)
        throw nqPoolError(sentence(
            what, path, error ? error.message() : std::string("it is not a regular file")));
    std::filesystem::path absolute = std::filesystem::absolute(path, error);
    if (!error && type == std::filesystem::file_type::regular)
        absolute = std::filesystem::canonical(absolute, error);
    if (error)
        throw nqPoolError(sentence(what, path, error.message()));
    return absolute.string();
}

} // namespace

nqShownFile::nqShownFile(std::string what, const std::string& path)
    : mWhat(std::move(what)),
      mPath(regularPath(mWhat, path))
{
    const std::string probe = mPath + ".part";
    const int error = replaceFile(probe, {}, forAll);
    if (error != 0)
        throw nqPoolError(sentence(mWhat, mPath, textOf(error)));
    ::unlink(probe.c_str());
}

bool nqShownFile::replace(std::string_view content)
{
    const int error = replaceFile(mPath, content, forAll);
    const bool isFirst = mProblem.empty();
    mProblem = error != 0 ? sentence(mWhat, mPath, textOf(error)) : std::string();
    if (error != 0 && isFirst)
        warn(mProblem);
    return error == 0;
}

void nqShownFile::require(std::string_view content)
{
    const int error = replaceFile(mPath, content, forAll);
    if (error != 0)
        throw nqPoolError(sentence(mWhat, mPath, textOf(error)));
}

const std::string& nqShownFile::problem() const
{
    return mProblem;
}

nqGrowingFile::nqGrowingFile(std::string what, const std::string& path)
    : mWhat(std::move(what)),
      mPath(regularPath(mWhat, path)),
      mDescriptor(
          ::open(mPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, forAll))
{
    if (mDescriptor < 0)
        throw nqPoolError(sentence(mWhat, mPath, textOf(errno)));
}

nqGrowingFile::~nqGrowingFile()
{
    if (mDescriptor >= 0)
        ::close(mDescriptor);
}

bool nqGrowingFile::append(std::string_view content)
{
    if (mDescriptor < 0)
        return false;
    const int error = writeAll(mDescriptor, content);
    if (error == 0) {
        mSize += content.size();
        return true;
    }
    mProblem = sentence(mWhat, mPath, textOf(error));
    // No torn line at the end. Where the file cannot be cut, readers leave the line out.
    const bool isWhole = ::ftruncate(mDescriptor, static_cast<off_t>(mSize)) == 0;
    warn(isWhole ? mProblem : mProblem + ", and its last line is torn");
    ::close(mDescriptor);
    mDescriptor = -1;
    return false;
}

const std::string& nqGrowingFile::problem() const
{
    return mProblem;
}

} // namespace nq
