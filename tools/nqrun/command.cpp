#include "tools/nqrun/command.h"

#include "tools/nqrun/text.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <sys/stat.h>
#include <system_error>
#include <type_traits>

namespace nqrun {

namespace {

// Host and worker are one program: numbers travel as they are in memory.
template <typename Number>
void append(std::string& bytes, Number number)
{
    static_assert(std::is_trivially_copyable_v<Number>);
    bytes.append(reinterpret_cast<const char*>(&number), sizeof number);
}

void appendText(std::string& bytes, std::string_view text)
{
    append(bytes, static_cast<std::uint64_t>(text.size()));
    bytes += text;
}

class Reader {
public:
    explicit Reader(std::string_view bytes)
        : mBytes(bytes)
    {
    }

    template <typename Number>
    Number number()
    {
        const std::string_view raw = take(sizeof(Number));
        Number value{};
        std::memcpy(&value, raw.data(), sizeof value);
        return value;
    }

    std::string text()
    {
        return std::string(take(number<std::uint64_t>()));
    }

private:
    std::string_view take(std::uint64_t count)
    {
        if (count > mBytes.size())
            throw std::runtime_error("this is no command of nqrun");
        const std::string_view taken = mBytes.substr(0, count);
        mBytes.remove_prefix(count);
        return taken;
    }

    std::string_view mBytes;
};

bool isFolder(const std::string& path)
{
    struct stat about {};
    return ::stat(path.c_str(), &about) == 0 && S_ISDIR(about.st_mode);
}

bool isThere(const std::string& path)
{
    struct stat about {};
    return ::stat(path.c_str(), &about) == 0;
}

} // namespace

std::string Command::encoded() const
{
    std::string bytes;
    append(bytes, serial);
    append(bytes, files);
    append(bytes, static_cast<std::int64_t>(limits.timeout.count()));
    append(bytes, limits.memory);
    append(bytes, limits.openFiles);
    appendText(bytes, program);
    append(bytes, static_cast<std::uint64_t>(arguments.size()));
    for (const std::string& argument : arguments)
        appendText(bytes, argument);
    append(bytes, hasInput);
    appendText(bytes, input);
    return bytes;
}

Command Command::decoded(std::string_view bytes)
{
    Reader reader(bytes);
    Command command;
    command.serial = reader.number<std::uint64_t>();
    command.files = reader.number<CommandFiles>();
    command.limits.timeout = std::chrono::nanoseconds(reader.number<std::int64_t>());
    command.limits.memory = reader.number<std::uint64_t>();
    command.limits.openFiles = reader.number<std::uint64_t>();
    command.program = reader.text();
    const auto count = reader.number<std::uint64_t>();
    if (count == 0 || count > bytes.size())
        throw std::runtime_error("this is no command of nqrun");
    command.arguments.reserve(count);
    for (std::uint64_t argument = 0; argument < count; ++argument)
        command.arguments.push_back(reader.text());
    command.hasInput = reader.number<bool>();
    command.input = reader.text();
    return command;
}

std::string CommandFailure::encoded() const
{
    std::string bytes;
    append(bytes, report);
    appendText(bytes, text);
    return bytes;
}

CommandFailure CommandFailure::decoded(std::string_view bytes)
{
    Reader reader(bytes);
    CommandFailure failure;
    failure.report = reader.number<Report>();
    failure.text = reader.text();
    return failure;
}

int Report::shellStatus() const
{
    switch (end) {
    case End::Exited:
        return code;
    case End::Signalled:
        return 128 + code;
    case End::TimedOut:
        return 124;
    case End::OutputLost:
        return 125;
    case End::MemoryCap:
    case End::None:
        return 128 + SIGKILL;
    case End::NotStarted:
        return code == ENOENT || code == ENOTDIR ? 127 : 126;
    }
    return 255;
}

std::string signalText(int signal)
{
    switch (signal) {
#define NQRUN_NAME(name)                                                                           \
    case name:                                                                                     \
        return #name
        NQRUN_NAME(SIGHUP);
        NQRUN_NAME(SIGINT);
        NQRUN_NAME(SIGQUIT);
        NQRUN_NAME(SIGILL);
        NQRUN_NAME(SIGTRAP);
        NQRUN_NAME(SIGABRT);
        NQRUN_NAME(SIGBUS);
        NQRUN_NAME(SIGFPE);
        NQRUN_NAME(SIGKILL);
        NQRUN_NAME(SIGUSR1);
        NQRUN_NAME(SIGSEGV);
        NQRUN_NAME(SIGUSR2);
        NQRUN_NAME(SIGPIPE);
        NQRUN_NAME(SIGALRM);
        NQRUN_NAME(SIGTERM);
        NQRUN_NAME(SIGXCPU);
        NQRUN_NAME(SIGXFSZ);
        NQRUN_NAME(SIGSYS);
#undef NQRUN_NAME
    default:
        return "signal " + std::to_string(signal);
    }
}

std::string startFailureText(int error, const std::string& program)
{
    const std::string name = shown(program, 200);
    switch (error) {
    case ENOENT:
        if (isThere(program))
            return name +
                   " cannot be started: the interpreter that its first line names is missing";
        return name + " cannot be started: no such program";
    case EACCES:
        if (isFolder(program))
            return name + " cannot be started: it is a folder";
        return name + " cannot be started: it is not executable";
    case ENOEXEC:
        return name +
               " cannot be started: it is neither a program nor a script that begins with #!";
    case E2BIG:
        return name +
               " cannot be started: its arguments and environment are too long for the system";
    default:
        return name + " cannot be started: " + std::generic_category().message(error);
    }
}

std::string endText(const Report& report, const CommandLimits& limits, const std::string& program)
{
    switch (report.end) {
    case End::Exited:
        return "exited with status " + std::to_string(report.code);
    case End::Signalled: {
        std::string text = "ended by " + signalText(report.code);
        if (report.dumpedCore != 0)
            text += ", with a core dump";
        if (report.code == SIGKILL)
            text += " (from somebody, or from the system when memory ran out)";
        return text;
    }
    case End::TimedOut:
        return "timed out after " + durationText(limits.timeout);
    case End::MemoryCap:
        return "used " + sizeText(report.peakMemory) + " of memory, more than " +
               sizeText(limits.memory);
    case End::NotStarted:
        return startFailureText(report.code, program);
    case End::OutputLost:
        return "lost: what it has printed could not be kept: " +
               std::generic_category().message(report.code);
    case End::None:
        break;
    }
    return "lost";
}

} // namespace nqrun
