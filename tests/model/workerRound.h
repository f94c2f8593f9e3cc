#pragma once

#include "tests/common/failure.h"
#include "tests/common/random.h"
#include "tests/common/refusedMemory.h"
#include "tests/model/twin.h"
#include "tests/model/workerModel.h"

#include "scheduler/nqJobQueues.h"
#include "supervision/nqSchedulerWorker.h"
#include "system/nqLog.h"
#include "system/nqNamedPipe.h"
#include "system/nqProcess.h"

#include <memory>
#include <new>
#include <optional>
#include <sstream>
#include <string>
#include <utility>

namespace model {

/// One worker record after the other, and the model of each, on the same queues. The queues are
/// emptied after every step, so that the contents are compared and not only the counts.
class WorkerRound {
public:
    WorkerRound(common::Random& random, Seen& seen)
        : mRandom(random),
          mSeen(seen),
          mTwin(random, Peers::hostile),
          mEventsPerStep(random.pick<std::uint64_t>({1, 1, 2, 3}))
    {
        nq::nqLog::msInstance = &mLogger;
        for (std::size_t level = 0; level < mTwin.world.levelIsEnabled.size(); ++level)
            mLogger.setLevelEnabled(static_cast<int>(level), mTwin.world.levelIsEnabled.at(level));
    }

    std::string step()
    {
        mDid = "";
        mTwin.planAhead(2);
        if (mReal == nullptr) {
            begin();
        } else {
            for (std::uint64_t i = mRandom.below(mEventsPerStep + 1); i > 0; --i)
                mTwin.randomEvent();
            act();
        }
        compareFlags();
        compareQueues();
        return mDifference.str() + mTwin.difference();
    }

    std::string end()
    {
        mDid = "end";
        destroy();
        for (const auto& [row, count] : mTwin.world.seen)
            mSeen[row] += count;
        return mDifference.str() + mTwin.difference();
    }

    std::string whatItDid() const
    {
        return mDid;
    }

private:
    template <typename Action>
    static bool throwsForMemory(const Action& action)
    {
        try {
            action();
            return false;
        } catch (const std::bad_alloc&) {
            return true;
        }
    }

    void begin()
    {
        mDid = "begin";
        const Limits limits = mTwin.limits();
        const auto pipe = mTwin.world.takePipe();
        const auto process = mTwin.world.takeProcess();
        mTwin.world.say(process->name + ": created");
        process->state = nq::nqProcess::Running;
        mModelled.emplace(mTwin.world, mQueues, pipe, process, limits);

        auto realPipe = std::make_unique<nq::nqNamedPipe>();
        auto realProcess = std::make_unique<nq::nqProcess>();
        mTwin.machine.processes.back()->state = nq::nqProcess::Running;
        mReal = std::make_unique<nq::nqSchedulerWorker>(
            std::move(realPipe), std::move(realProcess), &mRealQueues);
        mReal->setMaxCapMemory(limits.maxRam);
        mReal->setJobProcessTimeout(limits.maxSeconds);
        mReal->setMaxCapMemoryAfterProcessingAJob(limits.maxRamAfterJob);
    }

    void act()
    {
        const std::uint64_t what = mRandom.below(1000);
        const bool isReplaced = mModelled->isFinished() && what < 300;
        if (isReplaced || what >= 996)
            destroy();
        else if (what < 700)
            supervise();
        else if (what < 980)
            push();
        else if (what < 990)
            clearPendingJobs();
        else
            closePipe();
    }

    void supervise()
    {
        mDid = "supervise";
        if (mModelled->pipe() == nullptr)
            ++mSeen["supervised without a pipe"];
        const bool mustThrow = throwsForMemory([this] { mModelled->step(); });
        bool hasThrown = false;
        {
            const common::RefusedMemory refused(refusedBytes);
            hasThrown = throwsForMemory([this] { mReal->superviseStep(); });
        }
        expectSame("the step throws", hasThrown, mustThrow);
    }

    void push()
    {
        const Bytes job = mTwin.randomJob(mRandom.percent(10));
        mDid = "push " + std::to_string(job.size()) + " bytes";
        mQueues.pending.push_back(job);
        mRealQueues.push(job);
    }

    void clearPendingJobs()
    {
        mDid = "clearPendingJobs";
        mQueues.pending.clear();
        mRealQueues.clearPendingJobs();
    }

    void closePipe()
    {
        mDid = "closePipe";
        mModelled->closePipe();
        mReal->closePipe();
    }

    void destroy()
    {
        if (mReal == nullptr)
            return;
        mDid = "destroy";
        mModelled->end();
        mModelled.reset();
        mReal.reset();
    }

    void compareFlags()
    {
        if (mReal == nullptr)
            return;
        expectSame("isReadyForJob", mReal->isReadyForJob(), mModelled->isReady());
        expectSame("hasFinished", mReal->hasFinished(), mModelled->isFinished());
        expectSame("has a pipe", mReal->pipe() != nullptr, mModelled->pipe() != nullptr);
    }

    void compareQueues()
    {
        expectSame("jobCount", mRealQueues.jobCount(), mQueues.jobCount());
        expectSame("pendingJobCount", mRealQueues.pendingJobCount(), mQueues.pending.size());
        expectSame("resultCount", mRealQueues.resultCount(), mQueues.results.size());
        expectSame("failCount", mRealQueues.failCount(), mQueues.failures.size());
        expectSame("allJobsDone", mRealQueues.allJobsDone(), mQueues.jobCount() == 0);

        Bytes result;
        while (mRealQueues.pop(result) && !mQueues.results.empty()) {
            expectSame("the result is right", result == mQueues.results.front(), true);
            mQueues.results.pop_front();
        }
        for (const common::Failure& failure : common::failures(mRealQueues)) {
            if (mQueues.failures.empty())
                break;
            expectSame("the failure", failure, mQueues.failures.front());
            ++mSeen["failure " + std::to_string(failure.reason)];
            mQueues.failures.pop_front();
        }
    }

    template <typename Real, typename Modelled>
    void expectSame(const char* what, const Real& real, const Modelled& modelled)
    {
        if (!(real == modelled))
            mDifference << "\n  " << what << ": " << real << ", expected " << modelled;
    }

    common::Random& mRandom;
    Seen& mSeen;
    Twin mTwin;
    std::uint64_t mEventsPerStep;
    nq::nqLog mLogger;
    Queues mQueues;
    nq::nqJobQueues mRealQueues;
    std::optional<Worker> mModelled;
    std::unique_ptr<nq::nqSchedulerWorker> mReal;
    std::ostringstream mDifference;
    std::string mDid;
};

} // namespace model
