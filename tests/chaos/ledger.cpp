#include "tests/chaos/ledger.h"

#include "tests/chaos/violation.h"

#include <algorithm>

namespace chaos {

namespace {

using nq::nqScheduler;

constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;

// A loaded machine, and a launch before the pump gets to the worker that died.
constexpr std::int64_t longestToReport = 10 * nanosecondsPerSecond;

bool startsWith(const std::string& text, const std::string& beginning)
{
    return text.rfind(beginning, 0) == 0;
}

} // namespace

Ledger::Ledger(
    const PoolPlan& plan, std::uint64_t firstId, const BoardMapping& board, Disturber& disturber)
    : mPlan(plan),
      mFirstId(firstId),
      mBoard(board),
      mDisturber(disturber)
{
}

void Ledger::enter(Job& job)
{
    if (mEntries.size() == Board::maxJobs)
        reportViolation("the plan has more jobs than the board has places");
    job.id = mFirstId + mEntries.size();
    mEntries.push_back({job, false});
}

void Ledger::enterResult(const std::vector<char>& bytes, Figures& figures)
{
    const auto id = decodeAnswer(bytes);
    if (!id)
        reportViolation("a result of " + std::to_string(bytes.size()) + " bytes is damaged");
    const Job& job = resolve(*id, "result").job;
    if (!answers(job.behaviour))
        reject(job, "has a result that its worker never gave");
    if (bytes != encodeAnswer(job))
        reject(job, "has a result with other bytes than its worker sent");
    ++figures.results;
}

void Ledger::enterFailure(
    const std::vector<char>& bytes,
    nqScheduler::FailReason reason,
    const std::string& message,
    Figures& figures)
{
    const auto job = decodeJob(bytes);
    if (!job)
        reportViolation("a failure's job of " + std::to_string(bytes.size()) + " bytes is damaged");
    const Job& entered = resolve(job->id, "failure").job;
    if (bytes != encode(entered))
        reject(entered, "comes back with other bytes than it was pushed with");
    switch (reason) {
    case nqScheduler::UnexpectedCrash:
        if (message != "Unexpected crash")
            reject(entered, "fails with a strange message: " + message);
        explainCrash(entered, figures);
        break;
    case nqScheduler::TooMuchRam:
        if (!startsWith(message, "using too much RAM ("))
            reject(entered, "fails with a strange message: " + message);
        explainMemory(entered);
        break;
    case nqScheduler::Timeout:
        if (!startsWith(message, "killing scheduler worker : timeout ("))
            reject(entered, "fails with a strange message: " + message);
        explainTimeout(entered);
        break;
    case nqScheduler::NoFailure:
        reject(entered, "fails without a reason");
    }
    ++figures.failures[static_cast<std::size_t>(reason)];
}

std::vector<Job> Ledger::unresolvedJobs() const
{
    std::vector<Job> jobs;
    for (const Entry& entry : mEntries)
        if (!entry.isResolved)
            jobs.push_back(entry.job);
    return jobs;
}

void Ledger::noteAbsence(std::int64_t nanoseconds)
{
    mLongestAbsence = std::max(mLongestAbsence, nanoseconds);
}

void Ledger::check() const
{
    if (unresolved() != 0)
        reportViolation(std::to_string(unresolved()) + " jobs are neither result nor failure");
    const std::size_t deaths = ownDeaths() + mDisturber.fatalCount();
    if (mCrashes > deaths)
        reportViolation(
            std::to_string(mCrashes) + " jobs have crashed, but only " + std::to_string(deaths) +
            " workers");
}

Ledger::Entry& Ledger::resolve(std::uint64_t id, const char* how)
{
    if (id < mFirstId || id - mFirstId >= mEntries.size())
        reportViolation(std::string("a ") + how + " belongs to a job that was never pushed here");
    Entry& entry = mEntries[id - mFirstId];
    if (entry.isResolved)
        reject(entry.job, std::string("is resolved a second time, as a ") + how);
    entry.isResolved = true;
    ++mResolved;
    return entry;
}

/// Somebody has ended its worker: the job itself, a signal, or the job before it.
void Ledger::explainCrash(const Job& job, Figures& figures)
{
    ++mCrashes;
    const pid_t worker = takerOf(job);
    // A job may be lost on its way to a worker that ends; that every such job stands for a worker
    // of its own is counted in the end.
    if (worker == 0)
        return;
    const auto signalAt = mDisturber.fatalSignalAt(worker);
    const WorkerEntry* entry = mBoard.entryOf(worker);
    const std::int64_t doomedAt = entry ? entry->doomedAt.load() : 0;
    const bool byItself = doomedAt != 0 && diesUnanswered(job.behaviour);
    const bool byJobBefore = doomedAt != 0 && entry->doomedBy != job.id;
    if (!signalAt && !byItself && !byJobBefore)
        reject(job, "has crashed in worker " + std::to_string(worker) + ", which nobody harmed");
    if (signalAt && doomedAt != 0)
        noteDeathToReport(std::min(*signalAt, doomedAt), figures);
    else
        noteDeathToReport(signalAt ? *signalAt : doomedAt, figures);
}

void Ledger::explainMemory(const Job& job) const
{
    const pid_t worker = takerOf(job);
    const WorkerEntry* entry = mBoard.entryOf(worker);
    const bool mayBeUnknown = worker == 0 && mPlan.growBytes != 0;
    if (mPlan.maxCapMemory == 0 || (!mayBeUnknown && (!entry || !entry->hasGrown)))
        reject(job, "has too much memory in a worker that did not grow");
}

void Ledger::explainTimeout(const Job& job)
{
    const auto limit = static_cast<std::int64_t>(mPlan.timeoutSeconds) * nanosecondsPerSecond;
    const pid_t worker = takerOf(job);
    const bool hangs = job.behaviour == Behaviour::hang || job.behaviour == Behaviour::growAndWait;
    // A host that is away for so long finds the job too old before it finds its result.
    const bool hostWasAway = mLongestAbsence >= limit;
    const bool isStoppedUnseen = worker == 0 && mPlan.disturbance.stops != 0;
    if (limit == 0 ||
        (!hangs && !hostWasAway && !isStoppedUnseen && !mDisturber.hasStopped(worker)))
        reject(job, "has timed out in a worker that was never stopped");
}

/// Where the host pops as it goes; otherwise it is the host that is late.
void Ledger::noteDeathToReport(std::int64_t death, Figures& figures) const
{
    if (mPlan.popsAtTheEnd || mPlan.stopsWithPendingJobs)
        return;
    const std::int64_t time = now() - death;
    figures.longestToReport = std::max(figures.longestToReport, time);
    if (mPlan.longestAbsenceMs == 0)
        figures.longestToReportSteadily = std::max(figures.longestToReportSteadily, time);
    if (time > longestToReport + mLongestAbsence)
        reportViolation(
            "a failure was reported " + std::to_string(time / nanosecondsPerSecond) +
            " s after the death");
}

pid_t Ledger::takerOf(const Job& job) const
{
    return mBoard->takers[job.id % Board::maxJobs];
}

std::size_t Ledger::ownDeaths() const
{
    const auto& workers = mBoard->workers;
    return static_cast<std::size_t>(
        std::count_if(workers.begin(), workers.end(), [](const WorkerEntry& worker) {
            return worker.doomedAt != 0;
        }));
}

void Ledger::reject(const Job& job, const std::string& what) const
{
    reportViolation(
        "job " + std::to_string(job.id - mFirstId) + " (" + nameOf(job.behaviour) + ") " + what);
}

} // namespace chaos
