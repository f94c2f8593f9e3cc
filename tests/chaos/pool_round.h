#pragma once

#include "nqScheduler.h"
#include "tests/chaos/board.h"
#include "tests/chaos/disturber.h"
#include "tests/chaos/figures.h"
#include "tests/chaos/ledger.h"
#include "tests/chaos/plan.h"
#include "tests/common/promises.h"
#include "tests/common/random.h"

#include <cstdint>
#include <string>

namespace chaos {

/// One scheduler's part of a round, step by step, so that several can share a thread: start, work,
/// stop, and again for every cycle of its plan.
class PoolRound {
public:
    /// `tag` is on every worker's command line; jobs are numbered from `firstId` on.
    PoolRound(const PoolPlan& plan, const std::string& tag, std::uint64_t firstId);

    /// One step; false when everything is over and has been accounted for.
    bool advance();

    const Figures& figures() const
    {
        return mFigures;
    }

    /// For the report of a hang.
    std::string stateText() const;

private:
    enum class Phase {
        starting, // no worker yet
        working,  // jobs are pushed, pumped and collected
        over      // the scheduler is stopped and the account is closed
    };

    void start();
    void work();
    void feed();
    Job nextJob();
    void push(const Job& job);
    void pump();
    void pumpOnce(int timeoutMs);
    void beAway();
    void awaitNews();
    void collect();
    void restartEmptiedPool();
    bool isPoolEmpty() const;
    void endCycle();
    void stopWithPendingJobs();
    void checkPromises();
    void checkQueuesAreEmpty() const;
    void closeAccount();

    const PoolPlan mPlan;
    const std::string mTag;
    BoardMapping mBoard;
    common::SeededRandom mRandom;
    Disturber mDisturber;
    Ledger mLedger;
    common::Promises mPromises;
    nq::nqScheduler mScheduler;
    Figures mFigures;
    Phase mPhase = Phase::starting;
    std::uint32_t mCycle = 0;
    std::uint32_t mPushedInCycle = 0;
    std::uint32_t mSteps = 0;
    std::int64_t mLastProgressAt = 0; // of the jobs
    std::int64_t mLastPumpAt = 0;
};

} // namespace chaos
