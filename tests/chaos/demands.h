#pragma once

#include "tests/chaos/figures.h"
#include "tests/chaos/plan.h"

#include <cstdint>
#include <string>

namespace chaos {

/// What the plans of a run promise. A run that kept none of it would prove nothing, however well
/// its accounts add up.
class Demands {
public:
    void add(const RoundPlan& plan);

    /// What has happened too rarely, one line each. Chance may take away half of what was planned.
    std::string unmetBy(const Figures& figures) const;

private:
    // How many pools are to suffer each.
    std::uint64_t mKills = 0;
    std::uint64_t mCrashes = 0;
    std::uint64_t mStops = 0;

    // How many jobs are to end in each way.
    std::uint64_t mOwnDeaths = 0;
    std::uint64_t mTooMuchRam = 0;
    std::uint64_t mTimeouts = 0;
};

} // namespace chaos
