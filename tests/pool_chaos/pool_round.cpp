#include "tests/chaos/sanitizer.h"
#include "tests/chaos/violation.h"
#include "tests/pool_chaos/ledger.h"

#include <chrono>
#include <memory>
#include <optional>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <vector>

namespace pool_chaos {

namespace {

using nq::nqJobId;
using nq::nqOutcome;
using nq::nqPoolOptions;
using std::chrono::milliseconds;

constexpr milliseconds longestSleep{60'000};

struct ThrownByACallback : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Entry {
    Job job;
    bool hasCallback = false;
    bool isCancelAsked = false;
    bool isSettled = false;
};

/// One pool, everything on one thread.
class Round {
public:
    explicit Round(std::uint64_t seed)
        : mRandom(seed),
          mPlan(makePlan(mRandom)),
          mUsesDescriptor(mRandom.percent(40)),
          mPool(std::make_unique<nq::nqPool>(mPlan.options))
    {
    }

    void play()
    {
        const std::size_t wanted = (20 + mRandom.below(130)) / chaos::slowness;
        while (mEntries.size() < wanted && !mIsStopped)
            guarded([this] { act(); });
        finish();
        checkStatistics();
        if (!mIsStopped && mRandom.percent(10))
            submitAndDestroy();
        mPool.reset();
    }

private:
    /// What a callback throws passes through whatever pumps, and everything can be taken up again.
    template <typename Action>
    void guarded(Action action)
    {
        try {
            action();
        } catch (const ThrownByACallback&) {
            ++mThrown;
        }
    }

    void act()
    {
        chaos::tellProgress();
        const std::uint64_t choice = mRandom.below(1000);
        if (choice < 600)
            submit();
        else if (choice < 700)
            cancelSome();
        else if (choice < 900)
            pump(milliseconds(mRandom.below(6)));
        else if (choice < 980)
            take(milliseconds(mRandom.below(6)));
        else if (choice < 990)
            mPool->drain([this](const nq::nqProgress&) {
                checkBound();
                return true;
            });
        else if (choice < 995)
            stop();
        else
            checkStatistics();
    }

    void submit()
    {
        Job job = makeJob(mRandom, mPlan);
        const bool hasCallback = mRandom.percent(70);
        std::vector<char> bytes = job.bytes;
        nq::nqPool::Callback callback;
        if (hasCallback)
            callback = [this](nqOutcome&& outcome) { hear(outcome); };
        const nqJobId id = mPool->submit(std::move(bytes), job.options, std::move(callback));
        if (id == 0) {
            ++figures().refused;
            requireRefusal();
            if (bytes != job.bytes) // NOLINT(bugprone-use-after-move): a refused job stays
                chaos::reportViolation("a refused job has been taken");
            // Otherwise nothing would ever make room.
            if (!mIsInCallback)
                pump(milliseconds(10));
            take(milliseconds(0));
            return;
        }
        ++figures().jobs;
        mEntries.push_back({std::move(job), hasCallback, false, false});
        if (id != mEntries.size())
            chaos::reportViolation("ids do not count up from 1");
        checkBound();
    }

    void requireRefusal() const
    {
        const bool mayRefuse =
            mIsInCallback || mPlan.options.whenFull == nqPoolOptions::WhenFull::Refuse;
        if (mPlan.options.maxPendingJobs == 0 || !mayRefuse)
            chaos::reportViolation("a job is refused by a pool that may not refuse");
    }

    void cancelSome()
    {
        for (std::uint64_t left = 1 + mRandom.below(10); left != 0; --left)
            cancel();
    }

    void cancel()
    {
        const nqJobId id = mRandom.below(mEntries.size() + 2);
        const bool isKnown = id != 0 && id <= mEntries.size();
        if (isKnown)
            mEntries[id - 1].isCancelAsked = true;
        ++figures().cancels;
        if (mPool->cancel(id) && (!isKnown || mEntries[id - 1].isSettled))
            chaos::reportViolation("a job is cancelled that has an outcome already");
    }

    void pump(milliseconds timeout)
    {
        if (mUsesDescriptor) {
            pollfd news{mPool->waitDescriptor(), POLLIN, 0};
            ::poll(&news, 1, static_cast<int>(timeout.count()));
            timeout = milliseconds(0);
        }
        mPool->pump(timeout);
        checkBound();
    }

    void take(milliseconds timeout)
    {
        if (mIsInCallback)
            return;
        const std::optional<nqOutcome> outcome = mPool->next(timeout);
        if (!outcome)
            return;
        if (outcome->id == 0 || outcome->id > mEntries.size() ||
            mEntries[outcome->id - 1].hasCallback)
            chaos::reportViolation("next() returns what is told to a callback");
        settleOne(*outcome, mLastTaken);
    }

    void hear(const nqOutcome& outcome)
    {
        if (outcome.id == 0 || outcome.id > mEntries.size() ||
            !mEntries[outcome.id - 1].hasCallback)
            chaos::reportViolation("a callback hears of a job that is not its own");
        settleOne(outcome, mLastHeard);
        mIsInCallback = true;
        if (mRandom.percent(5) && !mIsStopped)
            submit();
        if (mRandom.percent(5))
            cancel();
        mIsInCallback = false;
        if (mRandom.percent(2))
            throw ThrownByACallback("on purpose");
    }

    void settleOne(const nqOutcome& outcome, nqJobId& last)
    {
        Entry& entry = mEntries[outcome.id - 1];
        if (entry.isSettled)
            chaos::reportViolation("a job has a second outcome");
        entry.isSettled = true;
        ++mSettled;
        if (mPlan.options.order == nqPoolOptions::Order::Submission && outcome.id < last)
            chaos::reportViolation("the order of submission is not kept");
        last = outcome.id;
        settle(entry.job, outcome, mPlan, entry.isCancelAsked, mIsStopped);
    }

    void stop()
    {
        mIsStopped = true;
        ++figures().stops;
        mPool->stop();
    }

    void finish()
    {
        if (!mIsStopped && mRandom.percent(15))
            guarded([this] { stop(); });
        while (mSettled < mEntries.size())
            guarded([this] {
                if (mPool->unfinishedCount() != 0)
                    pump(longestSleep);
                else
                    mPool->pump(milliseconds(0));
                for (std::size_t before = mSettled; take(milliseconds(0)), before != mSettled;)
                    before = mSettled;
            });
        if (mPool->next(milliseconds(0)))
            chaos::reportViolation("there are more outcomes than jobs");
    }

    /// Whatever has not been told by then is not told any more.
    void submitAndDestroy()
    {
        for (int job = 0; job < 5; ++job)
            mPool->submit(makeJob(mRandom, mPlan).bytes, [this](nqOutcome&&) {
                if (mIsDestroyed)
                    chaos::reportViolation("a callback of a destroyed pool");
            });
        mIsDestroyed = true;
        mPool.reset();
    }

    void checkBound() const
    {
        const std::size_t bound = mPlan.options.maxPendingJobs;
        if (bound != 0 && mPool->unfinishedCount() > bound)
            chaos::reportViolation("more jobs are unfinished than the bound allows");
        if (mPool->queuedCount() > mPool->unfinishedCount())
            chaos::reportViolation("more jobs wait than are unfinished");
    }

    void checkStatistics() const
    {
        const nq::nqPoolStatistics now = mPool->statistics();
        const std::uint64_t ended = now.done + now.failed + now.cancelled;
        if (now.submitted != mEntries.size() || ended + now.queued + now.running != now.submitted)
            chaos::reportViolation("the statistics do not add up");
        std::uint64_t byReason = 0;
        for (const std::uint64_t count : now.byReason)
            byReason += count;
        if (byReason != ended || ended < mSettled)
            chaos::reportViolation("the reasons do not add up");
        if (now.alive > mPlan.options.workers || now.running > now.alive)
            chaos::reportViolation("there are more workers, or running jobs, than there may be");
    }

    common::SeededRandom mRandom;
    JobPlan mPlan;
    bool mUsesDescriptor;
    std::unique_ptr<nq::nqPool> mPool;
    std::vector<Entry> mEntries; // by id, from 1 on
    std::size_t mSettled = 0;
    std::size_t mThrown = 0;
    nqJobId mLastHeard = 0;
    nqJobId mLastTaken = 0;
    bool mIsStopped = false;
    bool mIsInCallback = false;
    bool mIsDestroyed = false;
};

} // namespace

void playPool(std::uint64_t seed)
{
    Round(seed).play();
}

} // namespace pool_chaos
