#include "tests/model/options.h"

#include <gtest/gtest.h>

#include <charconv>
#include <iostream>
#include <optional>
#include <string>
#include <system_error>

namespace model {

Options& options()
{
    static Options all;
    return all;
}

} // namespace model

namespace {

/// The number behind `name` in `argument`, if it is that option and a number.
std::optional<std::uint64_t> numberOf(const std::string& argument, const std::string& name)
{
    if (argument.rfind(name, 0) != 0)
        return std::nullopt;
    std::uint64_t number = 0;
    const char* const end = argument.data() + argument.size();
    const auto parsed = std::from_chars(argument.data() + name.size(), end, number);
    if (parsed.ec != std::errc{} || parsed.ptr != end)
        return std::nullopt;
    return number;
}

bool understand(const std::string& argument)
{
    model::Options& options = model::options();
    if (const auto seed = numberOf(argument, "--seed="))
        options.seed = seed;
    else if (const auto rounds = numberOf(argument, "--rounds="))
        options.rounds = *rounds;
    else if (const auto firstSeed = numberOf(argument, "--first-seed="))
        options.firstSeed = *firstSeed;
    else if (argument == "--verbose")
        options.isVerbose = true;
    else
        return false;
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    for (int i = 1; i < argc; ++i) {
        if (understand(argv[i]))
            continue;
        std::cerr << "unknown option " << argv[i]
                  << "; known are --seed=N, --first-seed=N, --rounds=N and --verbose" << std::endl;
        return 2;
    }
    return RUN_ALL_TESTS();
}
