// A host with a pool that is run once for every fault. It goes through a pool's whole life, checks
// that every job has ended exactly once and that nothing is left behind, and prints the outcome.
//
// usage: fault_host WORKER pool|bare-pool|timeout transparent|costly|lasting
//
// The last argument says what the fault that the shim puts in may change: nothing that a host
// notices; one launch or one worker, after which all is well again; or everything from then on, in
// which case jobs may stay pending, but are counted.

#include "jobs.h"
#include "remains.h"
#include "tests/common/descriptors.h"
#include "tests/common/failure.h"
#include "tests/common/processes.h"
#include "tests/common/promises.h"

#include "nqLog.h"
#include "nqProcess.h"
#include "nqScheduler.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <new>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace {

using nq::nqScheduler;

constexpr unsigned long nbWorkers = 2;
constexpr int pumpMs = 10;
constexpr int connectionTimeoutMs = 2'000;
constexpr int maxStarts = 4;          // as many workers as the shim disturbs, and a sound start
constexpr int maxDisturbedStarts = 3; // when nothing gets better
constexpr unsigned int programTimeoutMs = 20'000;
constexpr int looksAtMemory = 3; // a fault that strikes once spoils one of them
constexpr unsigned long jobSeconds = 1;
constexpr unsigned long physicalMemoryBytes = 1UL << 30; // far above what a worker needs

enum class Tolerance {
    transparent, // the host notices nothing
    costly,      // one failure of anything
    lasting,     // nothing may work any more
};

[[noreturn]] void fail(const std::string& what)
{
    throw std::runtime_error(what);
}

void require(bool holds, const std::string& what)
{
    if (!holds)
        fail(what);
}

bool hasLivingChild()
{
    const std::vector<pid_t> all = common::children();
    return std::any_of(
        all.begin(), all.end(), [](pid_t child) { return common::ProcessWatch(child).lives(); });
}

/// Keeps what is logged, and writes it to the file all the same.
class KeepingLog : public nq::nqLog {
public:
    explicit KeepingLog(const std::string& path)
        : nqLog(path)
    {
        msInstance = this;
    }

    void Write(LogEntry& entry, bool flush) override
    {
        if (entry.mMessage.compare(0, 7, "Fail to") == 0)
            ++mFailures;
        if (entry.mMessage.compare(0, 19, "Fail to startWorker") == 0)
            ++mLaunchFailures;
        nqLog::Write(entry, flush);
    }

    unsigned long mFailures = 0; // entries that report one
    unsigned long mLaunchFailures = 0;
};

/// The scheduler, the jobs that are in its hands, and what has become of the others.
class Host {
public:
    Host(const std::string& worker, Tolerance tolerance, KeepingLog& log)
        : mScheduler(worker, true, {}, false),
          mTolerance(tolerance),
          mLog(log)
    {
        mScheduler.setMaxCapMemory(faults::memoryCapBytes);
        mScheduler.setMaxCapMemoryAfterProcessingAJob(faults::memoryCapBytes);
        mScheduler.setMaxPhysicalMemory(physicalMemoryBytes);
        mScheduler.setObserver(&mPromises);
        mScheduler.setCaptureStandardError(true);
        mScheduler.waitDescriptor();
    }

    nqScheduler& scheduler()
    {
        return mScheduler;
    }

    void push(char kind, std::size_t size)
    {
        std::string job(size, kind);
        for (std::size_t index = 1; index < size; ++index)
            job[index] = static_cast<char>((index * 31 + size) % 251);
        require(mInHand.insert(job).second, "the jobs of this program differ in kind or size");
        mPromises.onPush(common::bytes(job));
        mScheduler.push(common::bytes(job));
    }

    /// Whether the scheduler has started. A refusal is reported and leaves the jobs where they are.
    bool start()
    {
        const int starts = mTolerance == Tolerance::costly ? maxStarts : maxDisturbedStarts;
        for (int attempt = 0; attempt < starts; ++attempt) {
            const unsigned long reported = mLog.mFailures;
            if (startOnce())
                return true;
            require(mLog.mFailures > reported || mOutOfMemory, "a start was refused in silence");
            require(mTolerance != Tolerance::transparent, "a start was refused");
            checkCounts();
            mRefused = true;
        }
        require(mTolerance == Tolerance::lasting, "no start succeeds any more");
        return false;
    }

    /// Pumps until every job has ended or no worker is left.
    void pumpToTheEnd()
    {
        const unsigned long launchFailures = mLog.mLaunchFailures;
        const auto mayHaveLostAll = [&] {
            return mLog.mLaunchFailures - launchFailures >= nbWorkers;
        };
        // Starts that were refused may have left more workers than were asked for.
        while (!mInHand.empty() && !(mayHaveLostAll() && !hasLivingChild())) {
            pump();
            popAll();
            checkPromises();
            checkCounts();
        }
        require(
            mInHand.empty() || mTolerance == Tolerance::lasting, "jobs are left without workers");
    }

    /// Stops. Jobs that no worker is left for are dropped first, as the host's documents say.
    void stop(bool wasStarted)
    {
        mLeftPending = mLeftPending || !mInHand.empty();
        mScheduler.clearPendingJobs();
        mPromises.onClearPendingJobs();
        mInHand.clear();
        require(mScheduler.jobCount() == 0, "jobs are in a hand that nobody has");
        require(mScheduler.stopScheduler() == wasStarted, "stopScheduler does not know its state");
        require(mScheduler.resultCount() + mScheduler.failCount() == 0, "a stop made up results");
        checkPromises();
    }

    std::string outcome() const
    {
        std::string text = mLeftPending ? "pending" : mFailedOrdinary ? "failures" : "answered";
        return mRefused ? text + " refused" : text;
    }

private:
    // What only allocates may throw that, and nothing else may be thrown.
    bool startOnce()
    {
        mOutOfMemory = false;
        try {
            return mScheduler.startScheduler(nbWorkers, connectionTimeoutMs);
        } catch (const std::bad_alloc&) {
            mOutOfMemory = true;
            return false;
        }
    }

    void pump()
    {
        try {
            mScheduler.processScheduler(pumpMs);
        } catch (const std::bad_alloc&) {
            require(mTolerance != Tolerance::transparent, "the pump threw");
        }
    }

    void popAll()
    {
        std::vector<char> result;
        while (mScheduler.pop(result)) {
            mPromises.onPop(result);
            takeResult(common::text(result));
        }
        while (mScheduler.failCount() != 0) {
            const auto failure = common::popFailure(mScheduler);
            require(failure.has_value(), "a counted failure is not there");
            mPromises.onPopFail(*failure);
            takeFailure(*failure);
        }
    }

    void checkPromises()
    {
        mPromises.onReturn();
        const std::string broken = mPromises.takeBroken();
        require(broken.empty(), "events:" + broken);
    }

    void takeResult(const std::string& job)
    {
        takeOut(job);
        const char kind = job.front();
        const bool mayEnd = kind == faults::echoJob ||
                            (kind == faults::growJob && mTolerance != Tolerance::transparent);
        require(mayEnd, std::string("a result for a job of kind ") + kind);
    }

    void takeFailure(const common::Failure& failure)
    {
        const auto& [job, reason, message] = failure;
        takeOut(job);
        const char kind = job.front();
        require(!message.empty(), "a failure without a message");
        if (reason != expectedReason(kind)) {
            require(
                mTolerance != Tolerance::transparent && reason == nqScheduler::UnexpectedCrash,
                std::string("kind ") + kind + " failed with " + std::to_string(reason) + ": " +
                    message);
        }
        mFailedOrdinary = mFailedOrdinary || kind == faults::echoJob;
    }

    static nqScheduler::FailReason expectedReason(char kind)
    {
        switch (kind) {
        case faults::echoJob:
            return nqScheduler::NoFailure;
        case faults::growJob:
            return nqScheduler::TooMuchRam;
        case faults::hangJob:
            return nqScheduler::Timeout;
        default:
            return nqScheduler::UnexpectedCrash;
        }
    }

    void takeOut(const std::string& job)
    {
        require(mInHand.erase(job) == 1, "came twice or with other bytes: " + job.substr(0, 1));
    }

    void checkCounts() const
    {
        const unsigned long counted =
            mScheduler.jobCount() + mScheduler.resultCount() + mScheduler.failCount();
        require(counted == mInHand.size(), "the counts do not add up to the jobs in hand");
    }

    common::Promises mPromises;
    nqScheduler mScheduler;
    Tolerance mTolerance;
    KeepingLog& mLog;
    std::set<std::string> mInHand; // pushed, and neither popped as a result nor as a failure
    bool mOutOfMemory = false;     // in the last start
    bool mRefused = false;
    bool mFailedOrdinary = false;
    bool mLeftPending = false;
};

void runJobs(Host& host)
{
    const bool started = host.start();
    if (started)
        host.pumpToTheEnd();
    host.stop(started);
}

/// A peer that nobody may watch seems to live for as long as a helper holds its connection, so that
/// only a time-out would end the job.
void runPool(Host& host, bool withHelper)
{
    for (const std::size_t size :
         std::vector<std::size_t>{1, 2, 3, 4, 5, 7, 8, 100, 4091, 4092, 4096, 65'536})
        host.push(faults::echoJob, size);
    host.push(faults::crashJob, 10);
    host.push(faults::growJob, 10);
    host.push(faults::echoJob, 307'200);
    if (withHelper)
        host.push(faults::forkJob, 10);
    host.push(faults::echoJob, 131'072);
    runJobs(host);

    for (const std::size_t size : std::vector<std::size_t>{1, 4097, 200'000, 20})
        host.push(faults::echoJob, size);
    runJobs(host);
}

void runTimeout(Host& host)
{
    host.scheduler().setJobProcessTimeout(jobSeconds);
    host.push(faults::hangJob, 10);
    for (const std::size_t size : std::vector<std::size_t>{1, 4096, 100'000})
        host.push(faults::echoJob, size);
    runJobs(host);
}

/// A memory cap that is set has to hold: a figure that cannot be had at once can be had soon.
void runMeasuredProcess(Tolerance tolerance)
{
    nq::nqProcess process;
    if (!process.startProcess("/bin/sleep", {"1000"}, false, nq::nqProcess::InheritedPriority)) {
        require(tolerance != Tolerance::transparent, "a program could not be started");
        return;
    }
    bool isMeasured = false;
    for (int look = 0; look < looksAtMemory && !isMeasured; ++look)
        isMeasured = process.getCurrentRamInUse() != 0;
    require(isMeasured || tolerance != Tolerance::transparent, "nobody knows its memory");
    process.killProcess();
    require(process.waitForFinished(programTimeoutMs), "a killed program stays");
}

/// What a pool does not use of the platform library.
void runProcesses(Tolerance tolerance)
{
    nq::nqProcess missing;
    require(
        !missing.startProcess("/nonexistent/program", {}, true, nq::nqProcess::InheritedPriority),
        "a missing program was started");
    require(missing.getState() == nq::nqProcess::NotStarted, "a missing program runs");

    const int attempts = tolerance == Tolerance::costly ? 2 : 1;
    bool started = false;
    for (int attempt = 0; attempt < attempts && !started; ++attempt) {
        nq::nqProcess process;
        started = process.startProcess("/bin/true", {}, false, nq::nqProcess::LowPriority);
        require(process.waitForFinished(programTimeoutMs), "a program that leaves at once stays");
    }
    require(started || tolerance == Tolerance::lasting, "a program could not be started");
}

void runScenario(const std::string& worker, const std::string& scenario, Tolerance tolerance)
{
    // Not a file that stays: the null device takes what is written just as well.
    KeepingLog log("/dev/null");
    nq::nqLog::LogEntry entry;
    entry.mLevel = nq::nqLog::Info;
    nq::nqLog::WriteToSystemLog(entry);

    runMeasuredProcess(tolerance);
    runProcesses(tolerance);
    Host host(worker, tolerance, log);
    if (scenario == "timeout")
        runTimeout(host);
    else
        runPool(host, scenario == "pool");
    std::cout << "outcome: " << host.outcome() << std::endl;
}

/// Again when the kernel had no random bytes, of which a scheduler's constructor complains, or no
/// memory, of which any operation may.
void runUntilConstructed(
    const std::string& worker, const std::string& scenario, Tolerance tolerance)
{
    try {
        runScenario(worker, scenario, tolerance);
    } catch (const std::system_error&) {
        require(tolerance != Tolerance::transparent, "no scheduler could be made");
        if (tolerance == Tolerance::costly)
            runScenario(worker, scenario, tolerance);
        else
            std::cout << "outcome: none" << std::endl;
    } catch (const std::bad_alloc&) {
        require(tolerance != Tolerance::transparent, "no memory");
        if (tolerance == Tolerance::costly)
            runScenario(worker, scenario, tolerance);
        else
            std::cout << "outcome: none" << std::endl;
    }
}

/// A host in whose place things are different: without a standard input, and with a worker that is
/// named from the current folder.
std::string bareWorker(const std::string& worker)
{
    close(STDIN_FILENO);
    const std::filesystem::path path = worker;
    std::filesystem::current_path(path.parent_path());
    return path.filename().string();
}

Tolerance toleranceNamed(const std::string& name)
{
    if (name == "transparent")
        return Tolerance::transparent;
    return name == "costly" ? Tolerance::costly : Tolerance::lasting;
}

void checkNothingLeft(const std::map<int, std::string>& descriptorsBefore)
{
    const std::map<int, std::string> after = common::openDescriptors();
    std::string leaked;
    for (const auto& [number, target] : after)
        if (descriptorsBefore.count(number) == 0)
            leaked += ' ' + std::to_string(number) + ' ' + target;
    require(leaked.empty(), "descriptors left open:" + leaked);
    require(after.size() == descriptorsBefore.size(), "descriptors of the host were closed");

    std::cout << "waiting for orphans" << std::endl;
    const std::string wrong = faults::reapOrphans();
    require(wrong.empty(), "processes:" + wrong);
}

} // namespace

int main(int argc, char** argv)
try {
    if (argc != 4)
        return EXIT_FAILURE;
    const std::string scenario = argv[2];
    const std::string worker = scenario == "bare-pool" ? bareWorker(argv[1]) : argv[1];
    faults::adoptOrphans();
    const auto before = common::openDescriptors();
    runUntilConstructed(worker, scenario, toleranceNamed(argv[3]));
    checkNothingLeft(before);
    std::cout << "over" << std::endl;
    return EXIT_SUCCESS;
} catch (const std::exception& exception) {
    std::cout << "wrong: " << exception.what() << std::endl;
    // Without the destructors: what they could wait for is what has just gone wrong.
    std::_Exit(EXIT_FAILURE);
}
