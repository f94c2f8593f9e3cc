#pragma once

#include "tests/chaos/plan.h"
#include "tests/common/signalStorm.h"

#include <optional>
#include <vector>

namespace chaos {

/// Makes the host's process unusual for as long as it lives.
class UnusualSurroundings {
public:
    explicit UnusualSurroundings(const Surroundings& wanted);
    ~UnusualSurroundings();
    UnusualSurroundings(const UnusualSurroundings&) = delete;
    UnusualSurroundings& operator=(const UnusualSurroundings&) = delete;

private:
    void openMany(std::uint32_t count);

    Surroundings mWanted;
    std::vector<int> mOthers;
    std::optional<common::SignalStorm> mStorm;
};

/// For a host with thousands of descriptors.
void raiseDescriptorLimit();

} // namespace chaos
