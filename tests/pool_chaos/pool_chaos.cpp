// Pools under random fire: plays rounds until the time is over, and ends with 1, the seed and the
// round as soon as something does not add up. It is its own worker.
//
// pool_chaos [--seconds N] [--seed S] [--first-round R] [--rounds N]

#include "nqPoolWorker.h"
#include "tests/chaos/violation.h"
#include "tests/common/descriptors.h"
#include "tests/pool_chaos/ledger.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <map>
#include <string>
#include <sys/wait.h>

namespace {

/// Since what is opened once for the life of the host is open after them.
constexpr std::uint64_t warmUpRounds = 2;

/// Enough for everything to happen at least once.
constexpr std::uint64_t leastRounds = 60;

void play(std::uint64_t seed, std::uint64_t round)
{
    // Neighbouring seeds have nothing in common.
    common::SeededRandom random(seed * 1'000'003 + round);
    const std::uint64_t own = random.below(~0ULL);
    if (round % 2 == 0)
        pool_chaos::playPool(own);
    else
        pool_chaos::playThread(own);
    ++pool_chaos::figures().rounds;
}

void requireNoChild()
{
    siginfo_t child{};
    if (::waitid(P_ALL, 0, &child, WEXITED | WNOHANG | WNOWAIT) == 0 || errno != ECHILD)
        chaos::reportViolation("a child of this host is left");
}

void requireSameDescriptors(const std::map<int, std::string>& before)
{
    for (const auto& [descriptor, what] : common::openDescriptors()) {
        if (before.count(descriptor) == 0)
            chaos::reportViolation(
                "descriptor " + std::to_string(descriptor) + " is left: " + what);
    }
}

std::string noState()
{
    return "";
}

void run(const std::map<std::string, std::uint64_t>& options)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(options.at("seconds"));
    const std::uint64_t first = options.at("first-round");
    const std::uint64_t rounds = options.at("rounds");
    std::map<int, std::string> before;
    for (std::uint64_t i = 0;
         i < rounds && (i < leastRounds || std::chrono::steady_clock::now() < end);
         ++i) {
        if (i == warmUpRounds)
            before = common::openDescriptors();
        chaos::setStory(
            "--seed " + std::to_string(options.at("seed")) + " --first-round " +
            std::to_string(first + i) + " --rounds 1");
        play(options.at("seed"), first + i);
        requireNoChild();
        if (i >= warmUpRounds)
            requireSameDescriptors(before);
    }
    if (rounds >= leastRounds)
        pool_chaos::requireVariety();
}

} // namespace

int main(int argc, char* argv[])
{
    nq::runAsWorker(argc, argv, [](std::string_view job) { return pool_chaos::perform(job); });
    std::map<std::string, std::uint64_t> options{
        {"seconds", 30},
        {"seed", 1},
        {"first-round", 0},
        {"rounds", std::numeric_limits<std::uint64_t>::max()}};
    for (int i = 1; i + 1 < argc; i += 2) {
        const auto option = options.find(std::string(argv[i]).substr(2));
        if (option == options.end()) {
            std::cerr << "options: --seconds N, --seed S, --first-round R, --rounds N\n";
            return 2;
        }
        option->second = std::stoull(argv[i + 1]);
    }
    std::cout << "pool_chaos --seed " << options["seed"] << std::endl;
    chaos::startWatchdog(noState);
    run(options);
    pool_chaos::print(std::cout);
    return 0;
}
