#pragma once

#include "tests/common/random.h"
#include "tests/model/options.h"
#include "tests/model/world.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <iostream>
#include <string>
#include <vector>

namespace model {

constexpr std::uint64_t roundsPerReport = 100;

/// Plays one round to its end or to its first difference, which it reports with the round's seed.
template <typename Round>
void playRound(std::uint64_t seed, int steps, Seen& seen)
{
    common::SeededRandom random(seed);
    Round round(random, seen);
    std::string difference;
    for (int step = 1; step <= steps; ++step) {
        difference = round.step();
        if (options().isVerbose)
            std::cout << "seed " << seed << ", step " << step << ": " << round.whatItDid() << "\n";
        ASSERT_TRUE(difference.empty())
            << "seed " << seed << ", step " << step << ": " << round.whatItDid() << difference
            << "\nReplay with --seed=" << seed << " --verbose";
    }
    difference = round.end();
    ASSERT_TRUE(difference.empty())
        << "seed " << seed << ", at the end: " << round.whatItDid() << difference
        << "\nReplay with --seed=" << seed << " --verbose";
}

/// Plays so many rounds, or the one that the command line asks for. When all were played, each of
/// `wanted` must have been seen: a model whose rows are never used agrees with everything.
template <typename Round>
void playRounds(std::uint64_t usualRounds, int steps, const std::vector<std::string>& wanted)
{
    Seen seen;
    if (options().seed) {
        playRound<Round>(*options().seed, steps, seen);
        return;
    }
    const std::uint64_t rounds = options().rounds != 0 ? options().rounds : usualRounds;
    for (std::uint64_t i = 0; i < rounds && !testing::Test::HasFatalFailure(); ++i) {
        // Flushed, since a round that crashes or hangs cannot tell its seed any more.
        if (i % roundsPerReport == 0)
            std::cout << "rounds from seed " << options().firstSeed + i << std::endl;
        playRound<Round>(options().firstSeed + i, steps, seen);
    }
    if (testing::Test::HasFatalFailure())
        return;
    std::cout << rounds << " rounds of " << steps << " steps, seeds from " << options().firstSeed
              << "\n";
    for (const auto& [row, count] : seen)
        std::cout << "    " << row << ": " << count << "\n";
    if (rounds < usualRounds)
        return;
    for (const std::string& row : wanted)
        EXPECT_GT(seen[row], 0) << row;
}

} // namespace model
