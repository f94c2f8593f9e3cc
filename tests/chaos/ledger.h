#pragma once

#include "nqScheduler.h"
#include "tests/chaos/board.h"
#include "tests/chaos/disturber.h"
#include "tests/chaos/figures.h"
#include "tests/chaos/job.h"
#include "tests/chaos/plan.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace chaos {

/// The account of one pool's jobs: every one ends exactly once, with its bytes, and a failure has a
/// cause. What does not hold is a violation and ends the program.
class Ledger {
public:
    Ledger(
        const PoolPlan& plan,
        std::uint64_t firstId,
        const BoardMapping& board,
        Disturber& disturber);

    /// Enters a job and gives it its number.
    void enter(Job& job);

    void enterResult(const std::vector<char>& bytes, Figures& figures);
    void enterFailure(
        const std::vector<char>& bytes,
        nq::nqScheduler::FailReason reason,
        const std::string& message,
        Figures& figures);

    std::size_t unresolved() const
    {
        return mEntries.size() - mResolved;
    }

    std::vector<Job> unresolvedJobs() const;

    /// How long the host has been away from the scheduler, or inside one call of it.
    void noteAbsence(std::int64_t nanoseconds);

    /// When everything is over: no more jobs were lost than workers.
    void check() const;

private:
    struct Entry {
        Job job;
        bool isResolved = false;
    };

    Entry& resolve(std::uint64_t id, const char* how);
    void explainCrash(const Job& job, Figures& figures);
    void explainMemory(const Job& job) const;
    void explainTimeout(const Job& job);
    void noteDeathToReport(std::int64_t death, Figures& figures) const;
    pid_t takerOf(const Job& job) const;
    std::size_t ownDeaths() const;
    [[noreturn]] void reject(const Job& job, const std::string& what) const;

    const PoolPlan& mPlan;
    const std::uint64_t mFirstId;
    const BoardMapping& mBoard;
    Disturber& mDisturber;
    std::vector<Entry> mEntries; // by number, from mFirstId on
    std::size_t mResolved = 0;
    std::size_t mCrashes = 0;
    std::int64_t mLongestAbsence = 0;
};

} // namespace chaos
