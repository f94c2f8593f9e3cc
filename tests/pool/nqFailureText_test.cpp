#include "pool/include/nqOutcome.h"

#include <chrono>
#include <csignal>
#include <cstdint>
#include <gtest/gtest.h>
#include <map>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using nq::nqAttempt;
using nq::nqOutcome;
using Reason = nqAttempt::Reason;
using State = nqOutcome::State;
using std::chrono::milliseconds;

nqOutcome failed(Reason reason)
{
    nqOutcome outcome;
    outcome.state = State::Failed;
    outcome.reason = reason;
    outcome.pid = 4711;
    outcome.ran = milliseconds(1'250);
    return outcome;
}

nqOutcome crashed(int signal)
{
    nqOutcome outcome = failed(Reason::Crashed);
    outcome.signal = signal;
    return outcome;
}

nqOutcome left(int status)
{
    nqOutcome outcome = failed(Reason::Exited);
    outcome.exitStatus = status;
    return outcome;
}

nqOutcome saying(nqOutcome outcome, const std::string& lastWords)
{
    outcome.lastWords = lastWords;
    return outcome;
}

nqOutcome with(nqOutcome outcome, const std::string& message)
{
    outcome.message = message;
    return outcome;
}

nqOutcome reported(nqOutcome outcome)
{
    outcome.toldByWorker = true;
    return outcome;
}

nqOutcome at(nqOutcome outcome, std::uint64_t memory)
{
    outcome.peakMemory = memory;
    return outcome;
}

nqOutcome neverRun(nqOutcome outcome)
{
    outcome.pid = 0;
    outcome.ran = {};
    return outcome;
}

nqOutcome after(std::vector<nqAttempt> earlier, nqOutcome outcome)
{
    outcome.earlierAttempts = std::move(earlier);
    return outcome;
}

nqOutcome withCore(nqOutcome outcome)
{
    outcome.dumpedCore = true;
    return outcome;
}

nqOutcome keptAs(const std::string& path, nqOutcome outcome)
{
    outcome.keptAs = path;
    return outcome;
}

struct Example {
    const char* name;
    nqOutcome outcome;
    std::string text;
};

std::ostream& operator<<(std::ostream& stream, const Example& example)
{
    return stream << example.name;
}

class FailureText : public testing::TestWithParam<Example> {};

TEST_P(FailureText, saysWhatHappenedWhyAndWhatToTry)
{
    EXPECT_EQ(GetParam().outcome.failureText(), GetParam().text);
}

constexpr std::uint64_t mebibyte = 1 << 20;
const std::string thrown = "terminate called after throwing an instance of 'X'\n  what():  boom\n";

INSTANTIATE_TEST_SUITE_P(
    Signals,
    FailureText,
    testing::Values(
        Example{
            "badPointer",
            at(crashed(SIGSEGV), 35 * mebibyte),
            "the worker was ended by SIGSEGV after 1.2 s, at 35 MB: probably a stack overflow or a "
            "bad pointer; run it again under a debugger"},
        Example{
            "outOfMemory",
            at(crashed(SIGKILL), 1945 * mebibyte),
            "the worker was ended by SIGKILL after 1.2 s, at 1.8 GB, not by this pool: probably "
            "the system ran out of memory; fewer workers or a memory cap help"},
        Example{
            "exceptionThatNobodyCaught",
            saying(withCore(crashed(SIGABRT)), thrown),
            "the worker was ended by SIGABRT (core dumped) after 1.2 s: probably an assertion that "
            "failed or an exception that nobody caught (it last wrote \"what():  boom\"); run it "
            "again under a debugger"},
        Example{
            "silentAbort",
            crashed(SIGABRT),
            "the worker was ended by SIGABRT after 1.2 s: probably an assertion that failed or an "
            "exception that nobody caught; run it again under a debugger"},
        Example{
            "progressIsNoReason",
            saying(crashed(SIGSEGV), "10 % done\n"),
            "the worker was ended by SIGSEGV after 1.2 s: probably a stack overflow or a bad "
            "pointer; run it again under a debugger"},
        Example{
            "division",
            crashed(SIGFPE),
            "the worker was ended by SIGFPE after 1.2 s: probably an integer division by zero; run "
            "it again under a debugger"},
        Example{
            "illegalInstruction",
            crashed(SIGILL),
            "the worker was ended by SIGILL after 1.2 s: probably a trap that the compiler has put "
            "there, or a build for another processor; run it again under a debugger"},
        Example{
            "trap",
            crashed(SIGTRAP),
            "the worker was ended by SIGTRAP after 1.2 s: probably a breakpoint or a failed check "
            "in the code; run it again under a debugger"},
        Example{
            "busError",
            crashed(SIGBUS),
            "the worker was ended by SIGBUS after 1.2 s: probably a mapped file that was cut "
            "short, or no space left behind it; look for files that change while they are mapped, "
            "and at the space in /dev/shm and on disk"},
        Example{
            "brokenPipe",
            crashed(SIGPIPE),
            "the worker was ended by SIGPIPE after 1.2 s: probably a write to a pipe or socket "
            "that nobody reads any more; let the worker ignore this signal and look at the result "
            "of its writes"},
        Example{
            "terminated",
            crashed(SIGTERM),
            "the worker was ended by SIGTERM after 1.2 s: probably sent by a person, a script or a "
            "service manager; submit the job again if that was a mistake"},
        Example{
            "userSignal",
            crashed(SIGUSR1),
            "the worker was ended by SIGUSR1 after 1.2 s: probably sent by a person, a script or a "
            "service manager; let the worker handle this signal"},
        Example{
            "alarm",
            crashed(SIGALRM),
            "the worker was ended by SIGALRM after 1.2 s: probably a timer that the worker has set "
            "and does not handle; let the worker handle this signal"},
        Example{
            "asynchronousInput",
            crashed(SIGIO),
            "the worker was ended by SIGIO after 1.2 s: probably asked for by the worker, which "
            "does not handle it; let the worker handle this signal"},
        Example{
            "processorTime",
            crashed(SIGXCPU),
            "the worker was ended by SIGXCPU after 1.2 s: its limit of processor time was used up; "
            "recycle workers earlier or raise the limit, see `ulimit -t`"},
        Example{
            "fileSize",
            crashed(SIGXFSZ),
            "the worker was ended by SIGXFSZ after 1.2 s: it wrote a file larger than it may; "
            "raise the limit of file sizes, see `ulimit -f`"},
        Example{
            "sandbox",
            crashed(SIGSYS),
            "the worker was ended by SIGSYS after 1.2 s: probably a system call that a sandbox "
            "forbids; allow it, or run it again under a debugger to see which one it is"},
        Example{
            "realTimeSignal",
            crashed(SIGRTMIN + 3),
            "the worker was ended by SIGRTMIN+3 after 1.2 s: probably sent by a person, a script "
            "or a service manager; let the worker handle this signal"},
        Example{
            "unknownEnd",
            failed(Reason::Crashed),
            "the worker crashed after 1.2 s: how is not known, probably because the host ignores "
            "SIGCHLD or reaps every child; run it again under a debugger"}),
    [](const auto& test) { return test.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Exits,
    FailureText,
    testing::Values(
        Example{
            "success",
            left(0),
            "the worker left with exit status 0 in the middle of the job after 1.2 s: probably the "
            "job calls exit(); let it return or throw an exception instead"},
        Example{
            "errorWithLastWords",
            saying(left(3), "Traceback:\nValueError: no number\n"),
            "the worker left with exit status 3 in the middle of the job after 1.2 s: probably the "
            "job calls exit() (it last wrote \"ValueError: no number\"); let it return or throw an "
            "exception instead"},
        Example{
            "notExecutable",
            left(126),
            "the worker left with exit status 126 in the middle of the job after 1.2 s: probably a "
            "script whose program may not be executed; look at that program's permissions"},
        Example{
            "notFound",
            left(127),
            "the worker left with exit status 127 in the middle of the job after 1.2 s: probably a "
            "shared library or a script's program is missing; start the worker by hand to see "
            "which one"},
        Example{
            "shellThatSawASignal",
            left(128 + SIGSEGV),
            "the worker left with exit status 139 in the middle of the job after 1.2 s: probably a "
            "script whose program was ended by SIGSEGV; run it again under a debugger"},
        Example{
            "greatestStatus",
            left(255),
            "the worker left with exit status 255 in the middle of the job after 1.2 s: probably "
            "the job calls exit(); let it return or throw an exception instead"},
        Example{
            "closedConnection",
            failed(Reason::Exited),
            "the worker closed its connection in the middle of the job after 1.2 s: probably it "
            "has closed what connects it with the pool; run it again under a debugger"}),
    [](const auto& test) { return test.param.name; });

INSTANTIATE_TEST_SUITE_P(
    OtherReasons,
    FailureText,
    testing::Values(
        Example{"none", nqOutcome{}, ""},
        Example{
            "memoryCap",
            at(failed(Reason::MemoryCap), 257 * mebibyte),
            "the worker passed the memory cap after 1.2 s, at 257 MB, and was killed: probably the "
            "job needs more than the cap, or the worker leaks; raise the cap, make jobs smaller or "
            "recycle workers"},
        Example{
            "timeout",
            failed(Reason::Timeout),
            "the job passed its time-out after 1.2 s, and its worker was killed: probably it never "
            "ends or is too large; raise the time-out, or run it again under a debugger"},
        Example{
            "deadlineInTheQueue",
            neverRun(failed(Reason::Deadline)),
            "the job's deadline passed while it waited: probably there were too many jobs before "
            "it; "
            "more workers or a later deadline help"},
        Example{
            "deadlineOfARunningJob",
            at(failed(Reason::Deadline), 35 * mebibyte),
            "the job's deadline passed while it ran, after 1.2 s, at 35 MB: probably it was "
            "started too late; set a later deadline"},
        Example{
            "exception",
            with(failed(Reason::Exception), "bad\nnumber"),
            "the worker's function threw \"bad number\" after 1.2 s; run it again "
            "under a debugger that stops at exceptions (`catch throw`)"},
        Example{
            "reportedCrash",
            reported(withCore(with(crashed(SIGSEGV), "the converter crashed"))),
            "the worker reports an end by SIGSEGV (core dumped) after 1.2 s: \"the converter "
            "crashed\""},
        Example{
            "reportedCrashOfUnknownKind",
            reported(failed(Reason::Crashed)),
            "the worker reports a crash after 1.2 s"},
        Example{
            "reportedExit",
            reported(with(left(3), "the converter left")),
            "the worker reports exit status 3 after 1.2 s: \"the converter left\""},
        Example{
            "reportedExitOfUnknownStatus",
            reported(failed(Reason::Exited)),
            "the worker reports an early end after 1.2 s"},
        Example{
            "reportedTimeout",
            reported(with(failed(Reason::Timeout), "timed out after 1 s")),
            "the worker reports a time-out after 1.2 s: \"timed out after 1 s\""},
        Example{
            "reportedMemoryCap",
            reported(at(with(failed(Reason::MemoryCap), "too large"), 300 * mebibyte)),
            "the worker reports too much memory after 1.2 s, at 300 MB: \"too large\""},
        Example{
            "reportedTimeoutEachTime",
            after(
                {reported(failed(Reason::Timeout))},
                reported(with(failed(Reason::Timeout), "timed out"))),
            "the worker reports a time-out after 1.2 s: \"timed out\", in each of 2 attempts"},
        Example{
            "silentException",
            failed(Reason::Exception),
            "the worker's function threw an exception without a text after 1.2 s; run it again "
            "under a debugger that stops at exceptions (`catch throw`)"},
        Example{
            "resultLost",
            failed(Reason::ResultLost),
            "the host ran out of memory for the job after 1.2 s: probably its result is too large; "
            "smaller results or fewer at a time help"},
        Example{
            "senselessAnswer",
            with(failed(Reason::ResultLost), "the worker's answer makes no sense"),
            "the result was lost after 1.2 s: \"the worker's answer makes no sense\"; look at what "
            "the worker sends"},
        Example{
            "noWorker",
            with(
                neverRun(failed(Reason::NoWorker)), "Cannot start /x: No such file or directory\n"),
            "no worker could be started: \"Cannot start /x: No such file or directory\"; start the "
            "worker program by hand to see what it says"},
        Example{
            "noWorkerOfUnknownCause",
            neverRun(failed(Reason::NoWorker)),
            "no worker could be started: the cause is not known; start the worker program by hand "
            "to see what it says"},
        Example{
            "cancelledInTheQueue",
            neverRun(failed(Reason::Cancelled)),
            "the job was cancelled while it waited"},
        Example{
            "cancelledWhileItRan",
            failed(Reason::Cancelled),
            "the job was cancelled while it ran, after 1.2 s"},
        Example{
            "stopped",
            neverRun(failed(Reason::Stopped)),
            "the job was stopped with its pool while it waited"},
        Example{
            "stoppedAtOnce",
            [] {
                nqOutcome outcome = failed(Reason::Stopped);
                outcome.ran = {};
                return outcome;
            }(),
            "the job was stopped with its pool while it ran"},
        Example{
            "lostWithItsMachine",
            with(
                neverRun(failed(Reason::Lost)),
                "agent host7 was lost, 4.1 s after its last sign of life"),
            "agent host7 was lost, 4.1 s after its last sign of life: probably it has stopped, "
            "hangs, or cannot reach the others; let such jobs be tried again, see nqRetryPolicy"}),
    [](const auto& test) { return test.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Attempts,
    FailureText,
    testing::Values(
        Example{
            "allTheSame",
            after({crashed(SIGFPE), crashed(SIGFPE)}, crashed(SIGFPE)),
            "the worker was ended by SIGFPE after 1.2 s, in each of 3 attempts: probably an "
            "integer division by zero; run it again under a debugger"},
        Example{
            "otherSignalsBefore",
            after({crashed(SIGSEGV), crashed(SIGFPE)}, crashed(SIGFPE)),
            "the worker was ended by SIGFPE after 1.2 s, in the last of 3 attempts: probably an "
            "integer division by zero; run it again under a debugger"},
        Example{
            "cancelledAfterAFailure",
            after({crashed(SIGSEGV)}, neverRun(failed(Reason::Cancelled))),
            "the job was cancelled while it waited, after an attempt that failed"},
        Example{
            "deadlineAfterFailures",
            after({crashed(SIGSEGV), crashed(SIGFPE)}, failed(Reason::Deadline)),
            "the job's deadline passed while it ran, after 1.2 s, after 2 attempts that failed: "
            "probably it was started too late; set a later deadline"}),
    [](const auto& test) { return test.param.name; });

TEST(FailureTextOfAKeptJob, namesTheFile)
{
    EXPECT_EQ(
        keptAs("/jobs/a.job", crashed(SIGFPE)).failureText(),
        "the worker was ended by SIGFPE after 1.2 s: probably an integer division by zero; run it "
        "again under a debugger (the job is kept as /jobs/a.job)");
}

TEST(FailureTextOfHostileWorkers, isOneLineOfAReasonableLength)
{
    const std::string foreign = std::string(10'000, 'x') + "\n\r\v\f\x1B[2J" + std::string(1, '\0');
    for (const Reason reason :
         {Reason::Exited, Reason::Exception, Reason::NoWorker, Reason::ResultLost}) {
        nqOutcome outcome = keptAs("/a\nb.job", failed(reason));
        outcome.message = foreign;
        outcome.lastWords = foreign;
        const std::string text = outcome.failureText();
        EXPECT_LT(text.size(), 700U) << text;
        for (const char character : text)
            EXPECT_GE(character, ' ') << text;
    }
}

TEST(SignalName, isTheUsualOneForEverySignal)
{
    const std::map<int, std::string> names{
        {SIGHUP, "SIGHUP"},       {SIGINT, "SIGINT"},   {SIGQUIT, "SIGQUIT"},
        {SIGILL, "SIGILL"},       {SIGTRAP, "SIGTRAP"}, {SIGABRT, "SIGABRT"},
        {SIGBUS, "SIGBUS"},       {SIGFPE, "SIGFPE"},   {SIGKILL, "SIGKILL"},
        {SIGUSR1, "SIGUSR1"},     {SIGSEGV, "SIGSEGV"}, {SIGUSR2, "SIGUSR2"},
        {SIGPIPE, "SIGPIPE"},     {SIGALRM, "SIGALRM"}, {SIGTERM, "SIGTERM"},
        {SIGSTKFLT, "SIGSTKFLT"}, {SIGCHLD, "SIGCHLD"}, {SIGCONT, "SIGCONT"},
        {SIGSTOP, "SIGSTOP"},     {SIGTSTP, "SIGTSTP"}, {SIGTTIN, "SIGTTIN"},
        {SIGTTOU, "SIGTTOU"},     {SIGURG, "SIGURG"},   {SIGXCPU, "SIGXCPU"},
        {SIGXFSZ, "SIGXFSZ"},     {SIGPROF, "SIGPROF"}, {SIGVTALRM, "SIGVTALRM"},
        {SIGWINCH, "SIGWINCH"},   {SIGIO, "SIGIO"},     {SIGPWR, "SIGPWR"},
        {SIGSYS, "SIGSYS"}};
    ASSERT_EQ(names.size(), 31U);
    for (const auto& [number, name] : names)
        EXPECT_EQ(crashed(number).signalName(), name);
}

TEST(SignalName, countsRealTimeSignalsFromTheFirst)
{
    EXPECT_EQ(crashed(SIGRTMIN).signalName(), "SIGRTMIN");
    EXPECT_EQ(crashed(SIGRTMIN + 1).signalName(), "SIGRTMIN+1");
    EXPECT_EQ(crashed(SIGRTMAX).signalName(), "SIGRTMIN+" + std::to_string(SIGRTMAX - SIGRTMIN));
}

TEST(SignalName, isANumberForASignalWithoutAName)
{
    EXPECT_EQ(crashed(SIGRTMIN - 1).signalName(), "signal " + std::to_string(SIGRTMIN - 1));
    EXPECT_EQ(crashed(SIGRTMAX + 1).signalName(), "signal " + std::to_string(SIGRTMAX + 1));
    EXPECT_EQ(crashed(0).signalName(), "signal 0");
}

TEST(SignalName, isEmptyWithoutASignal)
{
    EXPECT_EQ(left(3).signalName(), "");
}

TEST(Outcome, isTrueOnlyWhenTheJobWasDone)
{
    nqOutcome outcome;
    EXPECT_TRUE(outcome);
    for (const State state : {State::Failed, State::Cancelled}) {
        outcome.state = state;
        EXPECT_FALSE(outcome);
    }
}

TEST(Outcome, showsItsBytesAsText)
{
    nqOutcome outcome;
    EXPECT_EQ(outcome.text(), "");
    outcome.bytes = {'a', '\0', 'b'};
    EXPECT_EQ(outcome.text(), std::string_view("a\0b", 3));
}

} // namespace
