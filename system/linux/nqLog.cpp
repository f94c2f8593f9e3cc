#include "system/nqLog.h"

#include "system/linux/nqDeadline.h"
#include "system/linux/nqDescriptor.h"
#include "system/linux/nqSystemCall.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>
#include <utility>

namespace nq {

namespace {

struct LevelTraits {
    const char* mName;
    int mSystemLogPriority;
};

constexpr std::array<LevelTraits, 4> levels{{
    {"info", LOG_INFO},
    {"notice", LOG_NOTICE},
    {"warning", LOG_WARNING},
    {"error", LOG_ERR},
}};

constexpr char separator[] = " | ";

/// How long a full non-blocking stream may hold up a line: long enough for a terminal to catch up,
/// short enough that the pump that logs does not look dead.
constexpr std::int64_t fullStreamPatienceMs = 1'000;

bool isLevel(int level)
{
    return level >= 0 && static_cast<std::size_t>(level) < levels.size();
}

std::string levelName(int level)
{
    if (isLevel(level))
        return levels[static_cast<std::size_t>(level)].mName;
    return "level " + std::to_string(level);
}

/// "2025-06-30 14:03:59.042" in local time.
std::string formatStamp(std::uint64_t timestampMs)
{
    const auto seconds = static_cast<std::time_t>(timestampMs / 1'000);
    std::tm local{};
    ::localtime_r(&seconds, &local);

    // Not a stream: a stream would take over the grouping of the host's global locale.
    std::array<char, 96> text{}; // seven numbers of any size
    std::snprintf(
        text.data(),
        text.size(),
        "%04d-%02d-%02d %02d:%02d:%02d.%03d",
        local.tm_year + 1900,
        local.tm_mon + 1,
        local.tm_mday,
        local.tm_hour,
        local.tm_min,
        local.tm_sec,
        static_cast<int>(timestampMs % 1'000));
    return text.data();
}

std::string formatLine(const nqLog::LogEntry& entry)
{
    std::string line = entry.mPrefix + entry.mMessage;
    if (!entry.mSecondText.empty())
        line += " [" + entry.mSecondText + "]";
    const auto isLineBreak = [](char character) { return character == '\n' || character == '\r'; };
    std::replace_if(line.begin(), line.end(), isLineBreak, ' ');
    line += '\n';
    return line;
}

/// Keeps a write to a closed pipe from raising SIGPIPE in the calling thread, without touching the
/// host's handler: the signal is blocked, and one that this thread caused meanwhile is taken away.
class BrokenPipeGuard {
public:
    BrokenPipeGuard()
    {
        sigset_t pending;
        ::sigpending(&pending);
        mWasPending = ::sigismember(&pending, SIGPIPE) == 1;
        ::sigemptyset(&mBrokenPipe);
        ::sigaddset(&mBrokenPipe, SIGPIPE);
        ::pthread_sigmask(SIG_BLOCK, &mBrokenPipe, &mHostMask);
    }

    ~BrokenPipeGuard()
    {
        const timespec noWait{};
        if (!mWasPending)
            retryOnSignal([&] { return ::sigtimedwait(&mBrokenPipe, nullptr, &noWait); });
        ::pthread_sigmask(SIG_SETMASK, &mHostMask, nullptr);
    }

    BrokenPipeGuard(const BrokenPipeGuard&) = delete;
    BrokenPipeGuard& operator=(const BrokenPipeGuard&) = delete;

private:
    sigset_t mBrokenPipe{};
    sigset_t mHostMask{};
    bool mWasPending = false; // the host has blocked SIGPIPE and waits for this one itself
};

bool waitUntilWritable(int fd)
{
    pollfd stream{fd, POLLOUT, 0};
    return nqDeadline(fullStreamPatienceMs).poll(&stream, 1) > 0;
}

/// One write in the ordinary case, so that lines of several threads and processes stay whole. What
/// cannot be written is dropped: a log line must not take the host down.
void writeLine(int fd, const std::string& line)
{
    const BrokenPipeGuard guard;
    for (std::size_t written = 0; written < line.size();) {
        const ssize_t count = retryOnSignal(
            [&] { return ::write(fd, line.data() + written, line.size() - written); });
        if (count >= 0)
            written += static_cast<std::size_t>(count);
        else if (errno != EAGAIN || !waitUntilWritable(fd))
            return;
    }
}

/// Fills the free numbers among the standard streams for as long as it lives. The C library opens
/// its socket to the system log by itself; in a host that runs with a standard stream closed, that
/// socket would receive whatever is printed later.
class StandardStreamsFiller {
public:
    StandardStreamsFiller()
    {
        while (mCount < mFillers.size()) {
            const int fd = retryOnSignal([] { return ::open("/dev/null", O_RDWR | O_CLOEXEC); });
            if (fd < 0)
                return;
            if (fd > STDERR_FILENO) {
                ::close(fd);
                return;
            }
            mFillers[mCount++] = fd;
        }
    }

    ~StandardStreamsFiller()
    {
        while (mCount > 0)
            ::close(mFillers[--mCount]);
    }

    StandardStreamsFiller(const StandardStreamsFiller&) = delete;
    StandardStreamsFiller& operator=(const StandardStreamsFiller&) = delete;

private:
    std::array<int, STDERR_FILENO + 1> mFillers{};
    std::size_t mCount = 0;
};

} // namespace

struct nqLog::State {
    std::array<bool, levels.size()> mEnabled{true, true, true, true};
    nqDescriptor mFile; // none: standard error
};

nqLog* nqLog::msInstance = nullptr;

void nqLog::LogEntry::computeLogPrefix(bool withThreadId)
{
    std::string prefix = formatStamp(mTimestampMs) + separator + levelName(mLevel) + separator;
    if (withThreadId)
        prefix += "thread " + mThreadId + separator;
    mPrefix = std::move(prefix);
}

nqLog::nqLog()
    : mState(std::make_unique<State>())
{
}

nqLog::nqLog(const std::string& filePathUtf8)
    : nqLog()
{
    constexpr int appendOrCreate = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY;
    constexpr mode_t asTheUmaskAllows = 0666;
    mState->mFile = nqDescriptor(retryOnSignal(
        [&] { return ::open(filePathUtf8.c_str(), appendOrCreate, asTheUmaskAllows); }));
}

nqLog::~nqLog()
{
    if (msInstance == this)
        msInstance = nullptr;
}

void nqLog::setLevelEnabled(int level, bool enabled)
{
    if (isLevel(level))
        mState->mEnabled[static_cast<std::size_t>(level)] = enabled;
}

bool nqLog::isLevelEnabled(int level) const
{
    return isLevel(level) && mState->mEnabled[static_cast<std::size_t>(level)];
}

void nqLog::Write(LogEntry& entry, bool /*flush*/)
{
    const int fd = mState->mFile.isOpen() ? mState->mFile.get() : STDERR_FILENO;
    writeLine(fd, formatLine(entry));
}

void nqLog::WriteToSystemLog(const LogEntry& entry)
{
    const int priority = isLevel(entry.mLevel)
                             ? levels[static_cast<std::size_t>(entry.mLevel)].mSystemLogPriority
                             : LOG_INFO;
    const StandardStreamsFiller filler;
    ::syslog(priority, "%s", entry.mSystemLogText.c_str());
}

} // namespace nq
