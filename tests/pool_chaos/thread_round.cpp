#include "nqPoolThread.h"
#include "tests/chaos/sanitizer.h"
#include "tests/chaos/violation.h"
#include "tests/pool_chaos/ledger.h"

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <vector>

namespace pool_chaos {

namespace {

using nq::nqJobId;
using nq::nqOutcome;

constexpr std::size_t mostJobs = 1000; // of one round
constexpr std::chrono::seconds longestWait{60};

struct Entry {
    Job job;
    nqJobId id = 0;
    std::future<nqOutcome> future;
};

/// One pool and several threads that submit, cancel, drain and stop.
class Round {
public:
    explicit Round(std::uint64_t seed)
        : mRandom(seed),
          mPlan(makePlan(mRandom)),
          mPool(std::make_unique<nq::nqPoolThread>(mPlan.options))
    {
    }

    void play()
    {
        const std::size_t count = 1 + mRandom.index(4);
        std::vector<std::vector<Entry>> entries(count);
        std::vector<std::thread> threads;
        for (std::vector<Entry>& own : entries) {
            const std::uint64_t seed = mRandom.below(~0ULL);
            threads.emplace_back([this, seed, &own] { host(seed, own); });
        }
        for (std::thread& thread : threads)
            thread.join();
        end();
        for (std::vector<Entry>& own : entries) {
            for (Entry& entry : own)
                check(entry);
        }
    }

private:
    void host(std::uint64_t seed, std::vector<Entry>& entries)
    {
        common::SeededRandom random(seed);
        const std::size_t wanted = (20 + random.below(100)) / chaos::slowness;
        try {
            while (entries.size() < wanted)
                act(random, entries);
        } catch (const nq::nqPoolError&) {
            if (!mIsStopAsked)
                chaos::reportViolation("a pool refuses jobs for good that nobody has stopped");
        }
    }

    void act(common::SeededRandom& random, std::vector<Entry>& entries)
    {
        const std::uint64_t choice = random.below(1000);
        if (choice < 700)
            submit(random, entries);
        else if (choice < 900)
            cancelSome(random);
        else if (choice < 970)
            await(random, entries);
        else if (choice < 990)
            drain(entries);
        else if (choice < 998)
            mPool->statistics();
        else
            stop();
    }

    void submit(common::SeededRandom& random, std::vector<Entry>& entries)
    {
        Entry entry;
        entry.job = makeJob(random, mPlan);
        std::vector<char> bytes = entry.job.bytes;
        entry.future = mPool->submit(std::move(bytes), entry.job.options, &entry.id);
        if (!entry.future.valid()) {
            ++figures().refused;
            const bool mayRefuse = mPlan.options.whenFull == nq::nqPoolOptions::WhenFull::Refuse;
            const bool isTaken = bytes != entry.job.bytes; // NOLINT(bugprone-use-after-move)
            if (mPlan.options.maxPendingJobs == 0 || !mayRefuse || isTaken)
                chaos::reportViolation("a job is refused that may not be, or is taken");
            await(random, entries);
            return;
        }
        if (entry.id == 0 || entry.id >= mostJobs)
            chaos::reportViolation("an id is out of its range");
        ++figures().jobs;
        entries.push_back(std::move(entry));
    }

    void cancelSome(common::SeededRandom& random)
    {
        for (std::uint64_t left = 1 + random.below(10); left != 0; --left)
            cancel(random);
    }

    /// Anybody's job, or one that does not exist yet; of those, nobody knows whether it is too
    /// early.
    void cancel(common::SeededRandom& random)
    {
        const nqJobId id = random.below(400);
        mIsCancelAsked[id] = true;
        ++figures().cancels;
        mPool->cancel(id);
    }

    static void await(common::SeededRandom& random, const std::vector<Entry>& entries)
    {
        if (!entries.empty())
            requireReady(entries[random.index(entries.size())]);
    }

    static void requireReady(const Entry& entry)
    {
        if (entry.future.wait_for(longestWait) != std::future_status::ready)
            chaos::reportViolation("a future does not become ready");
        chaos::tellProgress();
    }

    void drain(const std::vector<Entry>& entries)
    {
        mPool->drain();
        for (const Entry& entry : entries) {
            if (!isReady(entry))
                chaos::reportViolation("a drained pool has a job without an outcome");
        }
    }

    static bool isReady(const Entry& entry)
    {
        return entry.future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    }

    void stop()
    {
        mIsStopAsked = true;
        ++figures().stops;
        mPool->stop();
    }

    void end()
    {
        if (mRandom.percent(60))
            mPool->drain(); // nothing is left for the destructor to stop
        else if (mRandom.percent(50))
            stop();
        else
            mIsStopAsked = true;
        mPool.reset();
    }

    void check(Entry& entry) const
    {
        if (!isReady(entry))
            chaos::reportViolation("a future has no outcome though its pool is gone");
        const nqOutcome outcome = entry.future.get();
        if (outcome.id != entry.id)
            chaos::reportViolation("an outcome has the id of another job");
        settle(entry.job, outcome, mPlan, mIsCancelAsked[entry.id], mIsStopAsked);
    }

    common::SeededRandom mRandom;
    JobPlan mPlan;
    std::vector<std::atomic<bool>> mIsCancelAsked = std::vector<std::atomic<bool>>(mostJobs);
    std::atomic<bool> mIsStopAsked{false};
    std::unique_ptr<nq::nqPoolThread> mPool;
};

} // namespace

void playThread(std::uint64_t seed)
{
    Round(seed).play();
}

} // namespace pool_chaos
