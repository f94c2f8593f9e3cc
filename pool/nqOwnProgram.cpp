#include "pool/nqOwnProgram.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace nq {

namespace {

// Opened, it is the program itself even under tools that run it inside a process of their own; what
// stat() and others say of this name is the tool then.
constexpr const char* ownExecutable = "/proc/self/exe";

// A host that has closed a standard stream would print into a lower number.
constexpr int lowestDescriptor = STDERR_FILENO + 1;

// Never destroyed: a pool on another thread may launch a worker while the host exits.
nqOwnProgram* notedProgram = nullptr;

bool isWorkerProcess = false;

// Neither reads nor holds the file back from being replaced, and needs no permission to read it.
int openOwnExecutable()
{
    const int opened = ::open(ownExecutable, O_PATH | O_CLOEXEC);
    if (opened < 0)
        return -1;
    const int kept = ::fcntl(opened, F_DUPFD_CLOEXEC, lowestDescriptor);
    const int error = errno;
    ::close(opened);
    errno = error;
    return kept;
}

std::string lastError()
{
    const std::error_code error(errno, std::generic_category());
    return std::string(ownExecutable) + ": " + error.message();
}

std::string throughDescriptor(int descriptor)
{
    return "/proc/self/fd/" + std::to_string(descriptor);
}

std::optional<nqFileIdentity> identityIf(bool isKnown, const struct stat& file)
{
    if (!isKnown)
        return std::nullopt;
    return nqFileIdentity{file.st_dev, file.st_ino};
}

} // namespace

std::optional<nqFileIdentity> nqFileIdentity::of(const std::string& path)
{
    struct stat file {};
    return identityIf(::stat(path.c_str(), &file) == 0, file);
}

std::optional<nqFileIdentity> nqFileIdentity::of(int descriptor)
{
    struct stat file {};
    return identityIf(::fstat(descriptor, &file) == 0, file);
}

bool nqFileIdentity::operator==(const nqFileIdentity& other) const
{
    return device == other.device && inode == other.inode;
}

bool nqFileIdentity::operator!=(const nqFileIdentity& other) const
{
    return !(*this == other);
}

nqOwnExecutable::nqOwnExecutable()
    : mDescriptor(openOwnExecutable())
{
    if (mDescriptor < 0) {
        mProblem = lastError();
        return;
    }
    std::error_code error;
    mPath = std::filesystem::read_symlink(ownExecutable, error).string();
    const std::optional<nqFileIdentity> identity = nqFileIdentity::of(mDescriptor);
    if (!identity)
        mProblem = lastError();
    else
        mIdentity = *identity;
}

nqOwnExecutable::~nqOwnExecutable()
{
    if (mDescriptor >= 0)
        ::close(mDescriptor);
}

std::string nqOwnExecutable::path() const
{
    const bool isOpen = nqFileIdentity::of(mDescriptor) == mIdentity;
    if (!isOpen || nqFileIdentity::of(mPath) == mIdentity)
        return mPath;
    return throughDescriptor(mDescriptor);
}

bool nqOwnExecutable::hasCapabilities() const
{
    return ::getxattr(throughDescriptor(mDescriptor).c_str(), "security.capability", nullptr, 0) >=
           0;
}

const nqOwnProgram* nqOwnProgram::noted()
{
    return notedProgram;
}

void nqOwnProgram::note(nqMakeWork make)
{
    if (notedProgram == nullptr)
        notedProgram = std::make_unique<nqOwnProgram>().release();
    notedProgram->make = std::move(make);
}

void nqOwnProgram::enterWorker()
{
    isWorkerProcess = true;
}

bool nqOwnProgram::isWorker()
{
    return isWorkerProcess;
}

} // namespace nq
