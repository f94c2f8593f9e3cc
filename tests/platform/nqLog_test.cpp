#include "system/nqLog.h"
#include "tests/common/descriptors.h"
#include "tests/common/files.h"
#include "tests/common/waiting.h"

#include <array>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iostream>
#include <locale>
#include <map>
#include <optional>
#include <sstream>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using nq::nqLog;

/// What the platform handed to syslog(), and the descriptor that the C library would have got for
/// its socket at that moment.
struct SystemLogCall {
    int mPriority;
    std::string mText;
    int mSocket;
};
std::vector<SystemLogCall> systemLogCalls;
bool systemLogCopiesToStandardError = false; // as after openlog() with LOG_PERROR

void recordSystemLogCall(int priority, const char* format, va_list arguments)
{
    std::array<char, 1'024> text{};
    std::vsnprintf(text.data(), text.size(), format, arguments);
    const int lowestFree = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    ::close(lowestFree);
    systemLogCalls.push_back({priority, text.data(), lowestFree});
    if (systemLogCopiesToStandardError && ::write(STDERR_FILENO, text.data(), text.size()) < 0)
        systemLogCopiesToStandardError = false;
}

} // namespace

/// These two stand in front of the C library's functions, for the platform library too.
extern "C" void syslog(int priority, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    recordSystemLogCall(priority, format, arguments);
    va_end(arguments);
}

// NOLINTNEXTLINE(bugprone-reserved-identifier): what the C library's header calls when fortified
extern "C" void __syslog_chk(int priority, int /*flag*/, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    recordSystemLogCall(priority, format, arguments);
    va_end(arguments);
}

namespace {

nqLog::LogEntry entryWithMessage(const std::string& message)
{
    nqLog::LogEntry entry;
    entry.mMessage = message;
    entry.mLevel = nqLog::Warning;
    return entry;
}

/// Lets a standard stream be something else, or closed, for as long as it lives.
class ReplacedStream {
public:
    explicit ReplacedStream(int stream)
        : mStream(stream)
    {
        mOriginal = ::fcntl(stream, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        ::close(stream);
    }

    ReplacedStream(int stream, int replacement)
        : ReplacedStream(stream)
    {
        ::dup2(replacement, stream);
    }

    ~ReplacedStream()
    {
        ::dup2(mOriginal, mStream);
        ::close(mOriginal);
    }

    ReplacedStream(const ReplacedStream&) = delete;
    ReplacedStream& operator=(const ReplacedStream&) = delete;

private:
    int mStream;
    int mOriginal;
};

/// A pipe whose ends close by themselves.
class Pipe {
public:
    Pipe()
    {
        EXPECT_EQ(::pipe2(mEnds.data(), O_CLOEXEC), 0);
    }

    ~Pipe()
    {
        closeEnd(0);
        closeEnd(1);
    }

    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    int readEnd() const
    {
        return mEnds[0];
    }
    int writeEnd() const
    {
        return mEnds[1];
    }
    void closeReadEnd()
    {
        closeEnd(0);
    }
    void closeWriteEnd()
    {
        closeEnd(1);
    }

    /// All bytes up to the end of the stream.
    std::string drain() const
    {
        return common::readAll(readEnd());
    }

private:
    void closeEnd(std::size_t end)
    {
        if (mEnds[end] >= 0)
            ::close(mEnds[end]);
        mEnds[end] = -1;
    }

    std::array<int, 2> mEnds{-1, -1};
};

void write(nqLog& log, nqLog::LogEntry entry, bool flush)
{
    log.Write(entry, flush);
}

/// What `log` writes to standard error for `entry`.
std::string standardErrorOf(nqLog& log, const nqLog::LogEntry& entry)
{
    Pipe pipe;
    {
        const ReplacedStream standardError(STDERR_FILENO, pipe.writeEnd());
        write(log, entry, true);
    }
    pipe.closeWriteEnd();
    return pipe.drain();
}

/// Gives each test a file name of its own, and checks that no descriptor is left behind.
class Log : public ::testing::Test {
protected:
    void SetUp() override
    {
        systemLogCalls.clear();
        mDescriptorsBefore = common::openDescriptors();
    }

    void TearDown() override
    {
        EXPECT_EQ(common::openDescriptors(), mDescriptorsBefore);
        EXPECT_EQ(nqLog::msInstance, nullptr);
    }

    std::string fileContent() const
    {
        return common::contentOf(mPath);
    }

    /// The descriptor under which this process holds the log file open; -1 for none.
    int descriptorOfFile() const
    {
        for (const auto& [number, target] : common::openDescriptors())
            if (target == std::filesystem::canonical(mFolder.path()) / "log")
                return number;
        return -1;
    }

    common::TemporaryFolder mFolder;
    const std::string mPath = mFolder.file("log");
    std::map<int, std::string> mDescriptorsBefore;
};

TEST_F(Log, startsWithEveryLevelEnabled)
{
    const nqLog log;
    for (const int level : {nqLog::Info, nqLog::Notice, nqLog::Warning, nqLog::Error})
        EXPECT_TRUE(log.isLevelEnabled(level)) << level;
}

TEST_F(Log, switchesOneLevelAlone)
{
    nqLog log;
    log.setLevelEnabled(nqLog::Notice, false);
    EXPECT_TRUE(log.isLevelEnabled(nqLog::Info));
    EXPECT_FALSE(log.isLevelEnabled(nqLog::Notice));
    EXPECT_TRUE(log.isLevelEnabled(nqLog::Warning));

    log.setLevelEnabled(nqLog::Notice, true);
    EXPECT_TRUE(log.isLevelEnabled(nqLog::Notice));
}

TEST_F(Log, knowsNoLevelOutside0To3)
{
    nqLog log;
    for (const int level : {-1, static_cast<int>(nqLog::Disabled), 5, 1'000'000}) {
        log.setLevelEnabled(level, true);
        EXPECT_FALSE(log.isLevelEnabled(level)) << level;
    }
}

/// Sets the time zone and puts the old one back.
class TimeZone {
public:
    explicit TimeZone(const char* zone)
    {
        if (const char* previous = std::getenv("TZ"))
            mPrevious = previous;
        ::setenv("TZ", zone, 1);
        ::tzset();
    }

    ~TimeZone()
    {
        if (mPrevious)
            ::setenv("TZ", mPrevious->c_str(), 1);
        else
            ::unsetenv("TZ");
        ::tzset();
    }

    TimeZone(const TimeZone&) = delete;
    TimeZone& operator=(const TimeZone&) = delete;

private:
    std::optional<std::string> mPrevious;
};

nqLog::LogEntry stampedEntry()
{
    nqLog::LogEntry entry;
    entry.mTimestampMs = 1'751'292'239'042; // 2025-06-30 14:03:59.042 UTC
    entry.mLevel = nqLog::Warning;
    entry.mThreadId = "4711";
    return entry;
}

TEST_F(Log, prefixShowsStampLevelAndThreadWithoutALogger)
{
    const TimeZone utc("UTC0");
    nqLog::LogEntry entry = stampedEntry();
    entry.computeLogPrefix(true);
    EXPECT_EQ(entry.mPrefix, "2025-06-30 14:03:59.042 | warning | thread 4711 | ");
}

TEST_F(Log, prefixLeavesTheThreadOutWhenToldTo)
{
    const TimeZone utc("UTC0");
    nqLog::LogEntry entry = stampedEntry();
    entry.computeLogPrefix(false);
    EXPECT_EQ(entry.mPrefix, "2025-06-30 14:03:59.042 | warning | ");
}

TEST_F(Log, prefixIsInLocalTime)
{
    const TimeZone eastOfGreenwich("TEST-5:30");
    nqLog::LogEntry entry = stampedEntry();
    entry.computeLogPrefix(false);
    EXPECT_EQ(entry.mPrefix, "2025-06-30 19:33:59.042 | warning | ");
}

TEST_F(Log, prefixNamesEveryLevel)
{
    const TimeZone utc("UTC0");
    const auto levelName = [](int level) {
        nqLog::LogEntry entry = stampedEntry();
        entry.mLevel = level;
        entry.computeLogPrefix(false);
        return entry.mPrefix.substr(sizeof("2025-06-30 14:03:59.042 | ") - 1);
    };
    EXPECT_EQ(levelName(0), "info | ");
    EXPECT_EQ(levelName(1), "notice | ");
    EXPECT_EQ(levelName(2), "warning | ");
    EXPECT_EQ(levelName(3), "error | ");
    EXPECT_EQ(levelName(4), "level 4 | ");
    EXPECT_EQ(levelName(-1), "level -1 | ");
}

TEST_F(Log, prefixIsUnmovedByAGroupingGlobalLocale)
{
    struct Grouping : std::numpunct<char> {
        char do_thousands_sep() const override
        {
            return '.';
        }
        std::string do_grouping() const override
        {
            return "\1";
        }
    };
    const TimeZone utc("UTC0");
    const std::locale previous = std::locale::global({std::locale(), new Grouping});
    nqLog::LogEntry entry = stampedEntry();
    entry.mLevel = 4'711;
    entry.computeLogPrefix(true);
    std::locale::global(previous);

    EXPECT_EQ(entry.mPrefix, "2025-06-30 14:03:59.042 | level 4711 | thread 4711 | ");
}

TEST_F(Log, prefixOfTheLargestStampIsStillText)
{
    nqLog::LogEntry entry = stampedEntry();
    entry.mTimestampMs = UINT64_MAX;
    entry.computeLogPrefix(false);
    EXPECT_NE(entry.mPrefix.find(".615 | warning | "), std::string::npos) << entry.mPrefix;
}

TEST_F(Log, aLineIsPrefixMessageAndSecondTextInBrackets)
{
    nqLog log;
    nqLog::LogEntry entry = entryWithMessage("message");
    entry.mPrefix = "prefix | ";
    EXPECT_EQ(standardErrorOf(log, entry), "prefix | message\n");

    entry.mSecondText = "more";
    EXPECT_EQ(standardErrorOf(log, entry), "prefix | message [more]\n");
}

TEST_F(Log, lineBreaksBecomeBlanks)
{
    nqLog log;
    nqLog::LogEntry entry = entryWithMessage("one\ntwo\rthree");
    entry.mSecondText = "four\nfive";
    EXPECT_EQ(standardErrorOf(log, entry), "one two three [four five]\n");
}

TEST_F(Log, percentSignsAreOrdinaryText)
{
    nqLog log;
    EXPECT_EQ(standardErrorOf(log, entryWithMessage("100%s %n")), "100%s %n\n");
}

TEST_F(Log, aFileIsCreatedAndAppendedTo)
{
    {
        nqLog log(mPath);
        write(log, entryWithMessage("first"), false);
    }
    {
        nqLog log(mPath);
        write(log, entryWithMessage("second"), true);
    }
    EXPECT_EQ(fileContent(), "first\nsecond\n");
}

TEST_F(Log, aLineIsInTheFileWhenWriteReturns)
{
    nqLog log(mPath);
    write(log, entryWithMessage("there"), false);
    EXPECT_EQ(fileContent(), "there\n");
}

TEST_F(Log, aFileIsClosedOnExecAndOnlyEverAppendedTo)
{
    const nqLog log(mPath);
    const int fd = descriptorOfFile();
    ASSERT_GE(fd, 0);
    EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_NE(::fcntl(fd, F_GETFL) & O_APPEND, 0);
}

TEST_F(Log, aFileNeverTakesThePlaceOfAStandardStream)
{
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        int fd = -1;
        {
            const ReplacedStream closed(stream);
            const nqLog log(mPath);
            fd = descriptorOfFile();
        }
        EXPECT_GT(fd, STDERR_FILENO) << "with descriptor " << stream << " closed";
    }
}

TEST_F(Log, aFileThatCannotBeOpenedLeavesStandardError)
{
    nqLog log(mFolder.file("missing/log"));
    EXPECT_EQ(standardErrorOf(log, entryWithMessage("seen")), "seen\n");
}

TEST_F(Log, everyEntryIsOneWrite)
{
    std::array<int, 2> ends{-1, -1}; // each write is one message on this kind of socket
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), 0);
    nqLog log;
    nqLog::LogEntry entry = entryWithMessage("message");
    entry.mPrefix = "prefix | ";
    entry.mSecondText = "more";
    {
        const ReplacedStream standardError(STDERR_FILENO, ends[1]);
        write(log, entry, true);
    }
    std::array<char, 256> received{};
    const ssize_t length = ::recv(ends[0], received.data(), received.size(), 0);
    EXPECT_EQ(std::string(received.data()), "prefix | message [more]\n") << length;
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST_F(Log, linesOfSeveralThreadsStayWhole)
{
    constexpr int threadCount = 4;
    constexpr int linesPerThread = 200;
    nqLog log(mPath);
    std::vector<std::thread> threads;
    threads.reserve(threadCount);
    for (int thread = 0; thread < threadCount; ++thread)
        threads.emplace_back([&log, thread] {
            const std::string message(1'000, static_cast<char>('a' + thread));
            for (int line = 0; line < linesPerThread; ++line)
                write(log, entryWithMessage(message), false);
        });
    for (std::thread& thread : threads)
        thread.join();

    int lines = 0;
    std::ifstream file(mPath);
    for (std::string line; std::getline(file, line); ++lines) {
        ASSERT_FALSE(line.empty());
        ASSERT_EQ(line, std::string(1'000, line.front()));
    }
    EXPECT_EQ(lines, threadCount * linesPerThread);
}

TEST_F(Log, aLineLargerThanANonBlockingStreamHasRoomForIsCompleted)
{
    Pipe pipe;
    ASSERT_GE(::fcntl(pipe.writeEnd(), F_SETPIPE_SZ, 4'096), 0);
    ASSERT_EQ(::fcntl(pipe.writeEnd(), F_SETFL, O_NONBLOCK), 0);
    const std::string message(200'000, 'm');
    nqLog log;

    std::string received;
    std::thread reader([&] { received = pipe.drain(); });
    {
        const ReplacedStream standardError(STDERR_FILENO, pipe.writeEnd());
        write(log, entryWithMessage(message), true);
    }
    pipe.closeWriteEnd();
    reader.join();

    EXPECT_EQ(received, message + "\n");
}

TEST_F(Log, aFullStreamThatNobodyReadsDoesNotHoldTheHostForEver)
{
    Pipe pipe;
    ASSERT_GE(::fcntl(pipe.writeEnd(), F_SETPIPE_SZ, 4'096), 0);
    ASSERT_EQ(::fcntl(pipe.writeEnd(), F_SETFL, O_NONBLOCK), 0);
    const std::string message(200'000, 'm');
    nqLog log;
    {
        const ReplacedStream standardError(STDERR_FILENO, pipe.writeEnd());
        write(log, entryWithMessage(message), true);
    }
    pipe.closeWriteEnd();

    const std::string received = pipe.drain();
    EXPECT_FALSE(received.empty());
    EXPECT_EQ(received, message.substr(0, received.size()));
}

TEST_F(Log, aClosedPipeOnStandardErrorIsSurvived)
{
    Pipe pipe;
    pipe.closeReadEnd();
    struct sigaction previous {};
    struct sigaction deadly {};
    deadly.sa_handler = SIG_DFL;
    ASSERT_EQ(::sigaction(SIGPIPE, &deadly, &previous), 0);

    nqLog log;
    {
        const ReplacedStream standardError(STDERR_FILENO, pipe.writeEnd());
        write(log, entryWithMessage("nobody listens"), true);
    }

    sigset_t pending;
    sigset_t blocked;
    ASSERT_EQ(::sigpending(&pending), 0);
    ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, nullptr, &blocked), 0);
    EXPECT_EQ(::sigismember(&pending, SIGPIPE), 0);
    EXPECT_EQ(::sigismember(&blocked, SIGPIPE), 0);
    ASSERT_EQ(::sigaction(SIGPIPE, &previous, nullptr), 0);
}

TEST_F(Log, aBrokenPipeSignalThatTheHostWaitsForItselfIsLeftPending)
{
    sigset_t brokenPipe;
    sigset_t previous;
    ::sigemptyset(&brokenPipe);
    ::sigaddset(&brokenPipe, SIGPIPE);
    ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &brokenPipe, &previous), 0);
    ASSERT_EQ(::raise(SIGPIPE), 0);

    Pipe pipe;
    pipe.closeReadEnd();
    nqLog log;
    {
        const ReplacedStream standardError(STDERR_FILENO, pipe.writeEnd());
        write(log, entryWithMessage("nobody listens"), true);
    }

    const timespec noWait{};
    EXPECT_EQ(::sigtimedwait(&brokenPipe, nullptr, &noWait), SIGPIPE);
    ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, &previous, nullptr), 0);
}

TEST_F(Log, aClosedStandardErrorIsSurvivedAndStaysClosed)
{
    nqLog log;
    bool isOpenAfterwards = true;
    {
        const ReplacedStream closed(STDERR_FILENO);
        write(log, entryWithMessage("nobody listens"), true);
        isOpenAfterwards = ::fcntl(STDERR_FILENO, F_GETFD) != -1;
    }
    EXPECT_FALSE(isOpenAfterwards);
}

TEST_F(Log, aDestroyedLoggerIsNoLongerInstalled)
{
    {
        nqLog log;
        nqLog::msInstance = &log;
    }
    EXPECT_EQ(nqLog::msInstance, nullptr);
}

TEST_F(Log, aDestroyedLoggerLeavesAnotherInstalled)
{
    nqLog installed;
    nqLog::msInstance = &installed;
    {
        const nqLog other;
    }
    EXPECT_EQ(nqLog::msInstance, &installed);
    nqLog::msInstance = nullptr;
}

TEST_F(Log, aHostCanFeedItsOwnLogging)
{
    struct HostLog : nqLog {
        void Write(LogEntry& entry, bool flush) override
        {
            mReceived = entry.mMessage;
            mFlushed = flush;
        }
        std::string mReceived;
        bool mFlushed = false;
    };
    HostLog hostLog;
    nqLog::msInstance = &hostLog;
    write(*nqLog::msInstance, entryWithMessage("message"), true);
    nqLog::msInstance = nullptr;

    EXPECT_EQ(hostLog.mReceived, "message");
    EXPECT_TRUE(hostLog.mFlushed);
}

TEST_F(Log, systemLogGetsItsTextUnderTheMatchingSeverity)
{
    const std::array<int, 4> severities{LOG_INFO, LOG_NOTICE, LOG_WARNING, LOG_ERR};
    for (int level = nqLog::Info; level <= nqLog::Error; ++level) {
        systemLogCalls.clear();
        nqLog::LogEntry entry = entryWithMessage("for the logger");
        entry.mSystemLogText = "100%s for the system log";
        entry.mLevel = level;
        nqLog::WriteToSystemLog(entry);

        ASSERT_EQ(systemLogCalls.size(), 1U);
        EXPECT_EQ(systemLogCalls[0].mText, "100%s for the system log");
        EXPECT_EQ(systemLogCalls[0].mPriority, severities[static_cast<std::size_t>(level)]);
    }
}

TEST_F(Log, systemLogSocketNeverTakesThePlaceOfAStandardStream)
{
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        bool isOpenAfterwards = true;
        systemLogCalls.clear();
        {
            const ReplacedStream closed(stream);
            nqLog::WriteToSystemLog(entryWithMessage("message"));
            isOpenAfterwards = ::fcntl(stream, F_GETFD) != -1;
        }
        ASSERT_EQ(systemLogCalls.size(), 1U);
        EXPECT_GT(systemLogCalls[0].mSocket, STDERR_FILENO)
            << "with descriptor " << stream << " closed";
        EXPECT_FALSE(isOpenAfterwards) << "descriptor " << stream;
    }
}

void writeToStandardOutput(const std::string& message)
{
    nqLog::LogEntry entry = entryWithMessage(message);
    entry.mPrefix = "prefix | ";
    nqLog::WriteToStandardOutput(entry);
}

/// What a child process prints that runs `work` with a pipe as standard output and then exits.
template <typename Work>
std::string standardOutputOfChild(Work work)
{
    Pipe pipe;
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(pipe.writeEnd(), STDOUT_FILENO);
        work();
        std::exit(EXIT_SUCCESS);
    }
    pipe.closeWriteEnd();
    const std::string printed = pipe.drain();
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, EXIT_SUCCESS);
    return printed;
}

TEST_F(Log, standardOutputGetsPrefixMessageAndNewline)
{
    EXPECT_EQ(
        standardOutputOfChild([] { writeToStandardOutput("message"); }), "prefix | message\n");
}

TEST_F(Log, standardOutputKeepsTheOrderOfWhatTheHostHasPrintedBefore)
{
    const auto work = [] {
        std::cout << "streamed ";
        std::printf("printed ");
        writeToStandardOutput("logged");
        std::cout << "afterwards";
    };
    EXPECT_EQ(standardOutputOfChild(work), "streamed printed prefix | logged\nafterwards");
}

TEST_F(Log, standardOutputKeepsTheOrderInAHostWhoseStreamsAreNotInStep)
{
    const auto work = [] {
        std::ios_base::sync_with_stdio(false);
        std::cout << "streamed ";
        writeToStandardOutput("logged");
        std::cout << "afterwards";
    };
    EXPECT_EQ(standardOutputOfChild(work), "streamed prefix | logged\nafterwards");
}

TEST_F(Log, everyLineOnStandardOutputIsOneWrite)
{
    std::array<int, 2> ends{-1, -1}; // each write is one message on this kind of socket
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), 0);
    {
        const ReplacedStream standardOutput(STDOUT_FILENO, ends[1]);
        writeToStandardOutput("message");
    }
    std::array<char, 256> received{};
    const ssize_t length = ::recv(ends[0], received.data(), received.size(), 0);
    EXPECT_EQ(std::string(received.data()), "prefix | message\n") << length;
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST_F(Log, aStandardOutputThatTheHostKeepsFromItsChildrenGetsTheLine)
{
    {
        const ReplacedStream closed(STDOUT_FILENO);
        const int file = ::open(mPath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        EXPECT_EQ(file, STDOUT_FILENO);
        writeToStandardOutput("message");
    }
    EXPECT_NE(fileContent(), "");
}

TEST_F(Log, aClosedStandardOutputIsSurvivedAndStaysClosed)
{
    bool isOpenAfterwards = true;
    {
        const ReplacedStream closed(STDOUT_FILENO);
        writeToStandardOutput("nobody listens");
        isOpenAfterwards = ::fcntl(STDOUT_FILENO, F_GETFD) != -1;
    }
    EXPECT_FALSE(isOpenAfterwards);
}

/// Hosts that write a line where a write raises a signal whose default is to end them.
using LogDeathTest = Log;

void expectNoSignals()
{
    sigset_t pending;
    sigset_t blocked;
    ::sigpending(&pending);
    ::pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    for (const int signal : {SIGPIPE, SIGXFSZ})
        if (::sigismember(&pending, signal) != 0 || ::sigismember(&blocked, signal) != 0)
            std::_Exit(EXIT_FAILURE);
}

/// Runs `work` in a process for which both signals are deadly, and lets it exit as a host does.
template <typename Work>
[[noreturn]] void runHost(Work work)
{
    std::signal(SIGPIPE, SIG_DFL);
    std::signal(SIGXFSZ, SIG_DFL);
    work();
    expectNoSignals();
    std::exit(EXIT_SUCCESS);
}

/// Makes `stream` a pipe that nobody reads.
void breakPipe(int stream)
{
    Pipe pipe;
    ::dup2(pipe.writeEnd(), stream);
}

/// Makes `stream` a file that may not grow.
void fillFile(const std::string& path, int stream)
{
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ::dup2(file, stream);
    ::close(file);
    const rlimit nothing{0, 0};
    ::setrlimit(RLIMIT_FSIZE, &nothing);
}

const ::testing::ExitedWithCode survives(EXIT_SUCCESS);

TEST_F(LogDeathTest, aHostWithoutALoggerSurvivesAClosedPipeOnStandardOutput)
{
    const auto host = [] {
        breakPipe(STDOUT_FILENO);
        writeToStandardOutput("nobody listens");
    };
    EXPECT_EXIT(runHost(host), survives, "");
}

TEST_F(LogDeathTest, aHostWithoutALoggerSurvivesAFullStandardOutput)
{
    const auto host = [this] {
        fillFile(mPath, STDOUT_FILENO);
        writeToStandardOutput("no room");
    };
    EXPECT_EXIT(runHost(host), survives, "");
    EXPECT_EQ(fileContent(), "");
}

TEST_F(LogDeathTest, whatTheHostHasPrintedIntoAClosedPipeRaisesNothingInALine)
{
    const auto host = [] {
        breakPipe(STDOUT_FILENO);
        std::cout << "printed";
        writeToStandardOutput("nobody listens");
    };
    EXPECT_EXIT(runHost(host), survives, "");
}

TEST_F(LogDeathTest, theStateAndTheExceptionsOfTheHostsStreamAreLeftAlone)
{
    const auto host = [] {
        breakPipe(STDOUT_FILENO);
        std::cout << "printed";
        std::cout.exceptions(std::ios_base::badbit);
        writeToStandardOutput("nobody listens");
        if (std::cout.rdstate() != std::ios_base::goodbit)
            std::_Exit(EXIT_FAILURE);
    };
    EXPECT_EXIT(runHost(host), survives, "");
}

TEST_F(LogDeathTest, aLineThatCouldNotBeWrittenIsNotLeftInTheBuffer)
{
    const auto host = [this] {
        breakPipe(STDOUT_FILENO);
        writeToStandardOutput("nobody listens");
        const int file = ::open(mPath.c_str(), O_WRONLY | O_CREAT, 0600);
        ::dup2(file, STDOUT_FILENO);
    };
    EXPECT_EXIT(runHost(host), survives, "");
    EXPECT_EQ(fileContent(), "");
}

TEST_F(LogDeathTest, aHostWithALoggerSurvivesAClosedPipeOnStandardError)
{
    const auto host = [] {
        nqLog log;
        breakPipe(STDERR_FILENO);
        write(log, entryWithMessage("nobody listens"), true);
    };
    EXPECT_EXIT(runHost(host), survives, "");
}

TEST_F(LogDeathTest, aHostWithALoggerSurvivesAFileThatMayNotGrow)
{
    const auto host = [this] {
        nqLog log(mPath);
        fillFile(mPath, STDIN_FILENO);
        write(log, entryWithMessage("no room"), true);
    };
    EXPECT_EXIT(runHost(host), survives, "");
    EXPECT_EQ(fileContent(), "");
}

TEST_F(LogDeathTest, aHostWhoseSystemLogCopiesToAClosedPipeSurvives)
{
    const auto host = [] {
        systemLogCopiesToStandardError = true;
        breakPipe(STDERR_FILENO);
        nqLog::WriteToSystemLog(entryWithMessage("nobody listens"));
    };
    EXPECT_EXIT(runHost(host), survives, "");
}

TEST_F(Log, aFileSizeSignalThatTheHostWaitsForItselfIsLeftPending)
{
    sigset_t fileSize;
    sigset_t previous;
    ::sigemptyset(&fileSize);
    ::sigaddset(&fileSize, SIGXFSZ);
    ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &fileSize, &previous), 0);
    ASSERT_EQ(::raise(SIGXFSZ), 0);

    nqLog log(mPath);
    write(log, entryWithMessage("message"), true);

    const timespec noWait{};
    EXPECT_EQ(::sigtimedwait(&fileSize, nullptr, &noWait), SIGXFSZ);
    ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, &previous, nullptr), 0);
}

} // namespace
