#include "examples/contact_sheet/decode_all.h"

#include "examples/contact_sheet/protocol.h"
#include "examples/contact_sheet/stop_signal.h"

#include <nqScheduler.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <string>
#include <utility>

namespace sheet {

namespace {

using Clock = std::chrono::steady_clock;

// Time-outs and memory caps act only while the host pumps, and a worker can grow by gigabytes a
// second: the pauses between two pumps have to be short.
constexpr int pumpMs = 20;

constexpr std::chrono::milliseconds connectionTimeout{5'000}; // for a machine under heavy load

// One job for each worker, and one more that is ready when the first is done. More would only grow
// the host, and be dropped on an early end.
constexpr unsigned long jobsPerWorker = 2;

FailureKind kindOf(nq::nqScheduler::FailReason reason)
{
    switch (reason) {
    case nq::nqScheduler::TooMuchRam:
        return FailureKind::tooMuchMemory;
    case nq::nqScheduler::Timeout:
        return FailureKind::timeout;
    case nq::nqScheduler::NoFailure:
    case nq::nqScheduler::UnexpectedCrash:
        break;
    }
    return FailureKind::crash;
}

// A replacement that fails to start is not tried again, and no call tells how many workers are
// left. While there is one, some job is resolved within its time-out, the second that is added to
// it, and the time that replacements take to connect, during which nothing is pumped. Longer
// silence, with a reserve for a slow machine, means that no worker is left.
std::chrono::milliseconds longestSilence(const PoolLimits& limits)
{
    constexpr std::chrono::seconds reserve{5};
    return std::chrono::seconds(limits.timeoutSeconds + 1) + limits.workers * connectionTimeout +
           reserve;
}

class Run {
public:
    Run(std::vector<Entry>& entries,
        std::uint32_t edge,
        const PoolLimits& limits,
        Progress& progress);

    RunEnd go();

private:
    void pushSome();
    void popAll();
    void resolve(std::size_t index, std::variant<Unresolved, DecodedPicture, Failure> outcome);
    void takeAnswer(const std::vector<char>& bytes);
    void takeFailure(
        const std::vector<char>& job,
        nq::nqScheduler::FailReason reason,
        const std::string& message);
    void failTheRest(const char* reason);
    bool isUnderWay() const;
    bool isSilent() const;
    RunEnd end(RunEnd how);

    std::vector<Entry>& mEntries;
    std::uint32_t mEdge;
    const PoolLimits& mLimits;
    Progress& mProgress;
    nq::nqScheduler mScheduler;
    std::size_t mNextToPush = 0;
    Tally mTally;
    Clock::time_point mLastResolved; // or the start, until the first
};

Run::Run(
    std::vector<Entry>& entries, std::uint32_t edge, const PoolLimits& limits, Progress& progress)
    : mEntries(entries),
      mEdge(edge),
      mLimits(limits),
      mProgress(progress),
      mScheduler(limits.worker, true, {}, false)
{
    mTally.total = entries.size();
    mScheduler.setJobProcessTimeout(limits.timeoutSeconds);
    mScheduler.setMaxCapMemory(limits.memory);
    mScheduler.setMaxCapMemoryAfterProcessingAJob(limits.memoryAfterJob);
    mScheduler.setMaxPhysicalMemory(limits.allocation);
}

RunEnd Run::go()
{
    if (!mScheduler.startScheduler(mLimits.workers, int{connectionTimeout.count()}))
        return RunEnd::notStarted;

    mLastResolved = Clock::now();
    while (isUnderWay()) {
        pushSome();
        mScheduler.processScheduler(pumpMs);
        popAll();
        mProgress.show(mTally);
        if (stopSignal() != 0)
            return end(RunEnd::interrupted);
        if (isSilent())
            return end(RunEnd::poolLost);
    }
    return end(RunEnd::complete);
}

// Asked when all results and failures are popped, so what the scheduler no longer counts is done.
bool Run::isUnderWay() const
{
    return mNextToPush < mEntries.size() || mScheduler.jobCount() > 0;
}

void Run::pushSome()
{
    while (mNextToPush < mEntries.size() &&
           mScheduler.jobCount() < jobsPerWorker * mLimits.workers) {
        // Workers run in the folder of their executable, so a relative path would not be found.
        const std::string path = std::filesystem::absolute(mEntries[mNextToPush].path).string();
        mScheduler.push(encodeJob({static_cast<JobId>(mNextToPush), mEdge, path}));
        ++mNextToPush;
    }
}

// The pump does not wait while a result is there to be popped, so all are popped each time.
void Run::popAll()
{
    std::vector<char> bytes;
    while (mScheduler.pop(bytes))
        takeAnswer(bytes);

    nq::nqScheduler::FailReason reason = nq::nqScheduler::NoFailure;
    std::string message;
    while (mScheduler.popFail(bytes, reason, message))
        takeFailure(bytes, reason, message);
}

void Run::takeAnswer(const std::vector<char>& bytes)
{
    std::optional<Answer> answer = decodeAnswer(bytes);
    // What a worker sends is not trusted. The job of an answer that makes no sense stays without an
    // outcome until the end.
    if (!answer)
        return;
    if (auto* decoded = std::get_if<DecodedPicture>(&answer->outcome))
        resolve(answer->id, std::move(*decoded));
    else
        resolve(
            answer->id,
            Failure{FailureKind::undecodable, std::get<Refusal>(answer->outcome).reason});
}

void Run::takeFailure(
    const std::vector<char>& job, nq::nqScheduler::FailReason reason, const std::string& message)
{
    // A failure carries the bytes that were pushed, so it always decodes.
    if (const std::optional<Job> failed = decodeJob(job))
        resolve(failed->id, Failure{kindOf(reason), message});
}

void Run::resolve(std::size_t index, std::variant<Unresolved, DecodedPicture, Failure> outcome)
{
    if (index >= mEntries.size() || !std::holds_alternative<Unresolved>(mEntries[index].outcome))
        return;
    ++mTally.done;
    if (std::holds_alternative<Failure>(outcome))
        ++mTally.failed;
    mEntries[index].outcome = std::move(outcome);
    mLastResolved = Clock::now();
}

bool Run::isSilent() const
{
    return Clock::now() - mLastResolved > longestSilence(mLimits);
}

void Run::failTheRest(const char* reason)
{
    for (std::size_t index = 0; index < mEntries.size(); ++index)
        resolve(index, Failure{FailureKind::notDone, reason});
}

// stopScheduler waits for every pending job, without limit when no worker is left. Jobs that no
// worker holds are dropped first; one that a worker holds ends by itself or by its time-out.
RunEnd Run::end(RunEnd how)
{
    mScheduler.clearPendingJobs();
    mScheduler.stopScheduler();
    popAll();
    if (how == RunEnd::complete)
        failTheRest("the worker's answer made no sense");
    if (how == RunEnd::poolLost)
        failTheRest("no worker process was left for it");
    return how;
}

} // namespace

RunEnd decodeAll(
    std::vector<Entry>& entries, std::uint32_t edge, const PoolLimits& limits, Progress& progress)
{
    return Run(entries, edge, limits, progress).go();
}

} // namespace sheet
