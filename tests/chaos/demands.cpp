#include "tests/chaos/demands.h"

#include "nqScheduler.h"

#include <algorithm>

namespace chaos {

namespace {

bool hasJobThatEndsItsWorker(const PoolPlan& pool)
{
    return std::any_of(pool.mix.begin(), pool.mix.end(), [](const MixEntry& entry) {
        return entry.behaviour == Behaviour::crash || entry.behaviour == Behaviour::answerAndDie;
    });
}

std::string tooRare(const std::string& what, std::uint64_t happened, std::uint64_t pools)
{
    if (happened >= pools / 2)
        return "";
    return what + ": " + std::to_string(happened) + ", planned for " + std::to_string(pools) +
           " pools\n";
}

} // namespace

void Demands::add(const RoundPlan& plan)
{
    for (const PoolPlan& pool : plan.pools) {
        const bool isDisturbed = pool.disturbance.intervalUs != 0;
        mKills += isDisturbed && pool.disturbance.kills != 0 ? 1 : 0;
        mCrashes += isDisturbed && pool.disturbance.crashes != 0 ? 1 : 0;
        mStops += isDisturbed && pool.disturbance.stops != 0 ? 1 : 0;
        mOwnDeaths += hasJobThatEndsItsWorker(pool) ? 1 : 0;
        mGrowth += pool.maxCapMemory != 0 ? 1 : 0;
        mTimeouts += pool.timeoutSeconds != 0 ? 1 : 0;
    }
}

std::string Demands::unmetBy(const Figures& figures) const
{
    using nq::nqScheduler;
    return tooRare("workers killed", figures.kills, mKills) +
           tooRare("workers crashed from outside", figures.crashes, mCrashes) +
           tooRare("workers stopped", figures.stops, mStops) +
           tooRare("workers that ended by a job's wish", figures.ownDeaths, mOwnDeaths) +
           tooRare("failures: TooMuchRam", figures.failures[nqScheduler::TooMuchRam], mGrowth) +
           tooRare("failures: Timeout", figures.failures[nqScheduler::Timeout], mTimeouts);
}

} // namespace chaos
