#pragma once

#include <cstddef>
#include <string>

namespace nq {

/// What happens in one step or not at all, whoever dies: scripts that Redis runs. Their keys and
/// arguments are listed in their texts.
enum class nqScript : std::size_t {
    // of submitters
    Open,
    Accept,
    Watch,
    Withdraw,
    Taken,
    // of agents
    Join,
    Beat,
    Finish,
    HandBack,
    Leave,
    Restore,
    // of both
    Lose,
    Sweep,
};

constexpr std::size_t nqScriptCount = 13;

/// For SCRIPT LOAD.
std::string textOf(nqScript script);

} // namespace nq
