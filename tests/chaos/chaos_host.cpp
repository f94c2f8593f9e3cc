// A host under fire: plays rounds of chaos until the time is over, accounts for everything, and
// prints the figures. Ends with 1, the seed and the story as soon as something does not add up.
//
// chaos_host [--seconds N] [--seed S] [--first-round R] [--rounds N] [--verbose] [--disarmed]
//
// Disarmed, nobody disturbs the workers, and the run has to fail: its plans want them to suffer.

#include "nqScheduler.h"
#include "system/nqLog.h"
#include "tests/chaos/demands.h"
#include "tests/chaos/figures.h"
#include "tests/chaos/plan.h"
#include "tests/chaos/pool_round.h"
#include "tests/chaos/processes.h"
#include "tests/chaos/sanitizer.h"
#include "tests/chaos/surroundings.h"
#include "tests/chaos/violation.h"
#include "tests/common/descriptors.h"
#include "tests/common/signalStorm.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <limits>
#include <malloc.h>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using chaos::Figures;
using chaos::PoolRound;
using chaos::RoundPlan;

constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;
constexpr std::uint64_t warmUpRounds = 15; // one of every kind: what is allocated once, is by then
constexpr std::uint64_t leastRounds = 2 * warmUpRounds; // growth is measured over the rest
constexpr std::chrono::seconds helperEnd{
    1}; // a killed group is gone within that time on a loaded machine
constexpr int roundBits = 40;
constexpr int poolBits = 32;

// In use beyond what was in use after the warm-up. Threads of the rounds leave their caches in the
// allocator's arenas; a block lost with each of the thousands of replacements goes far beyond this.
constexpr std::size_t mostHeapGrowth = std::size_t{256} << 10;

// Resident, with what the allocator cannot give back between blocks that are in use.
constexpr std::size_t mostResidentGrowth = std::size_t{16} << 20;

struct Options {
    std::uint64_t seconds = 60;
    std::uint64_t seed = 1;
    std::uint64_t firstRound = 0;
    std::uint64_t rounds = std::numeric_limits<std::uint64_t>::max();
    bool isVerbose = false;
    bool isDisarmed = false;
};

/// Beside what is counted: workers that are restarted, and those that were killed, or ended by a
/// crash, before they connected.
bool isUnexpected(const std::string& message)
{
    return message.rfind("restarting scheduler worker : ", 0) != 0 &&
           message.find(" before it connected") == std::string::npos;
}

/// Counts instead of writing: thousands of failed jobs are expected here.
class CountingLog : public nq::nqLog {
public:
    void Write(LogEntry& entry, bool /*flush*/) override
    {
        if (entry.mMessage.rfind("Job failed error (", 0) == 0) {
            ++failedJobs;
        } else if (entry.mMessage.rfind("Fail to startWorker, ", 0) == 0) {
            ++failedLaunches;
            noteLaunchFailure(entry);
        } else if (isUnexpected(entry.mMessage)) {
            chaos::reportViolation("the library logs: " + entry.mMessage);
        } else {
            noteLaunchFailure(entry);
        }
    }

    /// What the library has said last about launches that failed.
    std::string launchFailures() const
    {
        const std::lock_guard guard(mMutex);
        return mLaunchFailures;
    }

    std::atomic<std::uint64_t> failedJobs{0};
    std::atomic<std::uint64_t> failedLaunches{0};

private:
    void noteLaunchFailure(const LogEntry& entry)
    {
        constexpr std::size_t longest = 2048;
        const std::lock_guard guard(mMutex);
        mLaunchFailures += "\n" + entry.mPrefix + entry.mMessage;
        if (mLaunchFailures.size() > longest)
            mLaunchFailures.erase(0, mLaunchFailures.size() - longest);
    }

    mutable std::mutex mMutex;
    std::string mLaunchFailures;
};

std::vector<std::unique_ptr<PoolRound>>& pools()
{
    static auto* const all = new std::vector<std::unique_ptr<PoolRound>>;
    return *all;
}

/// Read while the host hangs, so nobody is changing it.
std::string stateOfPools()
{
    std::string text;
    for (const auto& pool : pools())
        text += "  " + pool->stateText() + "\n";
    return text;
}

void playTogether()
{
    for (bool goesOn = true; goesOn;) {
        goesOn = false;
        for (const auto& pool : pools())
            goesOn = pool->advance() || goesOn;
    }
}

void playOnThreads()
{
    std::vector<std::thread> threads;
    threads.reserve(pools().size());
    for (const auto& pool : pools())
        threads.emplace_back([&pool] {
            while (pool->advance()) {
            }
        });
    for (std::thread& thread : threads)
        thread.join();
}

void checkNobodyIsLeft(const std::string& tag)
{
    siginfo_t child{};
    if (waitid(P_ALL, 0, &child, WEXITED | WNOHANG | WNOWAIT) == 0 || errno != ECHILD)
        chaos::reportViolation(
            child.si_pid != 0 ? "a zombie is left" : "a child of this host is left");
    // A helper is nobody's child any more, and killed together with its worker.
    for (const pid_t survivor : chaos::processesWith(tag)) {
        const chaos::ProcessWatch watch(survivor);
        if (!watch.endsWithin(helperEnd))
            chaos::reportViolation("an orphan is left: " + chaos::commandLine(survivor));
    }
}

std::uint64_t failureCount(const Figures& figures)
{
    std::uint64_t all = 0;
    for (const std::uint64_t failures : figures.failures)
        all += failures;
    return all;
}

bool isDisturbed(const RoundPlan& plan)
{
    return std::any_of(plan.pools.begin(), plan.pools.end(), [](const chaos::PoolPlan& pool) {
        return pool.disturbance.intervalUs != 0;
    });
}

RoundPlan disarmed(RoundPlan plan)
{
    for (chaos::PoolPlan& pool : plan.pools)
        pool.disturbance = {};
    return plan;
}

Figures play(const RoundPlan& plan, std::uint64_t round, CountingLog& log)
{
    const std::size_t descriptorsBefore = common::openDescriptorNumbers().size();
    const std::string tag = "chaos-" + std::to_string(getpid()) + "-" + std::to_string(round) + "-";
    Figures figures;
    log.failedJobs = 0;
    log.failedLaunches = 0;
    {
        const chaos::UnusualSurroundings surroundings(plan.surroundings);
        for (std::size_t i = 0; i < plan.pools.size(); ++i)
            pools().push_back(std::make_unique<PoolRound>(
                plan.pools[i],
                tag + std::to_string(i) + "-",
                (round + 1) << roundBits | static_cast<std::uint64_t>(i) << poolBits));
        plan.eachOnItsThread ? playOnThreads() : playTogether();
        for (const auto& pool : pools())
            figures.add(pool->figures());
        pools().clear();
        checkNobodyIsLeft(tag);
    }
    if (figures.results + failureCount(figures) != figures.jobs)
        chaos::reportViolation("results and failures do not add up to the jobs");
    if (log.failedJobs != failureCount(figures))
        chaos::reportViolation("the log does not name every failure once");
    figures.failedLaunches = log.failedLaunches;
    if (figures.failedLaunches != 0 && !isDisturbed(plan))
        chaos::reportViolation(
            "a launch fails although nobody disturbs it:" + log.launchFailures());
    if (const std::size_t after = common::openDescriptorNumbers().size();
        after != descriptorsBefore)
        chaos::reportViolation(
            std::to_string(descriptorsBefore) + " descriptors were open before the round, " +
            std::to_string(after) + " after it");
    figures.rounds = 1;
    return figures;
}

/// What the process holds between two rounds.
struct Footprint {
    std::size_t heap = 0;
    std::size_t resident = 0;

    static Footprint now()
    {
        malloc_trim(0); // what threads and large jobs have given back is no growth
        return {mallinfo2().uordblks, common::residentBytes()};
    }
};

void checkGrowth(const Footprint& before, const Footprint& after)
{
    // Its allocator counts in another way and keeps freed memory for a while. It reports what is
    // lost by itself when the process ends.
    if (chaos::isUnderAddressSanitizer)
        return;
    if (after.heap > before.heap + mostHeapGrowth)
        chaos::reportViolation(
            "the heap has grown from " + std::to_string(before.heap) + " to " +
            std::to_string(after.heap) + " bytes");
    if (after.resident > before.resident + mostResidentGrowth)
        chaos::reportViolation(
            "resident memory has grown from " + std::to_string(before.resident) + " to " +
            std::to_string(after.resident) + " bytes");
}

void run(const Options& options)
{
    CountingLog log;
    nq::nqLog::msInstance = &log;
    const std::int64_t end =
        chaos::now() + static_cast<std::int64_t>(options.seconds) * nanosecondsPerSecond;
    Figures all;
    chaos::Demands demands;
    const Footprint atStart = Footprint::now();
    std::optional<Footprint> warm;
    for (std::uint64_t i = 0; i < options.rounds && (i < leastRounds || chaos::now() < end); ++i) {
        if (i == warmUpRounds)
            warm = Footprint::now();
        const std::uint64_t round = options.firstRound + i;
        const RoundPlan plan = chaos::makeRound(options.seed, round);
        const std::string story = "seed " + std::to_string(options.seed) + ", round " +
                                  std::to_string(round) + ": " + describe(plan);
        chaos::setStory(story);
        const std::int64_t before = chaos::now();
        demands.add(plan);
        all.add(play(options.isDisarmed ? disarmed(plan) : plan, round, log));
        if (options.isVerbose)
            std::cout << story << "\n  took " << (chaos::now() - before) / 1'000'000 << " ms"
                      << std::endl;
    }
    const Footprint atEnd = Footprint::now();
    std::cout << "chaos_host --seconds " << options.seconds << " --seed " << options.seed << '\n';
    print(all, std::cout);
    std::cout << "  timer signals handled by the host: " << common::SignalStorm::handled() << '\n'
              << "  resident KiB at start, warm, end: " << atStart.resident / 1024 << ", "
              << (warm ? warm->resident / 1024 : 0) << ", " << atEnd.resident / 1024 << '\n'
              << "  heap bytes in use at start, warm, end: " << atStart.heap << ", "
              << (warm ? warm->heap : 0) << ", " << atEnd.heap << std::endl;
    if (warm)
        checkGrowth(*warm, atEnd);
    if (const std::string unmet = demands.unmetBy(all); !unmet.empty())
        chaos::reportViolation("too little has happened\n" + unmet);
    nq::nqLog::msInstance = nullptr;
}

std::optional<std::uint64_t> numberOf(const char* text)
{
    std::uint64_t number = 0;
    const char* const end = text + std::strlen(text);
    const auto parsed = std::from_chars(text, end, number);
    if (parsed.ec != std::errc{} || parsed.ptr != end)
        return std::nullopt;
    return number;
}

std::optional<Options> understand(const std::vector<std::string>& arguments)
{
    Options options;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        if (arguments[i] == "--verbose") {
            options.isVerbose = true;
            continue;
        }
        if (arguments[i] == "--disarmed") {
            options.isDisarmed = true;
            continue;
        }
        if (i + 1 == arguments.size())
            return std::nullopt;
        const std::string& name = arguments[i];
        const auto number = numberOf(arguments[++i].c_str());
        if (!number)
            return std::nullopt;
        if (name == "--seconds")
            options.seconds = *number;
        else if (name == "--seed")
            options.seed = *number;
        else if (name == "--first-round")
            options.firstRound = *number;
        else if (name == "--rounds")
            options.rounds = *number;
        else
            return std::nullopt;
    }
    return options;
}

} // namespace

int main(int argc, char** argv)
{
    mallopt(M_ARENA_MAX, 1); // trimming would not reach the free tops of further arenas
    const auto options = understand({argv + 1, argv + argc});
    if (!options) {
        std::cerr << "options: --seconds N, --seed S, --first-round R, --rounds N, --verbose, "
                     "--disarmed\n";
        return 2;
    }
    chaos::raiseDescriptorLimit();
    chaos::startWatchdog(stateOfPools);
    run(*options);
    return 0;
}
