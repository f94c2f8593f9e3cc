#include "tests/chaos/plan.h"
#include "tests/chaos/sanitizer.h"
#include "tests/common/random.h"

#include <iterator>
#include <sstream>

namespace chaos {

namespace {

using common::Random;

constexpr std::uint64_t mebibyte = std::uint64_t{1} << 20;

std::uint32_t between(Random& random, std::uint32_t least, std::uint32_t most)
{
    return least + static_cast<std::uint32_t>(random.below(most - least + 1));
}

const std::vector<MixEntry> goodJobs = {{Behaviour::answer, 6}, {Behaviour::answerSlowly, 4}};

const std::vector<MixEntry> everyDeath = {
    {Behaviour::answer, 20},
    {Behaviour::answerSlowly, 4},
    {Behaviour::answerAndDie, 3},
    {Behaviour::dribbleAndDie, 1},
    {Behaviour::answerHalfAndDie, 2},
    {Behaviour::crash, 2},
    {Behaviour::abort, 1},
    {Behaviour::exit, 2},
    {Behaviour::throwException, 1},
    {Behaviour::forkHelper, 2},
    {Behaviour::forkHelperAndDie, 2},
    {Behaviour::closePipeAndLinger, 1}};

/// Where every scenario starts from.
PoolPlan somePool(Random& random)
{
    PoolPlan pool;
    pool.seed = random.below(~std::uint64_t{0});
    pool.workers = between(random, 1, 4);
    pool.jobsPerCycle = between(random, 200, 400);
    pool.window = random.percent(50) ? 0 : between(random, 1, 40);
    pool.largestPayload = random.pick<std::uint64_t>({64, 4096, 100'000});
    pool.pumping =
        random.pick({Pumping::steadily, Pumping::steadily, Pumping::spinning, Pumping::onNews});
    pool.popsAtTheEnd = random.percent(15);
    pool.stopsWithPendingJobs = random.percent(25);
    pool.pipeNameFirst = random.percent(50);
    pool.mix = goodJobs;
    return pool;
}

Disturbance killing(Random& random)
{
    Disturbance disturbance;
    disturbance.intervalUs = between(random, 1'000, 10'000);
    disturbance.kills = 4;
    disturbance.crashes = 2;
    return disturbance;
}

RoundPlan single(PoolPlan pool)
{
    RoundPlan plan;
    plan.pools.push_back(std::move(pool));
    return plan;
}

RoundPlan undisturbed(Random& random)
{
    PoolPlan pool = somePool(random);
    pool.mix.push_back({Behaviour::readSlowly, 1});
    return single(pool);
}

RoundPlan killedWorkers(Random& random)
{
    PoolPlan pool = somePool(random);
    pool.jobsPerCycle = between(random, 400, 1'500);
    pool.disturbance = killing(random);
    return single(pool);
}

RoundPlan killedWhileLaunching(Random& random)
{
    PoolPlan pool = somePool(random);
    pool.jobsPerCycle = between(random, 100, 400);
    pool.disturbance = killing(random);
    pool.disturbance.intervalUs = between(random, 1'000, 3'000);
    pool.disturbance.alsoBeforeConnecting = true;
    return single(pool);
}

RoundPlan stoppedWorkers(Random& random)
{
    PoolPlan pool = somePool(random);
    pool.jobsPerCycle = between(random, 400, 1'500);
    pool.disturbance = killing(random);
    pool.disturbance.stops = 12;
    pool.disturbance.longestStopMs = between(random, 1, 200);
    return single(pool);
}

RoundPlan dyingWorkers(Random& random)
{
    PoolPlan pool = somePool(random);
    pool.mix = everyDeath;
    pool.longestPauseMs = between(random, 1, 20);
    if (random.percent(50))
        pool.disturbance = killing(random);
    return single(pool);
}

RoundPlan largeAndSlow(Random& random)
{
    PoolPlan pool = somePool(random);
    pool.jobsPerCycle = between(random, 20, 60);
    pool.largestPayload = 4 * mebibyte;
    pool.mix = {
        {Behaviour::answer, 4},
        {Behaviour::readSlowly, 2},
        {Behaviour::answerAndDie, 1},
        {Behaviour::dribbleAndDie, 1},
        {Behaviour::answerHalfAndDie, 1}};
    if (random.percent(50))
        pool.disturbance = killing(random);
    return single(pool);
}

RoundPlan growingWorkers(Random& random)
{
    PoolPlan pool = somePool(random);
    pool.largestPayload = 4096; // so that only what grows is large
    pool.jobsPerCycle = between(random, 100, 200);
    pool.growBytes = 96 * mebibyte;
    pool.mix = goodJobs;
    pool.mix.push_back({Behaviour::growAndAnswer, 1});
    if (random.percent(60)) {
        pool.maxCapMemory = 64 * mebibyte;
        pool.mix.push_back({Behaviour::growAndWait, 1});
    } else {
        pool.maxCapMemoryAfterJob = 64 * mebibyte;
    }
    if (random.percent(40))
        pool.disturbance = killing(random);
    return single(pool);
}

RoundPlan timeOuts(Random& random)
{
    PoolPlan pool = somePool(random);
    pool.workers = 4;
    pool.jobsPerCycle = between(random, 50, 100);
    pool.timeoutSeconds = 1;
    pool.mix = {{Behaviour::answer, 30}, {Behaviour::answerSlowly, 10}, {Behaviour::hang, 1}};
    if (random.percent(50)) {
        pool.disturbance.intervalUs = 100'000;
        pool.disturbance.stops = 1;
        pool.disturbance.longestStopMs = 3'000; // some are over before the time-out, some are not
    }
    return single(pool);
}

RoundPlan rarePumping(Random& random)
{
    PoolPlan pool = somePool(random);
    pool.jobsPerCycle = between(random, 60, 120);
    pool.pumping = random.pick({Pumping::rarely, Pumping::inBursts});
    pool.longestAbsenceMs = pool.pumping == Pumping::rarely ? 40 : 200;
    pool.mix = everyDeath;
    pool.disturbance = killing(random);
    return single(pool);
}

RoundPlan restarts(Random& random)
{
    PoolPlan pool = somePool(random);
    pool.cycles = between(random, 10, 40);
    pool.jobsPerCycle = between(random, 0, 12);
    pool.mix = random.percent(50) ? goodJobs : everyDeath;
    if (random.percent(50))
        pool.disturbance = killing(random);
    return single(pool);
}

RoundPlan manyDescriptors(Random& random)
{
    PoolPlan pool = somePool(random);
    pool.mix = everyDeath;
    pool.disturbance = killing(random);
    RoundPlan plan = single(pool);
    // From a few below the limit of select up to far beyond it.
    plan.surroundings.otherDescriptors = random.pick<std::uint32_t>({1000, 1012, 1100, 6000});
    return plan;
}

RoundPlan ignoredChildSignal(Random& random)
{
    RoundPlan plan = random.percent(50) ? killedWorkers(random) : dyingWorkers(random);
    plan.surroundings.ignoresChildSignal = true;
    return plan;
}

RoundPlan signalEveryMillisecond(Random& random)
{
    RoundPlan plan = random.percent(50) ? dyingWorkers(random) : largeAndSlow(random);
    plan.surroundings.hasSignalEveryMillisecond = true;
    return plan;
}

RoundPlan severalSchedulers(Random& random)
{
    RoundPlan plan;
    const std::uint32_t pools = between(random, 2, 4);
    for (std::uint32_t i = 0; i < pools; ++i) {
        PoolPlan pool = somePool(random);
        pool.workers = between(random, 1, 2);
        pool.jobsPerCycle = between(random, 50, 100);
        pool.cycles = between(random, 1, 3);
        pool.mix = random.percent(50) ? goodJobs : everyDeath;
        pool.disturbance = killing(random);
        plan.pools.push_back(pool);
    }
    return plan;
}

RoundPlan severalThreads(Random& random)
{
    RoundPlan plan = severalSchedulers(random);
    plan.eachOnItsThread = true;
    plan.surroundings.hasSignalEveryMillisecond = random.percent(25);
    plan.surroundings.ignoresChildSignal = random.percent(25);
    return plan;
}

struct Scenario {
    const char* name;
    RoundPlan (*make)(Random& random);
};

constexpr Scenario scenarios[] = {
    {"undisturbed", undisturbed},
    {"killed workers", killedWorkers},
    {"killed while launching", killedWhileLaunching},
    {"stopped workers", stoppedWorkers},
    {"dying workers", dyingWorkers},
    {"large and slow", largeAndSlow},
    {"growing workers", growingWorkers},
    {"time-outs", timeOuts},
    {"rare pumping", rarePumping},
    {"restarts", restarts},
    {"many descriptors", manyDescriptors},
    {"ignored child signal", ignoredChildSignal},
    {"signal every millisecond", signalEveryMillisecond},
    {"several schedulers", severalSchedulers},
    {"several threads", severalThreads}};

/// A row of jobs that is not empty stays so.
void slowDown(PoolPlan& pool)
{
    pool.jobsPerCycle = (pool.jobsPerCycle + slowness - 1) / slowness;
    pool.disturbance.intervalUs *= slowness;
}

const char* nameOf(Pumping pumping)
{
    static constexpr const char* names[] = {
        "steadily", "spinning", "rarely", "in bursts", "on news"};
    return names[static_cast<int>(pumping)];
}

} // namespace

/// Every scenario has its turn before one comes again; only what is random in it differs.
RoundPlan makeRound(std::uint64_t seed, std::uint64_t round)
{
    common::SeededRandom random(seed * 1'000'003 + round);
    const Scenario& scenario = scenarios[(seed + round) % std::size(scenarios)];
    RoundPlan plan = scenario.make(random);
    plan.scenario = scenario.name;
    for (PoolPlan& pool : plan.pools)
        slowDown(pool);
    return plan;
}

std::string describe(const RoundPlan& plan)
{
    std::ostringstream text;
    text << plan.scenario << (plan.eachOnItsThread ? ", each on its thread" : "")
         << (plan.surroundings.ignoresChildSignal ? ", SIGCHLD ignored" : "")
         << (plan.surroundings.hasSignalEveryMillisecond ? ", a signal every ms" : "");
    if (plan.surroundings.otherDescriptors != 0)
        text << ", " << plan.surroundings.otherDescriptors << " other descriptors";
    for (const PoolPlan& pool : plan.pools) {
        const Disturbance& disturbance = pool.disturbance;
        text << "\n  " << pool.workers << " workers, " << pool.cycles << " x " << pool.jobsPerCycle
             << " jobs up to " << pool.largestPayload << " bytes, window " << pool.window
             << ", pumps " << nameOf(pool.pumping) << ", time-out " << pool.timeoutSeconds
             << " s, caps " << pool.maxCapMemory / mebibyte << " and "
             << pool.maxCapMemoryAfterJob / mebibyte << " MiB"
             << (pool.popsAtTheEnd ? ", pops at the end" : "")
             << (pool.stopsWithPendingJobs ? ", stops with pending jobs" : "");
        if (disturbance.intervalUs != 0)
            text << ", every " << disturbance.intervalUs << " us a kill/crash/stop "
                 << disturbance.kills << ":" << disturbance.crashes << ":" << disturbance.stops
                 << (disturbance.alsoBeforeConnecting ? ", from the first moment on" : "");
    }
    return text.str();
}

} // namespace chaos
