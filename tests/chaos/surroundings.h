#pragma once

#include "tests/chaos/plan.h"

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
    static void setTimer(long intervalUs);

    Surroundings mWanted;
    std::vector<int> mOthers;
};

/// How many signals of the timer have been handled in the whole run.
std::uint64_t handledTimerSignals();

/// For a host with thousands of descriptors.
void raiseDescriptorLimit();

} // namespace chaos
