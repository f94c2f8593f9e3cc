#pragma once

#include <cstdint>
#include <optional>

namespace model {

/// What the command line asks for besides the test framework's own options.
struct Options {
    std::optional<std::uint64_t> seed; ///< --seed=N: this one round instead of all
    std::uint64_t rounds = 0;          ///< --rounds=N: so many rounds instead of the usual number
    std::uint64_t firstSeed = 1;       ///< --first-seed=N: where the rounds' seeds start
    bool isVerbose = false;            ///< --verbose: every step on standard output
};

/// The options of this run.
Options& options();

} // namespace model
