#include "system/linux/nqSpawnFailure.h"

#include <cerrno>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace nq {

namespace {

// The kernel reports several mistakes by one error.
std::string causeOfRefusedExecution(const char* executable, int error)
{
    struct stat file {};
    const bool isThere = ::stat(executable, &file) == 0;
    if (error == EACCES && isThere && S_ISDIR(file.st_mode))
        return " (it is a folder)";
    if (error == EACCES && isThere && ::access(executable, X_OK) != 0)
        return " (it has no execute permission)";
    if (error == ENOENT && isThere)
        return " (the file is there, but the interpreter or loader that it names is not)";
    if (error == ENOEXEC)
        return " (a script needs a first line that names its interpreter, as #!/bin/sh does)";
    return {};
}

} // namespace

std::string describeSpawnFailure(const nqSpawnRequest& request, const nqSpawnResult& failure)
{
    const std::string executable = request.mExecutable;
    if (executable.empty())
        return "Cannot start a process: there is no path of an executable";
    const std::string error = std::generic_category().message(failure.mError);
    switch (failure.mFailedAt) {
    case nqSpawnResult::Step::preparing:
        return "Cannot prepare the start of " + executable + ": " + error;
    case nqSpawnResult::Step::enteringTheFolder:
        return "Cannot start " + executable + ": its working directory " +
               request.mWorkingDirectory + " cannot be entered: " + error;
    case nqSpawnResult::Step::executingTheProgram:
        return "Cannot start " + executable + ": " + error +
               causeOfRefusedExecution(request.mExecutable, failure.mError);
    }
    return {};
}

} // namespace nq
