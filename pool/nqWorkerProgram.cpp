#include "pool/nqWorkerProgram.h"

#include "pool/include/nqPool.h"
#include "pool/nqEnvelope.h"
#include "pool/nqOwnProgram.h"
#include "pool/nqWorkerStart.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <sys/auxv.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace nq {

namespace {

std::string lastError()
{
    return std::generic_category().message(errno);
}

[[noreturn]] void refuseOwnProgram(const std::string& cause, const std::string& whatToDo)
{
    throw nqPoolError(
        "This program cannot be its own worker: " + cause + "; " + whatToDo +
        ", or name another program in nqPoolOptions::worker");
}

[[noreturn]] void
refuse(const std::string& path, const std::string& cause, const std::string& whatToDo)
{
    throw nqPoolError("The worker program " + path + " cannot be used: " + cause + "; " + whatToDo);
}

// Without this order of things, each worker would run main() up to its pool, and start workers.
const nqOwnProgram& noteOfRunAsWorker()
{
    if (nqOwnProgram::isWorker())
        refuseOwnProgram("it runs as a worker itself", "make pools in the host alone");
    const nqOwnProgram* const own = nqOwnProgram::noted();
    if (own == nullptr)
        refuseOwnProgram(
            "it has not called nq::runAsWorker()", "call that at the beginning of main()");
    return *own;
}

// Another user's rights, or the file's: a worker would have them as well, and others than those
// when it is started in another way.
void checkRights(const nqOwnExecutable& executable)
{
    constexpr const char* whatToDo = "start it without these rights";
    if (::getauxval(AT_SECURE) != 0)
        refuseOwnProgram(
            "it has more rights than who started it, from its set-user-ID or set-group-ID bit or "
            "its file capabilities",
            whatToDo);
    if (executable.hasCapabilities())
        refuseOwnProgram("its file has capabilities, as getcap shows", whatToDo);
}

const nqOwnExecutable& checkedOwnExecutable()
{
    const nqOwnExecutable& executable = noteOfRunAsWorker().executable;
    if (!executable.problem().empty())
        refuseOwnProgram(
            "its executable cannot be found, " + executable.problem(),
            "see to it that /proc is there");
    checkRights(executable);
    return executable;
}

std::string absolutePath(const std::string& path)
{
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::absolute(path, error);
    if (error)
        refuse(path, "the current folder is not known, " + error.message(), "give its whole path");
    return absolute.string();
}

void checkFile(const std::string& path)
{
    struct stat file {};
    if (::stat(path.c_str(), &file) != 0)
        refuse(
            path,
            lastError(),
            "give its path; a name alone is looked for in the current "
            "folder, not in PATH");
    if (S_ISDIR(file.st_mode))
        refuse(path, "it is a folder", "give the path of the program in it");
    if (!S_ISREG(file.st_mode))
        refuse(path, "it is no regular file", "give the path of a program");
    if (::faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) != 0)
        refuse(path, lastError(), "give it execute permission, as chmod +x does");
}

bool isThisProgram(const std::string& path)
{
    const std::optional<nqFileIdentity> file = nqFileIdentity::of(path);
    const nqOwnProgram* const own = nqOwnProgram::noted();
    return file &&
           *file == (own != nullptr ? own->executable.identity() : nqOwnExecutable().identity());
}

// A program may be told by an argument to be a worker. Without one it would come to its pool again,
// and start workers without end.
void checkThatItIsToldApart(const nqPoolOptions& options, const std::string& path)
{
    if (options.arguments.empty() && isThisProgram(path))
        refuse(
            path,
            "it is this program itself, and nothing tells a worker from the host",
            "call nq::runAsWorker() at the beginning of main(), or give the worker arguments in "
            "nqPoolOptions::arguments");
}

// Whether runAsWorker() serves as the worker's main().
bool isOwnWorker(const nqPoolOptions& options)
{
    if (options.worker.empty())
        return true;
    return !options.plainWorker && nqOwnProgram::noted() != nullptr &&
           isThisProgram(options.worker);
}

} // namespace

nqWorkerProgram::nqWorkerProgram(const nqPoolOptions& options)
{
    if (!options.plainWorker)
        mTag = nqEnvelope::freshTag();
    if (options.inProcess) {
        ownWork();
        return;
    }
    if (isOwnWorker(options)) {
        if (options.plainWorker)
            throw nqPoolError("nqPoolOptions::plainWorker is for another program than this one; "
                              "name it in nqPoolOptions::worker");
        if (!options.arguments.empty())
            throw nqPoolError("nqPoolOptions::arguments are for another program than this one; "
                              "leave them empty, or name a program in nqPoolOptions::worker");
        mOwn = &checkedOwnExecutable();
        return;
    }
    mPath = absolutePath(options.worker);
    checkFile(mPath);
    checkThatItIsToldApart(options, mPath);
    mArguments = options.arguments;
}

bool nqWorkerProgram::isEnveloped() const
{
    return !mTag.empty();
}

const std::string& nqWorkerProgram::tag() const
{
    return mTag;
}

std::string nqWorkerProgram::path() const
{
    return mOwn != nullptr ? mOwn->path() : mPath;
}

std::vector<std::string> nqWorkerProgram::arguments() const
{
    std::vector<std::string> arguments = mArguments;
    if (!isEnveloped())
        return arguments;
    nqWorkerStart start;
    start.tag = mTag;
    start.host = ::getpid();
    if (mOwn != nullptr)
        start.program = nqWorkerStart::Program{mOwn->identity(), mOwn->descriptor()};
    arguments.push_back(start.argument());
    return arguments;
}

nqMakeWork nqWorkerProgram::ownWork() const
{
    const nqOwnProgram* const own = nqOwnProgram::noted();
    if (own == nullptr)
        throw nqPoolError("nqPoolOptions::inProcess needs the work of this program; call "
                          "nq::runAsWorker() at the beginning of main()");
    return own->make;
}

} // namespace nq
