#include "tests/chaos/demands.h"

#include "nqScheduler.h"

namespace chaos {

namespace {

// A pool with fewer is often done before the first of its workers is stopped.
constexpr std::uint32_t jobsUntilAStop = 200;

/// How many jobs of that behaviour are to be expected; none of one that is rarer than one.
std::uint64_t jobsThat(Behaviour behaviour, const PoolPlan& pool)
{
    std::uint64_t wanted = 0;
    std::uint64_t all = 0;
    for (const MixEntry& entry : pool.mix) {
        all += entry.frequency;
        wanted += entry.behaviour == behaviour ? entry.frequency : 0;
    }
    return all == 0 ? 0 : std::uint64_t{pool.cycles} * pool.jobsPerCycle * wanted / all;
}

std::string tooRare(const std::string& what, std::uint64_t happened, std::uint64_t planned)
{
    const std::uint64_t least = planned / 2;
    if (happened >= least)
        return "";
    return what + ": " + std::to_string(happened) + ", at least " + std::to_string(least) +
           " are wanted\n";
}

} // namespace

void Demands::add(const RoundPlan& plan)
{
    for (const PoolPlan& pool : plan.pools) {
        mOwnDeaths += jobsThat(Behaviour::crash, pool);
        mTimeouts += jobsThat(Behaviour::hang, pool);
        if (pool.disturbance.intervalUs == 0) {
            mTooMuchRam += jobsThat(Behaviour::growAndWait, pool);
            continue;
        }
        mKills += pool.disturbance.kills != 0 ? 1 : 0;
        mCrashes += pool.disturbance.crashes != 0 ? 1 : 0;
        const bool lastsUntilAStop = pool.jobsPerCycle >= jobsUntilAStop;
        mStops += pool.disturbance.stops != 0 && lastsUntilAStop ? 1 : 0;
    }
}

std::string Demands::unmetBy(const Figures& figures) const
{
    using nq::nqScheduler;
    return tooRare("workers killed", figures.kills, mKills) +
           tooRare("workers crashed from outside", figures.crashes, mCrashes) +
           tooRare("workers stopped", figures.stops, mStops) +
           tooRare("workers that ended by a job's wish", figures.ownDeaths, mOwnDeaths) +
           tooRare("failures: TooMuchRam", figures.failures[nqScheduler::TooMuchRam], mTooMuchRam) +
           tooRare("failures: Timeout", figures.failures[nqScheduler::Timeout], mTimeouts);
}

} // namespace chaos
