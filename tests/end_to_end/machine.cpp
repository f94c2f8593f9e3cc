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

std::string readFile(const std::string& path)
{
    // A process may end between the opening and the reading of its files, which are empty then.
    const std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::vector<pid_t> allProcesses()
{
    std::vector<pid_t> processes;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") == std::string::npos)
            processes.push_back(std::stoi(name));
    }
    return processes;
}

/// What the kernel says of a process; as it is here for one that is gone.
struct Status {
    char mState = 0;
    pid_t mParent = 0;
    std::string mStartedAt; // tells it from a later one with the same number
};

Status statusOf(pid_t process)
{
    // The program's name stands in brackets and may hold anything; the fields follow the last one.
    const std::string stat = readFile("/proc/" + std::to_string(process) + "/stat");
    const std::size_t end = stat.rfind(')');
    Status status;
    if (end == std::string::npos)
        return status;
    std::istringstream fields(stat.substr(end + 1));
    fields >> status.mState >> status.mParent;
    for (int field = 5; field <= 22; ++field) // numbered as in the kernel's description
        fields >> status.mStartedAt;
    return status;
}

std::string mark()
{
    const char* value = std::getenv(markVariable);
    return std::string(markVariable) + '=' + (value ? value : "");
}

/// Polls one descriptor for `events` until `deadline`; signals do not lengthen the wait.
bool becomesReady(int fd, short events, Clock::time_point deadline)
{
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd waited{fd, events, 0};
        const int ready = poll(&waited, 1, static_cast<int>(std::max<long>(left, 0)));
        if (ready > 0)
            return true;
        if (ready == 0 || errno != EINTR)
            return false;
    }
}

/// Appends what comes next. False at the end and when nothing comes before the deadline.
bool appendMore(int fd, std::string& text, Clock::time_point deadline, bool& ended)
{
    char bytes[4096];
    if (!becomesReady(fd, POLLIN, deadline))
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

std::map<int, std::string> openDescriptors()
{
    std::map<int, std::string> open;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        const auto target = std::filesystem::read_symlink(entry.path(), gone);
        open[std::stoi(entry.path().filename().string())] = target.string();
    }
    for (auto entry = open.begin(); entry != open.end();) // the iteration's own is closed by now
        entry = fcntl(entry->first, F_GETFD) == -1 ? open.erase(entry) : std::next(entry);
    return open;
}

std::vector<pid_t> children()
{
    std::vector<pid_t> processes = allProcesses();
    const auto isForeign = [](pid_t process) { return statusOf(process).mParent != getpid(); };
    processes.erase(std::remove_if(processes.begin(), processes.end(), isForeign), processes.end());
    return processes;
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
    std::vector<pid_t> processes = allProcesses();
    const std::string wanted = mark();
    const auto isUnmarked = [&wanted](pid_t process) {
        const std::string environment =
            '\0' + readFile("/proc/" + std::to_string(process) + "/environ");
        return process == getpid() || environment.find('\0' + wanted + '\0') == std::string::npos;
    };
    processes.erase(
        std::remove_if(processes.begin(), processes.end(), isUnmarked), processes.end());
    return processes;
}

std::string commandLine(pid_t process)
{
    std::string line = readFile("/proc/" + std::to_string(process) + "/cmdline");
    std::replace(line.begin(), line.end(), '\0', ' ');
    return line.empty() ? "(ended)" : line;
}

std::size_t residentBytes()
{
    std::ifstream statm("/proc/self/statm");
    std::size_t total = 0;
    std::size_t resident = 0;
    statm >> total >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

ProcessWatch::ProcessWatch(pid_t process)
    : mProcess(process),
      mFd(static_cast<int>(syscall(SYS_pidfd_open, process, 0)))
{
    if (mFd != -1 || errno == ESRCH)
        return;
    if (errno != ENOSYS)
        throwSystemError("no watch on process " + std::to_string(process));
    mStartedAt = statusOf(process).mStartedAt;
}

ProcessWatch::~ProcessWatch()
{
    if (mFd != -1)
        close(mFd);
}

bool ProcessWatch::endsWithin(std::chrono::milliseconds limit) const
{
    const auto deadline = Clock::now() + limit;
    if (mFd != -1)
        return becomesReady(mFd, POLLIN, deadline);
    while (isThere()) {
        if (Clock::now() >= deadline)
            return false;
        poll(nullptr, 0, 1); // nothing tells of the end of somebody else's child without a pidfd
    }
    return true;
}

void ProcessWatch::kill(int signal) const
{
    if (mFd != -1)
        syscall(SYS_pidfd_send_signal, mFd, signal, nullptr, 0);
    else if (isThere())
        ::kill(mProcess, signal);
}

bool ProcessWatch::isThere() const
{
    const Status status = statusOf(mProcess);
    return !mStartedAt.empty() && status.mStartedAt == mStartedAt && status.mState != 'Z' &&
           status.mState != 'X';
}

TemporaryFolder::TemporaryFolder()
{
    std::string path = (std::filesystem::temp_directory_path() / "end_to_end_XXXXXX").string();
    if (!mkdtemp(path.data()))
        throwSystemError(path);
    mPath = path;
}

TemporaryFolder::~TemporaryFolder()
{
    std::error_code leftAsItIs;
    std::filesystem::remove_all(mPath, leftAsItIs);
}

std::string TemporaryFolder::file(const std::string& name) const
{
    return (mPath / name).string();
}

std::string TemporaryFolder::addScript(const std::string& name, const std::string& body) const
{
    std::string path = file(name);
    std::ofstream(path) << "#!/bin/sh\n" << body;
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    return path;
}

std::string TemporaryFolder::addFifo(const std::string& name) const
{
    std::string path = file(name);
    if (mkfifo(path.c_str(), 0600) != 0)
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
