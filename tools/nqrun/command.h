#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace nqrun {

/// What a command is allowed. 0: no limit.
struct CommandLimits {
    std::chrono::nanoseconds timeout{};
    std::uint64_t memory = 0; ///< bytes resident, of the command and all its descendants

    /// The soft limit of open files that nqrun was started with, which commands get back: nqrun
    /// itself may need more.
    std::uint64_t openFiles = 0;
};

/// The files of the host that a command writes to, by the host's descriptors. The worker opens them
/// anew, through /proc, so nothing that a command prints travels through the pool.
struct CommandFiles {
    std::uint64_t slot = 0; ///< names these three; never means others
    pid_t host = 0;
    std::int32_t output = -1;
    std::int32_t error = -1;
    std::int32_t report = -1;
};

/// One command to run: the bytes of a job.
struct Command {
    std::uint64_t serial = 0; ///< of this attempt; comes back in the report
    CommandFiles files;
    CommandLimits limits;
    std::string program;                ///< a path; searched for in PATH if it has no slash
    std::vector<std::string> arguments; ///< with the program's name first
    std::string input;                  ///< the standard input; else it is the null device
    bool hasInput = false;

    std::string encoded() const;

    /// Throws std::runtime_error when the bytes make no sense.
    static Command decoded(std::string_view bytes);
};

/// How a command ended.
enum class End : std::int32_t {
    None = 0,       ///< it has not; the worker was lost
    Exited = 1,     ///< by itself
    Signalled = 2,  ///< by a signal that nqrun has not sent
    TimedOut = 3,   ///< it was ended, with its descendants, after its time-out
    MemoryCap = 4,  ///< likewise, above its memory cap
    NotStarted = 5, ///< there is no such program, or the system refused
    OutputLost = 6  ///< it was done, but what it has printed could not be kept
};

/// What the host is told of a command; it stands in a file of the host.
struct Report {
    std::uint64_t serial = 0;
    End end = End::None;
    std::int32_t code = 0; ///< exit status, signal, or errno of a failed start or of lost output
    std::int64_t startedAt = 0;    ///< microseconds since 1970
    std::int64_t ran = 0;          ///< microseconds
    std::uint64_t peakMemory = 0;  ///< bytes resident, of its largest process or of all as seen
    std::uint64_t outputBytes = 0; ///< in the file for standard output
    std::uint64_t errorBytes = 0;  ///< in the file for standard error
    std::int32_t dumpedCore = 0;   ///< by the signal
    std::int32_t hasSurvivors = 0; ///< descendants that may not be signalled are left

    bool isDone() const
    {
        return end == End::Exited && code == 0;
    }

    /// As a shell says it in $?: 128 more than a signal, 124 for the time-out, 126 or 127 for a
    /// program that could not be started.
    int shellStatus() const;
};

/// What a worker is told of a command that was not done.
struct CommandFailure {
    Report report; ///< an empty one when the command cannot be watched over
    std::string text;

    std::string encoded() const;

    /// Throws std::runtime_error when the bytes make no sense.
    static CommandFailure decoded(std::string_view bytes);
};

/// How a command ended, for people, for example "exited with status 1" or "timed out after 0.5 s".
std::string endText(const Report& report, const CommandLimits& limits, const std::string& program);

/// "SIGKILL" for 9; "signal 40" for one without a name.
std::string signalText(int signal);

/// Why a program could not be started, for people.
std::string startFailureText(int error, const std::string& program);

} // namespace nqrun
