#include "pool/nqFailureText.h"

#include "pool/nqTexts.h"

#include <algorithm>
#include <array>
#include <csignal>

namespace nq {

namespace {

using Reason = nqAttempt::Reason;

constexpr std::size_t longestForeignText = 300; // bytes; a sentence, not a dump
constexpr std::size_t anyLength = std::string::npos;

/// Most likely why something happened, and what to try. Either may be empty.
struct Advice {
    std::string why;
    std::string remedy;
};

struct SignalTraits {
    int number;
    const char* name;
    const char* why;
    const char* remedy;
};

constexpr char inDebugger[] = "run it again under a debugger";
constexpr char fromOutside[] = "probably sent by a person, a script or a service manager";
constexpr char submitAgain[] = "submit the job again if that was a mistake";
constexpr char unhandledTimer[] = "probably a timer that the worker has set and does not handle";
constexpr char handleIt[] = "let the worker handle this signal";

constexpr std::array<SignalTraits, 31> signals{{
    {SIGHUP, "SIGHUP", fromOutside, submitAgain},
    {SIGINT, "SIGINT", fromOutside, submitAgain},
    {SIGQUIT, "SIGQUIT", fromOutside, submitAgain},
    {SIGILL,
     "SIGILL",
     "probably a trap that the compiler has put there, or a build for another processor",
     inDebugger},
    {SIGTRAP, "SIGTRAP", "probably a breakpoint or a failed check in the code", inDebugger},
    {SIGABRT,
     "SIGABRT",
     "probably an assertion that failed or an exception that nobody caught",
     inDebugger},
    {SIGBUS,
     "SIGBUS",
     "probably a mapped file that was cut short, or no space left behind it",
     "look for files that change while they are mapped, and at the space in /dev/shm and on disk"},
    {SIGFPE, "SIGFPE", "probably an integer division by zero", inDebugger},
    {SIGKILL,
     "SIGKILL",
     "probably the system ran out of memory",
     "fewer workers or a memory cap help"},
    {SIGUSR1, "SIGUSR1", fromOutside, handleIt},
    {SIGSEGV, "SIGSEGV", "probably a stack overflow or a bad pointer", inDebugger},
    {SIGUSR2, "SIGUSR2", fromOutside, handleIt},
    {SIGPIPE,
     "SIGPIPE",
     "probably a write to a pipe or socket that nobody reads any more",
     "let the worker ignore this signal and look at the result of its writes"},
    {SIGALRM, "SIGALRM", unhandledTimer, handleIt},
    {SIGTERM, "SIGTERM", fromOutside, submitAgain},
    {SIGSTKFLT, "SIGSTKFLT", fromOutside, handleIt},
    {SIGCHLD, "SIGCHLD", "", ""},
    {SIGCONT, "SIGCONT", "", ""},
    {SIGSTOP, "SIGSTOP", "", ""},
    {SIGTSTP, "SIGTSTP", "", ""},
    {SIGTTIN, "SIGTTIN", "", ""},
    {SIGTTOU, "SIGTTOU", "", ""},
    {SIGURG, "SIGURG", "", ""},
    {SIGXCPU,
     "SIGXCPU",
     "its limit of processor time was used up",
     "recycle workers earlier or raise the limit, see `ulimit -t`"},
    {SIGXFSZ,
     "SIGXFSZ",
     "it wrote a file larger than it may",
     "raise the limit of file sizes, see `ulimit -f`"},
    {SIGVTALRM, "SIGVTALRM", unhandledTimer, handleIt},
    {SIGPROF, "SIGPROF", unhandledTimer, handleIt},
    {SIGWINCH, "SIGWINCH", "", ""},
    {SIGIO, "SIGIO", "probably asked for by the worker, which does not handle it", handleIt},
    {SIGPWR, "SIGPWR", fromOutside, handleIt},
    {SIGSYS,
     "SIGSYS",
     "probably a system call that a sandbox forbids",
     "allow it, or run it again under a debugger to see which one it is"},
}};

const SignalTraits* traitsOf(int signal)
{
    const auto* found =
        std::find_if(signals.begin(), signals.end(), [signal](const SignalTraits& traits) {
            return traits.number == signal;
        });
    return found == signals.end() ? nullptr : found;
}

Advice adviceOnSignal(const nqAttempt& attempt)
{
    if (!attempt.signal)
        return {
            "how is not known, probably because the host ignores SIGCHLD or reaps every child",
            inDebugger};
    const SignalTraits* traits = traitsOf(*attempt.signal);
    if (traits == nullptr || *traits->why == '\0')
        return {fromOutside, handleIt};
    return {traits->why, traits->remedy};
}

/// A shell ends with more than this when a signal has ended the program that it ran.
constexpr int shellSawSignal = 128;

Advice adviceOnExit(const nqAttempt& attempt)
{
    if (!attempt.exitStatus)
        return {"probably it has closed what connects it with the pool", inDebugger};
    const int status = *attempt.exitStatus;
    if (status == 126)
        return {
            "probably a script whose program may not be executed",
            "look at that program's permissions"};
    if (status == 127)
        return {
            "probably a shared library or a script's program is missing",
            "start the worker by hand to see which one"};
    if (status > shellSawSignal && traitsOf(status - shellSawSignal) != nullptr)
        return {
            "probably a script whose program was ended by " + nameOfSignal(status - shellSawSignal),
            inDebugger};
    return {"probably the job calls exit()", "let it return or throw an exception instead"};
}

/// Why, with the last thing that the worker has said about it.
Advice withLastLine(Advice advice, const nqAttempt& attempt)
{
    const std::string_view line = lastLine(attempt.lastWords);
    if (!line.empty())
        advice.why += " (it last wrote \"" + oneLine(line, longestForeignText) + "\")";
    return advice;
}

/// Of what the worker has run, about which the worker has its own words.
bool isReported(const nqAttempt& attempt)
{
    return attempt.toldByWorker && attempt.reason != Reason::Exception;
}

bool hasRun(const nqAttempt& attempt)
{
    return attempt.pid != 0 || attempt.ran.count() > 0;
}

std::string quoted(const std::string& message, const char* otherwise)
{
    return message.empty() ? otherwise : '"' + oneLine(message, longestForeignText) + '"';
}

Advice adviceOn(const nqAttempt& attempt)
{
    if (isReported(attempt))
        return {};
    switch (attempt.reason) {
    case Reason::None:
    case Reason::Cancelled:
    case Reason::Stopped:
        return {};
    case Reason::Crashed: {
        const Advice advice = adviceOnSignal(attempt);
        return attempt.signal == SIGABRT ? withLastLine(advice, attempt) : advice;
    }
    case Reason::Exited:
        return withLastLine(adviceOnExit(attempt), attempt);
    case Reason::MemoryCap:
        return {
            "probably the job needs more than the cap, or the worker leaks",
            "raise the cap, make jobs smaller or recycle workers"};
    case Reason::Timeout:
        return {
            "probably it never ends or is too large",
            "raise the time-out, or run it again under a debugger"};
    case Reason::Deadline:
        return hasRun(attempt) ? Advice{"probably it was started too late", "set a later deadline"}
                               : Advice{
                                     "probably there were too many jobs before it",
                                     "more workers or a later deadline help"};
    case Reason::Exception:
        return {"", "run it again under a debugger that stops at exceptions (`catch throw`)"};
    case Reason::ResultLost:
        if (!attempt.message.empty())
            return {quoted(attempt.message, ""), "look at what the worker sends"};
        return {"probably its result is too large", "smaller results or fewer at a time help"};
    case Reason::NoWorker:
        return {
            quoted(attempt.message, "the cause is not known"),
            "start the worker program by hand to see what it says"};
    case Reason::Lost:
        return {
            "probably it has stopped, hangs, or cannot reach the others",
            "let such jobs be tried again, see nqRetryPolicy"};
    }
    return {};
}

/// " after 1.2 s, at 35 MB", as far as that is known.
std::string circumstances(const nqAttempt& attempt)
{
    std::string text;
    if (attempt.ran.count() > 0)
        text += " after " + durationText(attempt.ran);
    if (attempt.peakMemory)
        text += (text.empty() ? " at " : ", at ") + sizeText(*attempt.peakMemory);
    return text;
}

std::string whenItEnded(const nqAttempt& attempt)
{
    if (!hasRun(attempt))
        return " while it waited";
    const std::string more = circumstances(attempt);
    return " while it ran" + (more.empty() ? more : ',' + more);
}

std::string crashText(const nqAttempt& attempt)
{
    if (!attempt.signal)
        return "the worker crashed" + circumstances(attempt);
    std::string text = "the worker was ended by " + nameOfSignal(*attempt.signal);
    if (attempt.dumpedCore)
        text += " (core dumped)";
    text += circumstances(attempt);
    if (*attempt.signal == SIGKILL)
        text += ", not by this pool";
    return text;
}

std::string exitText(const nqAttempt& attempt)
{
    const std::string how = attempt.exitStatus
                                ? "left with exit status " + std::to_string(*attempt.exitStatus)
                                : std::string("closed its connection");
    return "the worker " + how + " in the middle of the job" + circumstances(attempt);
}

std::string reportedEnd(const nqAttempt& attempt)
{
    if (attempt.reason == Reason::Timeout)
        return "a time-out";
    if (attempt.reason == Reason::MemoryCap)
        return "too much memory";
    if (attempt.signal)
        return "an end by " + nameOfSignal(*attempt.signal) +
               (attempt.dumpedCore ? " (core dumped)" : "");
    if (attempt.exitStatus)
        return "exit status " + std::to_string(*attempt.exitStatus);
    return attempt.reason == Reason::Crashed ? "a crash" : "an early end";
}

std::string reportText(const nqAttempt& attempt)
{
    return "the worker reports " + reportedEnd(attempt) + circumstances(attempt) +
           (attempt.message.empty() ? "" : ": " + quoted(attempt.message, ""));
}

bool isSameFailure(const nqAttempt& left, const nqAttempt& right)
{
    return left.reason == right.reason && left.signal == right.signal &&
           left.exitStatus == right.exitStatus;
}

bool endsTheJobFromOutside(Reason reason)
{
    return reason == Reason::Cancelled || reason == Reason::Stopped || reason == Reason::Deadline;
}

/// How the last attempt stands to the others; empty when there was one only.
std::string attemptsText(const nqOutcome& outcome)
{
    const std::vector<nqAttempt>& earlier = outcome.earlierAttempts;
    if (earlier.empty())
        return {};
    if (endsTheJobFromOutside(outcome.reason))
        return earlier.size() == 1
                   ? ", after an attempt that failed"
                   : ", after " + std::to_string(earlier.size()) + " attempts that failed";
    const bool isAlwaysTheSame =
        std::all_of(earlier.begin(), earlier.end(), [&outcome](const nqAttempt& attempt) {
            return isSameFailure(attempt, outcome);
        });
    return std::string(isAlwaysTheSame ? ", in each of " : ", in the last of ") +
           std::to_string(earlier.size() + 1) + " attempts";
}

} // namespace

std::string nameOfSignal(int signal)
{
    if (const SignalTraits* traits = traitsOf(signal))
        return traits->name;
    if (signal < SIGRTMIN || signal > SIGRTMAX)
        return "signal " + std::to_string(signal);
    const int offset = signal - SIGRTMIN;
    return offset == 0 ? "SIGRTMIN" : "SIGRTMIN+" + std::to_string(offset);
}

std::string whatHappened(const nqAttempt& attempt)
{
    if (isReported(attempt))
        return reportText(attempt);
    switch (attempt.reason) {
    case Reason::None:
        return "the job was done" + circumstances(attempt);
    case Reason::Crashed:
        return crashText(attempt);
    case Reason::Exited:
        return exitText(attempt);
    case Reason::MemoryCap:
        return "the worker passed the memory cap" + circumstances(attempt) + ", and was killed";
    case Reason::Timeout:
        return "the job passed its time-out" + circumstances(attempt) +
               ", and its worker was killed";
    case Reason::Deadline:
        return "the job's deadline passed" + whenItEnded(attempt);
    case Reason::Exception:
        return "the worker's function threw " +
               quoted(attempt.message, "an exception without a text") + circumstances(attempt);
    case Reason::ResultLost:
        return (attempt.message.empty() ? "the host ran out of memory for the job"
                                        : "the result was lost") +
               circumstances(attempt);
    case Reason::NoWorker:
        return "no worker could be started";
    case Reason::Cancelled:
        return "the job was cancelled" + whenItEnded(attempt);
    case Reason::Stopped:
        return "the job was stopped with its pool" + whenItEnded(attempt);
    case Reason::Lost:
        return attempt.message.empty() ? "the machine that ran the job was lost"
                                       : oneLine(attempt.message, longestForeignText);
    }
    return {};
}

std::string failureTextOf(const nqOutcome& outcome)
{
    if (outcome.reason == Reason::None)
        return {};
    const Advice advice = adviceOn(outcome);
    std::string text = whatHappened(outcome) + attemptsText(outcome);
    if (!advice.why.empty())
        text += ": " + advice.why;
    if (!advice.remedy.empty())
        text += "; " + advice.remedy;
    if (!outcome.keptAs.empty())
        text += " (the job is kept as " + oneLine(outcome.keptAs, anyLength) + ")";
    return text;
}

} // namespace nq
