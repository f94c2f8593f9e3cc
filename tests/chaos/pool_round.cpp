#include "tests/chaos/pool_round.h"

#include "tests/chaos/processes.h"
#include "tests/chaos/violation.h"
#include "tests/common/descriptors.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <poll.h>
#include <sstream>
#include <vector>

namespace chaos {

namespace {

constexpr int pumpMs = 20;
constexpr int workerConnectionMs = 20'000;   // for a machine under load
constexpr int disturbedConnectionMs = 2'000; // a launch may fail, and should not take the round
constexpr int endangeredConnectionMs = 300;  // where launches fail all the time
constexpr int startAttempts = 200;
constexpr int passesBeforeRestart = 50;
constexpr int passMs = 10;
constexpr int tickMs = 300;
constexpr int burst = 30;
constexpr std::uint32_t descriptorsEverySteps = 64;
constexpr std::int64_t nanosecondsPerMs = 1'000'000;
constexpr std::int64_t restBeforeDoubtMs = 500;

int connectionMs(const Disturbance& disturbance)
{
    if (disturbance.alsoBeforeConnecting)
        return endangeredConnectionMs;
    return disturbance.intervalUs != 0 ? disturbedConnectionMs : workerConnectionMs;
}

std::vector<std::string>
workerArguments(const std::string& tag, const BoardMapping& board, const PoolPlan& plan)
{
    return {tag, board.path(), plan.disturbance.alsoBeforeConnecting ? "before" : "after"};
}

} // namespace

PoolRound::PoolRound(const PoolPlan& plan, const std::string& tag, std::uint64_t firstId)
    : mPlan(plan),
      mTag(tag),
      mRandom(plan.seed),
      mDisturber(mBoard, tag, mPlan.disturbance, plan.seed + 1),
      mLedger(mPlan, firstId, mBoard, mDisturber),
      mScheduler(NQ_CHAOS_WORKER, true, workerArguments(tag, mBoard, mPlan), mPlan.pipeNameFirst)
{
    mScheduler.setJobProcessTimeout(plan.timeoutSeconds);
    mScheduler.setMaxCapMemory(plan.maxCapMemory);
    mScheduler.setMaxCapMemoryAfterProcessingAJob(plan.maxCapMemoryAfterJob);
    mScheduler.setObserver(&mPromises);
}

bool PoolRound::advance()
{
    tellProgress();
    if (++mSteps % descriptorsEverySteps == 1)
        mFigures.peakDescriptors = std::max<std::uint64_t>(
            mFigures.peakDescriptors, common::openDescriptorNumbers().size());
    switch (mPhase) {
    case Phase::starting:
        start();
        break;
    case Phase::working:
        work();
        break;
    case Phase::over:
        break;
    }
    checkPromises();
    return mPhase != Phase::over;
}

std::string PoolRound::stateText() const
{
    std::ostringstream text;
    text << "cycle " << mCycle << ", pushed in it " << mPushedInCycle << ", unresolved "
         << mLedger.unresolved() << ", counted " << mScheduler.jobCount() << ", results "
         << mScheduler.resultCount() << ", failures " << mScheduler.failCount()
         << ", workers so far " << mBoard->workerCount;
    return text.str();
}

void PoolRound::start()
{
    mDisturber.begin();
    for (int attempt = 0; attempt < startAttempts; ++attempt) {
        tellProgress();
        ++mFigures.starts;
        mFigures.firstLaunches += mPlan.workers;
        if (mScheduler.startScheduler(mPlan.workers, connectionMs(mPlan.disturbance))) {
            mPhase = Phase::working;
            mLastProgressAt = mLastPumpAt = now();
            return;
        }
        ++mFigures.failedStarts;
        if (mPlan.disturbance.intervalUs == 0)
            reportViolation("a start fails although nobody disturbs it");
    }
    reportViolation("no start succeeds");
}

void PoolRound::work()
{
    feed();
    pump();
    if (!mPlan.popsAtTheEnd || mScheduler.jobCount() == 0)
        collect();
    restartEmptiedPool();
    if (mScheduler.jobCount() == 0 && mScheduler.resultCount() == 0 &&
        mScheduler.failCount() == 0 && mLedger.unresolved() != 0)
        checkQueuesAreEmpty();
    const bool isAllPushed = mPushedInCycle == mPlan.jobsPerCycle;
    if (isAllPushed && (mLedger.unresolved() == 0 || mPlan.stopsWithPendingJobs))
        endCycle();
}

void PoolRound::feed()
{
    while (mPushedInCycle < mPlan.jobsPerCycle &&
           (mPlan.window == 0 || mScheduler.jobCount() < mPlan.window)) {
        push(nextJob());
        ++mPushedInCycle;
        ++mFigures.jobs;
    }
}

void PoolRound::push(const Job& job)
{
    const std::vector<char> bytes = encode(job);
    mPromises.onPush(bytes);
    mScheduler.push(bytes);
}

Job PoolRound::nextJob()
{
    std::uint64_t total = 0;
    for (const MixEntry& entry : mPlan.mix)
        total += entry.frequency;
    std::uint64_t choice = mRandom.below(total);
    auto chosen = mPlan.mix.begin();
    for (; choice >= chosen->frequency; ++chosen)
        choice -= chosen->frequency;

    Job job;
    job.behaviour = chosen->behaviour;
    job.milliseconds = static_cast<std::uint32_t>(1 + mRandom.below(mPlan.longestPauseMs));
    job.growBytes = mPlan.growBytes;
    job.payloadBytes = mRandom.below(mPlan.largestPayload + 1);
    job.answerBytes = mRandom.below(mPlan.largestPayload + 1);
    mLedger.enter(job);
    return job;
}

void PoolRound::pump()
{
    switch (mPlan.pumping) {
    case Pumping::steadily:
        return pumpOnce(pumpMs);
    case Pumping::spinning:
        return pumpOnce(0);
    case Pumping::rarely:
        pumpOnce(0);
        return beAway();
    case Pumping::inBursts:
        for (int i = 0; i < burst; ++i)
            pumpOnce(1);
        return beAway();
    case Pumping::onNews:
        awaitNews();
        return pumpOnce(0);
    }
}

/// A host that is not told of something finds it a tick later, and its jobs take too long.
void PoolRound::awaitNews()
{
    pollfd news{mScheduler.waitDescriptor(), POLLIN, 0};
    if (news.fd == -1)
        reportViolation("there is no descriptor to wait on");
    ::poll(&news, 1, tickMs);
}

void PoolRound::pumpOnce(int timeoutMs)
{
    const std::int64_t before = now();
    const unsigned long jobsBefore = mScheduler.jobCount();
    mLedger.noteAbsence(before - mLastPumpAt);
    mScheduler.processScheduler(timeoutMs);
    mLastPumpAt = now();
    mLedger.noteAbsence(mLastPumpAt - before);
    if (mScheduler.jobCount() != jobsBefore)
        mLastProgressAt = mLastPumpAt;
}

/// What a host does that has other work: nothing here waits for anything.
void PoolRound::beAway()
{
    const auto milliseconds = static_cast<long>(mRandom.below(mPlan.longestAbsenceMs + 1));
    timespec left{0, milliseconds * nanosecondsPerMs};
    while (nanosleep(&left, &left) == -1 && errno == EINTR) {
    }
}

void PoolRound::collect()
{
    std::vector<char> bytes;
    while (mScheduler.pop(bytes)) {
        mPromises.onPop(bytes);
        mLedger.enterResult(bytes, mFigures);
    }
    nq::nqScheduler::FailReason reason{};
    std::string message;
    while (mScheduler.popFail(bytes, reason, message)) {
        mPromises.onPopFail({common::text(bytes), reason, message});
        mLedger.enterFailure(bytes, reason, message, mFigures);
    }
}

/// A failed launch is not tried again, so enough of them empty the pool. A host that notices takes
/// its pending jobs back, starts anew and pushes them again.
void PoolRound::restartEmptiedPool()
{
    if (now() - mLastProgressAt < restBeforeDoubtMs * nanosecondsPerMs)
        return;
    mLastProgressAt = now(); // whatever comes of it, the next doubt is due after the next rest
    if (mScheduler.jobCount() == 0 || !isPoolEmpty())
        return;
    mDisturber.calm(); // or a worker could be killed between any two looks
    for (int pass = 0; pass < passesBeforeRestart && isPoolEmpty(); ++pass)
        pumpOnce(passMs); // what died since the last pass is replaced
    if (mScheduler.jobCount() == 0 || !isPoolEmpty())
        return;
    mScheduler.clearPendingJobs();
    mPromises.onClearPendingJobs();
    if (mScheduler.jobCount() != 0)
        reportViolation("a job is in the hands of a worker, but there is none");
    ++mFigures.emptiedPools;
    if (!mScheduler.stopScheduler())
        reportViolation("a started scheduler cannot be stopped");
    collect();
    for (const Job& job : mLedger.unresolvedJobs())
        push(job);
    start();
}

/// Asks the kernel and not the board: a worker may hold a job before it has entered itself.
bool PoolRound::isPoolEmpty() const
{
    return processesWith(mTag).empty();
}

void PoolRound::endCycle()
{
    if (mLedger.unresolved() != 0)
        stopWithPendingJobs();
    else if (!mScheduler.stopScheduler()) // disturbed up to the end
        reportViolation("a started scheduler cannot be stopped");
    if (mScheduler.stopScheduler())
        reportViolation("a stopped scheduler is stopped a second time");
    collect();
    checkQueuesAreEmpty();
    mDisturber.calm();
    mPushedInCycle = 0;
    mPhase = Phase::starting;
    if (++mCycle < mPlan.cycles)
        return;
    mPhase = Phase::over;
    closeAccount();
}

/// Nobody may endanger launches meanwhile: the library waits for ever when the last worker is lost.
void PoolRound::stopWithPendingJobs()
{
    mDisturber.calm();
    pumpOnce(0);
    collect();
    while (mScheduler.jobCount() != 0 && isPoolEmpty()) {
        tellProgress();
        mLastProgressAt = 0;
        restartEmptiedPool();
        mDisturber.calm();
        pumpOnce(0);
        collect();
    }
    if (!mScheduler.stopScheduler())
        reportViolation("a started scheduler cannot be stopped");
}

void PoolRound::checkPromises()
{
    mPromises.onReturn();
    const std::string broken = mPromises.takeBroken();
    if (!broken.empty())
        reportViolation("events:" + broken);
}

void PoolRound::checkQueuesAreEmpty() const
{
    if (mLedger.unresolved() != 0)
        reportViolation(
            std::to_string(mLedger.unresolved()) + " jobs are neither result nor failure");
    if (mScheduler.jobCount() != 0 || mScheduler.resultCount() != 0 || mScheduler.failCount() != 0)
        reportViolation("a stopped scheduler counts what is not there: " + stateText());
}

void PoolRound::closeAccount()
{
    mLedger.check();
    if (mBoard->workerCount > Board::maxWorkers)
        reportViolation("more workers than the board has places");
    mDisturber.addTo(mFigures);
    mFigures.launches += mBoard->workerCount;
    for (const WorkerEntry& worker : mBoard->workers)
        mFigures.ownDeaths += worker.doomedAt != 0 ? 1 : 0;
}

} // namespace chaos
