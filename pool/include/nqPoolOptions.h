#pragma once

#include "nqOutcome.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace nq {

/// Whether and when a failed job is tried again.
struct nqRetryPolicy {
    unsigned attempts = 1; ///< all together; 1: never again

    /// For these reasons only. A job that is cancelled, stopped or past its deadline is never tried
    /// again, and one without a worker waits anyway.
    std::vector<nqAttempt::Reason> reasons = {
        nqAttempt::Reason::Crashed,
        nqAttempt::Reason::Exited,
        nqAttempt::Reason::MemoryCap,
        nqAttempt::Reason::Timeout,
        nqAttempt::Reason::Lost};

    std::chrono::milliseconds pause{0};            ///< before the second attempt
    double growth = 2;                             ///< of the pause, from attempt to attempt
    std::chrono::milliseconds longestPause{60000}; ///< however many attempts
};

/// What a single job has of its own. What is not set is as nqPoolOptions says.
struct nqJobOptions {
    std::optional<std::chrono::milliseconds> timeout; ///< of one attempt; 0: none
    /// The job fails once this has passed, waiting, running or between two attempts.
    std::optional<std::chrono::steady_clock::time_point> deadline;
    std::optional<nqRetryPolicy> retry; ///< of this job

    /// A name for people, in the trace, the timeline and the status file; any bytes. Empty: the id.
    std::string label;

    /// @name Attempts that the host makes itself
    /// For a host that submits a failed job again, with other bytes say, instead of leaving that to
    /// `retry`. Each such attempt has an id and an outcome of its own, but an nqPool counts all of
    /// them as one job, in its statistics and in the files that show it.
    /// @{
    unsigned hostAttempt = 1;  ///< which one this is; after the first, no job of its own
    unsigned hostAttempts = 1; ///< at most; one before the last that fails is no failed job yet
    /// @}
};

/// What a pool is told once, when it is made. Limits of 0 are off.
// In the order in which it is read.
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding)
struct nqPoolOptions {
    /// In which order outcomes are delivered.
    enum class Order : std::int32_t {
        Completion = 0, ///< as they come
        Submission = 1  ///< that of submit(); an outcome waits for those before it
    };

    /// What submit() does when maxPendingJobs is reached.
    enum class WhenFull : std::int32_t {
        Pump = 0,  ///< pumps, which delivers outcomes, until there is room
        Refuse = 1 ///< returns 0; the job stays with the caller
    };

    /// Where a worker's standard error goes.
    enum class StandardError : std::int32_t {
        Capture = 0,   ///< to the outcome of the job that failed: nqAttempt::lastWords
        Forward = 1,   ///< there, and to the host's standard error
        NullDevice = 2 ///< nowhere
    };

    /// Where the library's log lines go while the host has no nqLog of its own.
    enum class Log : std::int32_t {
        Nowhere = 0,       ///< outcomes say the same
        StandardError = 1, ///< of the host
        File = 2           ///< logFile
    };

    /// @name Workers
    /// @{

    /// The path of the worker program, in UTF-8; a relative one counts from the host's folder now.
    /// PATH is not searched. Empty: this program itself, see runAsWorker().
    std::string worker;

    /// Arguments of the worker program, before those that the library adds. Not for this program
    /// itself.
    std::vector<std::string> arguments;

    /// The worker program does not call runAsWorker() or runWorker(): it is made of nqWorker, or
    /// written in another language. It gets jobs as they are, so none may be empty, and it runs in
    /// its executable's folder.
    bool plainWorker = false;

    unsigned workers = 0; ///< how many processes at most; 0: one for each processor

    /// How long a worker may take to connect; the pool is not pumped meanwhile.
    std::chrono::milliseconds connectionTimeout{10'000};

    /// How long a worker's initialisation may take besides; the pool goes on meanwhile.
    std::chrono::milliseconds initialisationTimeout{60'000};

    unsigned recycleAfterJobs = 0;             ///< a worker that has run so many is replaced
    std::chrono::milliseconds recycleAfter{0}; ///< likewise one that has lived so long
    std::uint64_t recycleAboveMemory = 0;      ///< and one that has more bytes resident

    /// A worker that ends without having finished a job is replaced after a pause, which doubles
    /// each time, up to the longest. A job that was done ends the series.
    std::chrono::milliseconds restartPause{10};
    std::chrono::milliseconds longestRestartPause{1'000}; ///< see restartPause

    /// So many launches in a row may fail, or give a worker that ends before it had a job, while no
    /// other worker lives. Then all waiting jobs fail with NoWorker; later ones wait for the next
    /// attempt, after the longest pause.
    unsigned launchAttempts = 3;

    /// @}
    /// @name Limits
    /// @{

    std::chrono::milliseconds jobTimeout{0}; ///< of one attempt of one job
    std::uint64_t memoryCap = 0; ///< bytes resident; looked at ten times a second while jobs run
    std::uint64_t allocationLimit = 0; ///< see nqScheduler::setMaxPhysicalMemory()

    /// @}
    /// @name Jobs
    /// @{

    nqRetryPolicy retry;             ///< never again unless told otherwise
    Order order = Order::Completion; ///< of the outcomes

    /// Jobs at most that have no outcome yet, or one that waits for its turn. 0: no bound.
    std::size_t maxPendingJobs = 0;
    WhenFull whenFull = WhenFull::Pump; ///< what submit() does then

    /// Runs jobs in this process, one for each pump, on the pumping thread, without workers and
    /// limits, for a debugger. Needs runAsWorker() in this program.
    bool inProcess = false;

    /// @}
    /// @name What is kept and shown
    /// @{

    StandardError standardError = StandardError::Capture; ///< of the workers
    std::size_t lastWords = 4096;                         ///< bytes of nqAttempt::lastWords at most

    /// Whether a worker's standard output is the host's; otherwise it goes to the null device.
    bool inheritStandardOutput = false;

    /// A folder, made if it is missing, that gets two files for each failed job: `NAME.job` with
    /// its bytes, `NAME.txt` with what happened and how to run it again. Empty: none.
    std::string keepFailedJobs;
    std::size_t keptFailedJobs = 100; ///< the newest so many; older ones are deleted; 0: all stay

    Log log = Log::Nowhere; ///< where the lines of the library go
    std::string logFile;    ///< lines are appended; if it cannot be opened, to standard error

    /// @}
    /// @name Files that show the pool
    /// Written while the pool is pumped, and at its end: stop() or the destructor. Each path is of
    /// a regular file, new or not, which the pool then owns; empty: none. One that cannot be
    /// written is refused when the pool is made. What fails later, on a full disk say, is a warning
    /// in the log and counted in nqPoolStatistics::writesFailed; the jobs go on. All files but the
    /// trace are replaced as a whole, so that a reader never sees half of one. An idle pool writes
    /// nothing.
    /// @{

    std::string
        name; ///< of the pool, for people: a label of all metrics, the title of the timeline

    /// Counts and times in the text format of Prometheus; for the textfile collector of its node
    /// exporter, the name has to end with `.prom`.
    std::string metricsFile;
    std::chrono::milliseconds metricsInterval{10'000}; ///< between two writes, at least

    /// What the pool does now, see readPoolStatus().
    std::string statusFile;
    std::chrono::milliseconds statusInterval{1'000}; ///< between two writes, at least

    /// Each attempt of each job, with marks and counters, as JSON trace events, which Perfetto and
    /// Chrome open. Appended to half a second after it has happened at the latest.
    std::string traceFile;
    std::uint64_t traceLimit = 256 << 20; ///< bytes; what comes later is left out. 0: no limit

    /// A picture of the whole run, in SVG, made at the end; see nqPoolTimeline.
    std::string timelineFile;

    /// @}
};

} // namespace nq
