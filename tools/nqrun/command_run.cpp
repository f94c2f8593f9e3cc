#include "tools/nqrun/command_run.h"

#include "tools/nqrun/io.h"
#include "tools/nqrun/process_tree.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace nqrun {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds memoryTick{100};

// A command that writes without end leaves time for its limits. At the end nobody writes any more,
// and what is left fits into a pipe, whose size a command can only raise to the system's limit.
constexpr std::size_t mostMovedAtOnce = std::size_t{1} << 20;
constexpr std::size_t mostMovedAtEnd = std::size_t{64} << 20;

constexpr std::size_t openSlots = 64; // a handful is in use at a time

extern "C" void ignoreChild(int /*signal*/) {}

// SIGCHLD does nothing but end a wait, and arrives only there.
void catchEndsOfChildren()
{
    struct sigaction action {};
    action.sa_handler = ignoreChild;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGCHLD, &action, nullptr);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGCHLD);
    ::sigprocmask(SIG_BLOCK, &blocked, nullptr);
}

// The host's file, opened anew so that it is written to at its end.
Descriptor openOfHost(const CommandFiles& files, int number, int flags)
{
    const std::string path =
        "/proc/" + std::to_string(files.host) + "/fd/" + std::to_string(number);
    Descriptor file(::open(path.c_str(), flags | O_CLOEXEC));
    if (!file.isOpen())
        throw std::runtime_error("the host's file " + path + " cannot be opened: " + lastError());
    return file;
}

std::uint64_t sizeOf(int file)
{
    struct stat about {};
    return ::fstat(file, &about) == 0 ? static_cast<std::uint64_t>(about.st_size) : 0;
}

// In memory: a block is of a size that was chosen, and the host has it in memory as well.
Descriptor inputOf(const std::string& input)
{
    Descriptor file(::memfd_create("nqrun-input", MFD_CLOEXEC));
    if (!file.isOpen() || !writeAll(file.number(), input) ||
        ::lseek(file.number(), 0, SEEK_SET) != 0)
        throw std::runtime_error("there is no memory for the command's input: " + lastError());
    return file;
}

/// Starts a command in a process group of its own, with no signal blocked or ignored.
class Spawner {
public:
    Spawner()
    {
        ::posix_spawn_file_actions_init(&mActions);
        ::posix_spawnattr_init(&mAttributes);
        sigset_t none;
        sigemptyset(&none);
        // sigfillset() leaves out two signals that the C library keeps to itself, and a signal that
        // is not in the set would start ignored.
        sigset_t all;
        std::memset(&all, 0xff, sizeof all);
        ::posix_spawnattr_setsigmask(&mAttributes, &none);
        ::posix_spawnattr_setsigdefault(&mAttributes, &all);
        ::posix_spawnattr_setpgroup(&mAttributes, 0);
        ::posix_spawnattr_setflags(
            &mAttributes,
            static_cast<short>(
                POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP));
    }
    ~Spawner()
    {
        ::posix_spawnattr_destroy(&mAttributes);
        ::posix_spawn_file_actions_destroy(&mActions);
    }
    Spawner(const Spawner&) = delete;
    Spawner& operator=(const Spawner&) = delete;

    void connect(int from, int stream)
    {
        ::posix_spawn_file_actions_adddup2(&mActions, from, stream);
    }

    // 0, or the error.
    int start(const Command& command, pid_t& process)
    {
        std::vector<char*> arguments;
        arguments.reserve(command.arguments.size() + 1);
        for (const std::string& argument : command.arguments)
            arguments.push_back(const_cast<char*>(argument.c_str()));
        arguments.push_back(nullptr);
        const auto spawn =
            command.program.find('/') == std::string::npos ? ::posix_spawnp : ::posix_spawn;
        return spawn(
            &process, command.program.c_str(), &mActions, &mAttributes, arguments.data(), environ);
    }

private:
    posix_spawn_file_actions_t mActions{};
    posix_spawnattr_t mAttributes{};
};

void takeStatus(Report& report, int status, const rusage& usage)
{
    report.peakMemory =
        std::max(report.peakMemory, static_cast<std::uint64_t>(usage.ru_maxrss) * 1024);
    if (report.end != End::None)
        return; // it was ended, and why is known
    if (WIFEXITED(status)) {
        report.end = End::Exited;
        report.code = WEXITSTATUS(status);
    } else {
        report.end = End::Signalled;
        report.code = WTERMSIG(status);
        report.dumpedCore = WCOREDUMP(status) ? 1 : 0;
    }
}

void setOpenFiles(std::uint64_t soft)
{
    rlimit limit{};
    if (soft == 0 || ::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == soft)
        return;
    limit.rlim_cur = soft;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

std::int64_t microseconds(std::chrono::nanoseconds duration)
{
    return std::chrono::duration_cast<std::chrono::microseconds>(duration).count();
}

} // namespace

CommandRun::CommandRun(int worker)
    : mWorker(worker)
{
    catchEndsOfChildren();
    makeStreams();
}

void CommandRun::makeStreams()
{
    for (Stream* const stream : {&mOutput, &mError}) {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0)
            throw std::runtime_error("no pipe can be made: " + lastError());
        *stream = {Descriptor(ends[0]), Descriptor(ends[1])};
        ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
    }
}

// What cannot be kept is dropped, so that the command does not wait for ever.
void CommandRun::move(const Stream& from, const Descriptor& to, std::size_t most)
{
    std::array<char, std::size_t{64} << 10> part;
    for (std::size_t moved = 0; moved < most;) {
        const ssize_t count =
            retryOnSignal([&] { return ::read(from.reader.number(), part.data(), part.size()); });
        if (count <= 0)
            return;
        moved += static_cast<std::size_t>(count);
        const std::string_view bytes(part.data(), static_cast<std::size_t>(count));
        if (mWriteError == 0 && !writeAll(to.number(), bytes))
            mWriteError = errno;
    }
}

bool CommandRun::isAlone() const
{
    return mIsAlone;
}

std::optional<CommandFailure> CommandRun::operator()(const Command& command)
{
    const Files& files = filesOf(command.files);
    Descriptor input;
    Spawner spawner;
    if (command.hasInput) {
        input = inputOf(command.input);
        spawner.connect(input.number(), STDIN_FILENO);
    }
    for (const Stream* const stream : {&mOutput, &mError})
        ::fcntl(stream->writer.number(), F_SETFL, 0); // a command may have made it non-blocking
    spawner.connect(mOutput.writer.number(), STDOUT_FILENO);
    spawner.connect(mError.writer.number(), STDERR_FILENO);
    mWriteError = 0;

    if (mOpenFiles != command.limits.openFiles)
        setOpenFiles(mOpenFiles = command.limits.openFiles);

    Report report;
    report.serial = command.serial;
    report.startedAt = microseconds(std::chrono::system_clock::now().time_since_epoch());
    const Clock::time_point start = Clock::now();
    pid_t process = 0;
    const int error = spawner.start(command, process);
    if (error != 0) {
        report.end = End::NotStarted;
        report.code = error;
    } else {
        await(process, command, files, report);
    }
    report.ran = microseconds(Clock::now() - start);
    report.outputBytes = sizeOf(files.output.number());
    report.errorBytes = sizeOf(files.error.number());
    if (::pwrite(files.report.number(), &report, sizeof report, 0) != sizeof report)
        throw std::runtime_error("the host's report cannot be written: " + lastError());
    if (report.isDone())
        return std::nullopt;
    return CommandFailure{report, endText(report, command.limits, command.program)};
}

// Waits with one system call for the end of a child, for output, for the worker's end and for the
// next limit; ends with no descendant left.
void CommandRun::await(pid_t process, const Command& command, const Files& files, Report& report)
{
    const CommandLimits& limits = command.limits;
    const bool hasTimeout = limits.timeout.count() > 0;
    const Clock::time_point start = Clock::now();
    const Clock::time_point end = start + limits.timeout;
    Clock::time_point look = start + memoryTick;
    sigset_t none;
    sigemptyset(&none);
    bool isOver = false;
    const auto onReaped = [&](pid_t child, int status, const rusage& usage) {
        isOver = isOver || child == process;
        if (child == process)
            takeStatus(report, status, usage);
    };
    for (;;) {
        for (;;) {
            int status = 0;
            rusage usage{};
            const pid_t child = ::wait4(-1, &status, WNOHANG, &usage);
            if (child <= 0)
                break;
            onReaped(child, status, usage);
        }
        if (isOver)
            break;
        const Clock::time_point now = Clock::now();
        if (hasTimeout && now >= end) {
            report.end = End::TimedOut;
            break;
        }
        if (limits.memory != 0 && now >= look) {
            look = now + memoryTick;
            const std::uint64_t memory = residentMemory(::getpid(), false, limits.memory);
            report.peakMemory = std::max(report.peakMemory, memory);
            if (memory > limits.memory) {
                report.end = End::MemoryCap;
                break;
            }
        }
        std::chrono::nanoseconds wait = std::chrono::hours(1);
        if (hasTimeout)
            wait = std::min<std::chrono::nanoseconds>(wait, end - now);
        if (limits.memory != 0)
            wait = std::min<std::chrono::nanoseconds>(wait, look - now);
        const timespec limit{
            static_cast<time_t>(wait.count() / 1'000'000'000), wait.count() % 1'000'000'000};
        std::array<pollfd, 3> sources = {
            {{mWorker, POLLIN, 0},
             {mOutput.reader.number(), POLLIN, 0},
             {mError.reader.number(), POLLIN, 0}}};
        if (::ppoll(sources.data(), sources.size(), &limit, &none) <= 0)
            continue;
        if (sources[0].revents != 0) { // it says nothing while its command runs: this is its end
            mIsAlone = true;
            break;
        }
        move(mOutput, files.output, mostMovedAtOnce);
        move(mError, files.error, mostMovedAtOnce);
    }
    // One call for the most of them: a family that forks without end would leave this process no
    // time to look for its members first. The group is the command's for as long as it is not
    // reaped.
    if (!isOver)
        ::kill(-process, SIGKILL);
    report.hasSurvivors = endDescendants(onReaped) ? 0 : 1;
    move(mOutput, files.output, mostMovedAtEnd);
    move(mError, files.error, mostMovedAtEnd);
    if (mWriteError != 0 && report.isDone()) {
        report.end = End::OutputLost;
        report.code = mWriteError;
    }
    if (report.hasSurvivors != 0)
        makeStreams(); // they have the old ones
}

const CommandRun::Files& CommandRun::filesOf(const CommandFiles& files)
{
    const auto known = mFiles.find(files.slot);
    if (known != mFiles.end())
        return known->second;
    if (mFiles.size() >= openSlots)
        mFiles.clear();
    Files opened{
        openOfHost(files, files.output, O_WRONLY | O_APPEND),
        openOfHost(files, files.error, O_WRONLY | O_APPEND),
        openOfHost(files, files.report, O_WRONLY)};
    return mFiles.emplace(files.slot, std::move(opened)).first->second;
}

} // namespace nqrun
