#pragma once

#include "tests/chaos/job.h"

#include <cstdint>
#include <string>
#include <vector>

namespace chaos {

/// How a host pumps.
enum class Pumping {
    steadily, // waits in the pump
    spinning, // never waits
    rarely,   // is away for a while between two calls
    inBursts, // many calls at once, then away
    onNews    // waits in a loop of its own, for the scheduler's descriptor
};

/// What is done to the workers from outside, as relative frequencies.
struct Disturbance {
    std::uint32_t intervalUs = 0; // on average; 0: nothing is done
    std::uint32_t kills = 0;
    std::uint32_t crashes = 0; // SIGSEGV from outside
    std::uint32_t stops = 0;   // SIGSTOP, and SIGCONT after at most longestStopMs
    std::uint32_t longestStopMs = 0;
    bool alsoBeforeConnecting = false; // workers are in danger from their first moment on
};

/// Which jobs there are, as relative frequencies.
struct MixEntry {
    Behaviour behaviour;
    std::uint32_t frequency;
};

/// What is unusual about the host's process.
struct Surroundings {
    bool ignoresChildSignal = false;
    bool hasSignalEveryMillisecond = false;
    std::uint32_t otherDescriptors = 0; // open before the first worker
};

/// One scheduler of a round: its pool, its jobs and what happens to it.
struct PoolPlan {
    std::uint64_t seed = 0; // of everything below that is random
    std::uint32_t workers = 2;
    std::uint32_t cycles = 1; // starts and stops of the same scheduler
    std::uint32_t jobsPerCycle = 100;
    std::uint32_t window = 0; // unresolved jobs at a time; 0: all are pushed at once
    std::uint64_t largestPayload = 4096;
    std::uint32_t longestPauseMs = 5; // of jobs that do something slowly
    std::uint64_t timeoutSeconds = 0;
    std::uint64_t maxCapMemory = 0;
    std::uint64_t maxCapMemoryAfterJob = 0;
    std::uint64_t growBytes = 0;
    Pumping pumping = Pumping::steadily;
    std::uint32_t longestAbsenceMs = 0;
    bool popsAtTheEnd = false;         // results and failures wait until the cycle's jobs are done
    bool stopsWithPendingJobs = false; // stopping has to finish them
    bool pipeNameFirst = true;
    Disturbance disturbance;
    std::vector<MixEntry> mix;
};

/// A second or two of chaos.
struct RoundPlan {
    std::string scenario;
    std::vector<PoolPlan> pools; // beside each other
    bool eachOnItsThread = false;
    Surroundings surroundings;
};

/// One line for people.
std::string describe(const RoundPlan& plan);

/// Everything about a round follows from the run's seed and the round's number.
RoundPlan makeRound(std::uint64_t seed, std::uint64_t round);

} // namespace chaos
