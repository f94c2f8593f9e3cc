#include "tests/model/rounds.h"
#include "tests/model/schedulerModel.h"
#include "tests/model/toldLines.h"
#include "tests/model/twin.h"

#include "include/nqScheduler.h"
#include "system/nqLog.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

using common::Random;
using model::Bytes;
using nq::nqScheduler;

constexpr std::uint64_t usualRounds = 800;
constexpr int stepsPerRound = 500;
/// More than any round's worker limit, so that refusals occur.
constexpr unsigned long mostWorkers = 12;

/// Schedulers that have counted an empty job: stopping one, and so destroying it, takes for ever on
/// purpose, which is why these live as long as the program.
std::vector<std::unique_ptr<nqScheduler>>& endlessSchedulers()
{
    static auto* const all = new std::vector<std::unique_ptr<nqScheduler>>();
    return *all;
}

/// A scheduler and its model that live through the same things.
class SchedulerRound {
public:
    SchedulerRound(Random& random, model::Seen& seen)
        : mRandom(random),
          mTwin(random),
          mSeen(seen),
          mMayPushEmptyJobs(random.percent(15)),
          mWaits(random.percent(50)),
          mEventsPerStep(random.pick<std::uint64_t>({1, 2, 2, 4})),
          mArguments(randomArguments()),
          mPrepends(random.percent(50)),
          mSilences(random.percent(50)),
          mExePath(random.pick<const char*>({"/opt/w/worker", "worker", "bin/worker", "/worker"})),
          mModel(mTwin.world, mExePath, mArguments, mSilences, mPrepends),
          mReal(std::make_unique<nqScheduler>(mExePath, mSilences, mArguments, mPrepends))
    {
        nq::nqLog::msInstance = &mLogger;
        for (std::size_t level = 0; level < mTwin.world.levelIsEnabled.size(); ++level)
            mLogger.setLevelEnabled(static_cast<int>(level), mTwin.world.levelIsEnabled.at(level));
        if (random.percent(60)) {
            mTwin.world.isObserved = true;
            mReal->setObserver(&mPromises);
        }
        if (mWaits)
            mReal->waitDescriptor();
        configure();
    }

    /// After a difference nothing is known about the scheduler, so its destructor may not end.
    ~SchedulerRound()
    {
        if (mReal != nullptr)
            endlessSchedulers().push_back(std::move(mReal));
    }
    SchedulerRound(const SchedulerRound&) = delete;
    SchedulerRound& operator=(const SchedulerRound&) = delete;

    /// One step; what differs afterwards, or nothing.
    std::string step()
    {
        mDid.str({});
        mTwin.planAhead(mostWorkers + 2 * mModel.workerCount() + 1);
        for (std::uint64_t i = mRandom.below(mEventsPerStep + 1); i > 0; --i)
            mTwin.randomEvent();
        mTwin.randomLaunches();
        mTwin.randomSleep();
        hostActs();
        mTwin.endSleep();
        compareCounts();
        compareTold();
        return mDifference.str() + mTwin.difference();
    }

    /// Empties the queues and ends the scheduler the way that its state allows.
    std::string end()
    {
        mDid.str("end");
        while (mModel.queues.results.size() + mReal->resultCount() != 0 &&
               mDifference.str().empty())
            pop();
        while (mModel.queues.failures.size() + mReal->failCount() != 0 && mDifference.str().empty())
            popFail();
        if (mModel.isStarted() && !canWait()) {
            ++mSeen["end: endless"];
            endlessSchedulers().push_back(std::move(mReal));
            mTwin.machine.trace.clear();
        } else {
            prepareToWait();
            ++mSeen[mModel.isStarted() ? "end: started" : "end: not started"];
            mModel.end();
            mReal.reset();
        }
        compareTold();
        for (const auto& [row, count] : mTwin.world.seen)
            mSeen[row] += count;
        return mDifference.str() + mTwin.difference();
    }

    std::string whatItDid() const
    {
        return mDid.str();
    }

private:
    void hostActs()
    {
        const std::uint64_t what = mRandom.below(100);
        const bool startsAgain = !mModel.isStarted() && what < 40;
        if (startsAgain || what >= 98)
            start();
        else if (what < 51)
            pump();
        else if (what < 53)
            kill();
        else if (what < 54)
            heal();
        else if (what < 55)
            look();
        else if (what < 77)
            push();
        else if (what < 84)
            popAll();
        else if (what < 86)
            pop();
        else if (what < 90)
            popFail();
        else if (what < 91)
            clearPendingJobs();
        else if (what < 94)
            configure();
        else if (what < 95)
            stop();
        else if (what < 96)
            waitForFinished();
        else
            setTexts();
    }

    void start()
    {
        const unsigned long most = mRandom.percent(90) ? 4 : mostWorkers;
        const unsigned long workers = mRandom.below(most + 1);
        const int timeout = mRandom.pick({-1, 0, 5000});
        mDid << "start " << workers;
        expectSame(
            "startScheduler",
            mReal->startScheduler(workers, timeout),
            mModel.start(workers, timeout));
    }

    void pump()
    {
        const int timeout = mRandom.pick({0, -5, 1, 10, 999, 1000, 2500, 2147483647});
        mDid << "pump " << timeout;
        mModel.pump(timeout);
        mReal->processScheduler(timeout);
        compareReadiness();
    }

    void kill()
    {
        const auto pids = mModel.pids();
        const std::int64_t pid = pids.empty() ? 4711 : pids[mRandom.index(pids.size())];
        const auto reason = static_cast<nqScheduler::FailReason>(mRandom.below(4));
        mDid << "kill " << pid << " for " << reason;
        const bool isKilled = mModel.kill(pid, reason, "for a reason of the host's own");
        expectSame(
            "killWorker",
            mReal->killWorker(pid, reason, "for a reason of the host's own"),
            isKilled);
        ++mSeen[isKilled ? "killed by the host" : "not killed by the host"];
    }

    void heal()
    {
        mDid << "heal";
        const bool isWhole = mModel.heal();
        expectSame("healWorkers", mReal->healWorkers(), isWhole);
    }

    void look()
    {
        mDid << "look";
        std::vector<std::string> lines;
        for (const nq::nqWorkerStatus& one : mReal->workers()) {
            const auto ms = static_cast<std::uint64_t>(one.mTimeInJob.count());
            lines.push_back(model::workerLine(one.mPid, one.mState, one.mResidentMemory, ms));
        }
        expectSame("workers", lines == mModel.workerLines(), true);
    }

    void push()
    {
        const Bytes job = mTwin.randomJob(mMayPushEmptyJobs);
        mDid << "push " << job.size() << " bytes";
        mModel.queues.pending.push_back(job);
        mReal->push(job);
        mPromises.onPush(job);
        compareReadiness();
    }

    void pop()
    {
        mDid << " pop";
        Bytes real = {'o', 'l', 'd'};
        Bytes modelled = real;
        auto& results = mModel.queues.results;
        const bool has = !results.empty();
        if (has) {
            modelled = results.front();
            results.pop_front();
        }
        expectSame("pop", mReal->pop(real), has);
        expectSame("pop's result", real == modelled, true);
        if (has && isObserved())
            mPromises.onPop(real);
    }

    void popAll()
    {
        do
            pop();
        while (!mModel.queues.results.empty() && mDifference.str().empty());
    }

    void popFail()
    {
        mDid << " popFail";
        Bytes job = {'o', 'l', 'd'};
        nqScheduler::FailReason reason = nqScheduler::Timeout;
        std::string message = "old";
        model::Failure modelled;
        auto& failures = mModel.queues.failures;
        const bool has = !failures.empty();
        if (has) {
            modelled = failures.front();
            failures.pop_front();
        }
        expectSame("popFail", mReal->popFail(job, reason, message), has);
        expectSame("popFail's job", common::text(job), modelled.job);
        expectSame("popFail's reason", reason, modelled.reason);
        expectSame("popFail's message", message, modelled.message);
        if (has)
            ++mSeen["failure " + std::to_string(reason)];
        if (has && isObserved())
            mPromises.onPopFail({common::text(job), reason, message});
    }

    void clearPendingJobs()
    {
        mDid << "clearPendingJobs";
        mModel.queues.pending.clear();
        mReal->clearPendingJobs();
        mPromises.onClearPendingJobs();
        compareReadiness();
    }

    /// The limits: accepted or refused, all in one go.
    void configure()
    {
        mDid << "configure";
        auto* const changeable = mModel.changeableConfiguration();
        model::Limits limits = mTwin.limits();
        if (mRandom.percent(20))
            limits = {};
        const std::uint64_t maxAllocated = mRandom.pick<std::uint64_t>({0, 1, 1u << 30});
        if (changeable != nullptr) {
            changeable->limits = limits;
            changeable->maxAllocated = maxAllocated;
        }
        const bool isOpen = changeable != nullptr;
        expectSame("setMaxCapMemory", mReal->setMaxCapMemory(limits.maxRam), isOpen);
        expectSame("setJobProcessTimeout", mReal->setJobProcessTimeout(limits.maxSeconds), isOpen);
        expectSame(
            "setMaxCapMemoryAfterProcessingAJob",
            mReal->setMaxCapMemoryAfterProcessingAJob(limits.maxRamAfterJob),
            isOpen);
        nq::nqSchedulerObserver* const observer = isObserved() ? &mPromises : nullptr;
        expectSame("setObserver", mReal->setObserver(observer), isOpen);
        expectSame("setMaxPhysicalMemory", mReal->setMaxPhysicalMemory(maxAllocated), isOpen);
    }

    void setTexts()
    {
        mDid << "setTexts";
        const std::string exePath = mRandom.pick<const char*>({"/opt/w/worker", "worker", ""});
        const auto arguments = randomArguments();
        const bool prepends = mRandom.percent(50);
        if (auto* const changeable = mModel.changeableConfiguration()) {
            changeable->exePath = exePath;
            changeable->arguments = arguments;
            changeable->prependsPipeName = prepends;
        }
        mReal->setExePathUtf8(exePath);
        mReal->setArgumentsUtf8(arguments, prepends);
        const auto& expected = mModel.configuration();
        expectSame("exeUtf8Path", mReal->exeUtf8Path(), expected.exePath);
        expectSame("argumentsUtf8", mReal->argumentsUtf8() == expected.arguments, true);
        expectSame("prependChannelId", mReal->prependChannelId(), expected.prependsPipeName);
    }

    void stop()
    {
        mDid << "stop";
        if (!prepareToWait())
            return;
        const bool expected = mModel.stop();
        expectSame("stopScheduler", mReal->stopScheduler(), expected);
        compareReadiness();
        mTwin.endThat();
    }

    void waitForFinished()
    {
        mDid << "waitForFinished";
        if (!prepareToWait())
            return;
        mModel.waitForFinished();
        mReal->waitForFinished();
        mTwin.endThat();
    }

    /// Whether a wait for all jobs can be made to end. A dropped empty job is counted for ever.
    bool canWait() const
    {
        return mTwin.world.seen.count("ready: empty job") == 0;
    }

    /// Sees to it that a wait ends. False when it cannot.
    bool prepareToWait()
    {
        if (!mModel.isStarted())
            return true;
        if (!canWait())
            return false;
        const auto& pending = mModel.queues.pending;
        const bool hasEmptyJob = std::any_of(
            pending.begin(), pending.end(), [](const Bytes& job) { return job.empty(); });
        if (hasEmptyJob || mModel.workerCount() == 0 || pending.size() > 40)
            clearPendingJobs();
        mTwin.letEverythingEnd(mModel.queues.jobCount() + mModel.workerCount());
        return true;
    }

    /// After what may change it, the descriptor says what the scheduler says, and has no news of a
    /// worker that nobody pumps.
    void compareReadiness()
    {
        if (!mWaits)
            return;
        const scripted::WaitSet& set = *mTwin.machine.waitSets.front();
        expectSame("readiness", set.isReady, mReal->hasImmediateWork());
        ++mSeen[set.isReady ? "ready: work" : "ready: none"];
        for (const auto& pipe : mTwin.machine.pipes) {
            const bool isPumped = mModel.isStarted() && !pipe->isDestroyed;
            expectSame("a report in vain", pipe->reportsTo != nullptr && !isPumped, false);
        }
    }

    void compareCounts()
    {
        expectSame("jobCount", mReal->jobCount(), mModel.queues.jobCount());
        expectSame("resultCount", mReal->resultCount(), mModel.queues.results.size());
        expectSame("failCount", mReal->failCount(), mModel.queues.failures.size());
        expectSame("pendingJobCount", mReal->pendingJobCount(), mModel.queues.pending.size());
        expectSame("workerCount", mReal->workerCount(), mModel.workerCount());
        expectSame("busyWorkerCount", mReal->busyWorkerCount(), mModel.busyWorkerCount());
    }

    bool isObserved() const
    {
        return mTwin.world.isObserved;
    }

    void compareTold()
    {
        mPromises.onReturn();
        mDifference << mPromises.takeBroken();
        const auto lines = mPromises.takeLines();
        const auto expected = std::exchange(mTwin.world.told, {});
        for (std::size_t i = 0; i < std::max(lines.size(), expected.size()); ++i) {
            expectSame(
                "told",
                i < lines.size() ? lines[i] : "nothing",
                i < expected.size() ? expected[i] : "nothing");
        }
        mSeen["told"] += static_cast<long>(lines.size());
    }

    template <typename Real, typename Modelled>
    void expectSame(const char* what, const Real& real, const Modelled& modelled)
    {
        if (!(real == modelled))
            mDifference << "\n  " << what << " is " << real << ", expected " << modelled;
    }

    std::vector<std::string> randomArguments()
    {
        std::vector<std::string> arguments;
        for (std::uint64_t i = mRandom.below(4); i > 0; --i)
            arguments.emplace_back(mRandom.pick<const char*>({"", "-a", "--name=two words"}));
        return arguments;
    }

    Random& mRandom;
    model::Twin mTwin;
    model::Seen& mSeen;
    bool mMayPushEmptyJobs;
    bool mWaits; // for the scheduler's descriptor
    std::uint64_t mEventsPerStep;
    std::vector<std::string> mArguments;
    bool mPrepends;
    bool mSilences;
    std::string mExePath;
    nq::nqLog mLogger;
    std::ostringstream mDifference;
    model::ToldLines mPromises;
    model::Scheduler mModel;
    std::unique_ptr<nqScheduler> mReal;
    std::ostringstream mDid;
};

TEST(SchedulerModel, agreesWithTheSchedulerAfterEveryStep)
{
    model::playRounds<SchedulerRound>(
        usualRounds,
        stepsPerRound,
        {"verdict: killed before, no second one",
         "verdict: over time",
         "verdict: over memory",
         "verdict: over both",
         "verdict: none",
         "fate: read closed and ended",
         "fate: read closed but still there",
         "fate: healthy",
         "fate: not connected",
         "ready: bytes still leave",
         "ready: killed",
         "ready: no job",
         "ready: empty job",
         "ready: job",
         "restarted after a job",
         "header cut",
         "received while idle",
         "received part of a header",
         "received an empty result",
         "received part of a result",
         "received a result",
         "start: too many",
         "start: all launched",
         "start: a launch failed",
         "launch: Process state is not 'running'",
         "launch: Timeout while waiting for worker connection",
         "launch: No pending connection",
         "replacement",
         "replacement failed",
         "healed",
         "healing failed",
         "killed by the host",
         "not killed by the host",
         "told",
         "slept",
         "ready: work",
         "ready: none",
         "stop",
         "stop: killed",
         "failure 1",
         "failure 2",
         "failure 3",
         "end: endless",
         "end: started",
         "end: not started"});
}

} // namespace
