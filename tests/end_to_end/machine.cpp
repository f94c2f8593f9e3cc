#include "machine.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace end_to_end {

namespace {

using Clock = std::chrono::steady_clock;

constexpr char markVariable[] = "NQ_END_TO_END_HOST";

[[noreturn]] void throwSystemError(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

std::string mark()
{
    const char* value = std::getenv(markVariable);
    return std::string(markVariable) + '=' + (value ? value : "");
}

/// Appends what comes next. False at the end and when nothing comes before the deadline.
bool appendMore(int fd, std::string& text, Clock::time_point deadline, bool& ended)
{
    char bytes[4096];
    if (!common::becomesReady(fd, POLLIN, deadline))
        return false;
    const ssize_t count = read(fd, bytes, sizeof bytes);
    ended = count == 0;
    if (count > 0)
        text.append(bytes, static_cast<std::size_t>(count));
    return count > 0 || (count < 0 && errno == EINTR);
}

std::string readToEnd(int fd, std::string text)
{
    const auto deadline = Clock::now() + generousLimit;
    bool ended = false;
    while (appendMore(fd, text, deadline, ended)) {
    }
    return ended ? text : text + "(no end within the limit)";
}

struct SpawnActions {
    SpawnActions()
    {
        posix_spawn_file_actions_init(&actions);
    }
    ~SpawnActions()
    {
        posix_spawn_file_actions_destroy(&actions);
    }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;

    posix_spawn_file_actions_t actions{};
};

} // namespace

std::string workerPath()
{
    return NQ_MISBEHAVING_WORKER;
}

std::string hostProgramPath()
{
    return NQ_HOST_PROGRAM;
}

void markDescendants()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch().count();
    const std::string value = std::to_string(getpid()) + '-' + std::to_string(now);
    if (setenv(markVariable, value.c_str(), 1) != 0)
        throwSystemError("setenv");
}

std::vector<pid_t> markedProcesses()
{
    std::vector<pid_t> processes = common::allProcesses();
    const std::string wanted = mark();
    const auto isUnmarked = [&wanted](pid_t process) {
        const std::string environment =
            '\0' + common::contentOf("/proc/" + std::to_string(process) + "/environ");
        return process == getpid() || environment.find('\0' + wanted + '\0') == std::string::npos;
    };
    processes.erase(
        std::remove_if(processes.begin(), processes.end(), isUnmarked), processes.end());
    return processes;
}

std::string commandLine(pid_t process)
{
    const std::string line = common::commandLine(process);
    return line.empty() ? "(ended)" : line;
}

ChildProgram::ChildProgram(const std::string& path, const std::vector<std::string>& arguments)
{
    int output[2];
    int errors[2];
    if (pipe2(output, O_CLOEXEC) != 0 || pipe2(errors, O_CLOEXEC) != 0)
        throwSystemError("pipe2");
    mOutput = output[0];
    mErrors = errors[0];

    SpawnActions spawn;
    posix_spawn_file_actions_adddup2(&spawn.actions, output[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&spawn.actions, errors[1], STDERR_FILENO);
    std::vector<std::string> texts{path};
    texts.insert(texts.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    argv.reserve(texts.size() + 1);
    for (std::string& text : texts)
        argv.push_back(text.data());
    argv.push_back(nullptr);
    const int error =
        posix_spawn(&mPid, path.c_str(), &spawn.actions, nullptr, argv.data(), environ);
    close(output[1]);
    close(errors[1]);
    if (error != 0)
        throw std::system_error(error, std::generic_category(), path);
}

ChildProgram::~ChildProgram()
{
    if (!mIsReaped) {
        ::kill(mPid, SIGKILL);
        while (waitpid(mPid, nullptr, 0) == -1 && errno == EINTR) {
        }
    }
    close(mOutput);
    close(mErrors);
}

std::string ChildProgram::readLine()
{
    const auto deadline = Clock::now() + generousLimit;
    bool ended = false;
    while (mUnread.find('\n') == std::string::npos && !ended)
        if (!appendMore(mOutput, mUnread, deadline, ended) && !ended)
            return "(nothing within the limit)";
    const std::size_t length = std::min(mUnread.find('\n'), mUnread.size());
    std::string line = mUnread.substr(0, length);
    mUnread.erase(0, std::min(length + 1, mUnread.size()));
    return line;
}

bool ChildProgram::outputEndsWithin(std::chrono::milliseconds limit)
{
    const auto deadline = Clock::now() + limit;
    bool ended = false;
    while (appendMore(mOutput, mUnread, deadline, ended)) {
    }
    return ended;
}

std::string ChildProgram::readAllOutput()
{
    mUnread = readToEnd(mOutput, mUnread);
    return std::exchange(mUnread, "");
}

std::string ChildProgram::readAllErrors()
{
    return readToEnd(mErrors, "");
}

int ChildProgram::waitForEnd()
{
    if (!ProcessWatch(mPid).endsWithin(generousLimit))
        return -1;
    int status = 0;
    while (waitpid(mPid, &status, 0) == -1 && errno == EINTR) {
    }
    mIsReaped = true;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace end_to_end
