#include "system/nqLog.h"

#include "system/linux/nqDeadline.h"
#include "system/linux/nqDescriptor.h"
#include "system/linux/nqSystemCall.h"
#include "system/nqThread.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <iostream>
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

/// How long a line waits for a full non-blocking stream: long enough for a terminal to catch up,
/// short enough that the pump does not seem to hang.
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

    // Not a stream, which would group digits as the host's global locale says.
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

// What a write may raise in its thread: SIGPIPE without a reader, SIGXFSZ at the limit of file
// sizes.
constexpr std::array<int, 2> signalsOfWrites{SIGPIPE, SIGXFSZ};

/// Keeps writes from raising signals in the calling thread without touching the host's handlers:
/// the signals are blocked, and those that became pending meanwhile are consumed. What was pending
/// before stays pending.
class QuietWrites {
public:
    QuietWrites()
    {
        sigset_t pending;
        ::sigpending(&pending);
        ::sigemptyset(&mMine);
        for (const int signal : signalsOfWrites)
            if (::sigismember(&pending, signal) == 0)
                ::sigaddset(&mMine, signal);
        ::pthread_sigmask(SIG_BLOCK, &mMine, &mHostMask);
    }

    ~QuietWrites()
    {
        const timespec noWait{};
        while (retryOnSignal([&] { return ::sigtimedwait(&mMine, nullptr, &noWait); }) > 0) {
        }
        ::pthread_sigmask(SIG_SETMASK, &mHostMask, nullptr);
    }

    QuietWrites(const QuietWrites&) = delete;
    QuietWrites& operator=(const QuietWrites&) = delete;

private:
    sigset_t mMine{}; // the others are pending, and therefore blocked already
    sigset_t mHostMask{};
};

bool waitUntilWritable(int fd)
{
    pollfd stream{fd, POLLOUT, 0};
    return nqDeadline(fullStreamPatienceMs).poll(&stream, 1) > 0;
}

/// Normally one write, so that lines of several threads and processes stay whole. What cannot be
/// written is dropped.
void writeLine(int fd, const std::string& line)
{
    const QuietWrites quiet;
    for (std::size_t written = 0; written < line.size();) {
        const ssize_t count = retryOnSignal(
            [&] { return ::write(fd, line.data() + written, line.size() - written); });
        if (count >= 0)
            written += static_cast<std::size_t>(count);
        else if (errno != EAGAIN || !waitUntilWritable(fd))
            return;
    }
}

/// Flushes what the host has printed so far. Through the buffer and not the stream, whose state and
/// exceptions are the host's.
void flushStandardOutput()
{
    const QuietWrites quiet;
    try {
        if (std::cout.rdbuf() != nullptr)
            std::cout.rdbuf()->pubsync();
    } catch (...) {
        // The host's own buffer may throw anything; the line is written all the same.
    }
    std::fflush(stdout);
}

/// Occupies the numbers of closed standard streams for as long as it lives, so that the C library's
/// socket to the system log cannot get one and receive what is printed later.
class StandardStreamsFiller {
public:
    StandardStreamsFiller()
    {
        while (mCount < mFillers.size()) {
            const int fd = retryOnSignal([] { return ::open("/dev/null", O_RDWR | O_CLOEXEC); });
            if (fd < 0)
                return;
            if (fd >= standardStreamCount) {
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
    std::array<int, standardStreamCount> mFillers{};
    std::size_t mCount = 0;
};

} // namespace

struct nqLog::Private {
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
    : mPrivate(std::make_unique<Private>())
{
}

nqLog::nqLog(const std::string& filePathUtf8)
    : nqLog()
{
    constexpr int appendOrCreate = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY;
    constexpr mode_t asTheUmaskAllows = 0666;
    mPrivate->mFile = nqDescriptor(retryOnSignal(
        [&] { return ::open(filePathUtf8.c_str(), appendOrCreate, asTheUmaskAllows); }));
    mPrivate->mFile.moveOutOfRangeOfSelect();
}

nqLog::~nqLog()
{
    if (msInstance == this)
        msInstance = nullptr;
}

void nqLog::setLevelEnabled(int level, bool enabled)
{
    if (isLevel(level))
        mPrivate->mEnabled[static_cast<std::size_t>(level)] = enabled;
}

bool nqLog::isLevelEnabled(int level) const
{
    return isLevel(level) && mPrivate->mEnabled[static_cast<std::size_t>(level)];
}

void nqLog::Write(LogEntry& entry, bool /*flush*/)
{
    const nqThread::Uncancellable untilWritten;
    const int fd = mPrivate->mFile.isOpen() ? mPrivate->mFile.get() : STDERR_FILENO;
    writeLine(fd, formatLine(entry));
}

void nqLog::WriteToStandardOutput(const LogEntry& entry)
{
    const nqThread::Uncancellable untilWritten;
    const std::string line = entry.mPrefix + entry.mMessage + '\n';
    flushStandardOutput();
    // Past the buffer: what a failed write left in it would be written at exit, signals and all.
    writeLine(::fileno(stdout), line);
}

void nqLog::WriteToSystemLog(const LogEntry& entry)
{
    const nqThread::Uncancellable untilWritten;
    const int priority = isLevel(entry.mLevel)
                             ? levels[static_cast<std::size_t>(entry.mLevel)].mSystemLogPriority
                             : LOG_INFO;
    const StandardStreamsFiller filler;
    const QuietWrites quiet; // a host may have asked syslog for a copy on standard error
    ::syslog(priority, "%s", entry.mSystemLogText.c_str());
}

} // namespace nq
