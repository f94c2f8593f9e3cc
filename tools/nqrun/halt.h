#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace nqrun {

/// When to stop before all items are done.
struct Halt {
    enum class When {
        Never,
        Soon, ///< start nothing more, and wait for what runs
        Now   ///< end what runs as well
    };
    enum class Why { Fail, Success, Done };

    When when = When::Never;
    Why why = Why::Fail;
    std::uint64_t count = 0;

    bool isReached(std::uint64_t failed, std::uint64_t succeeded) const;
};

/// Reads "never", "soon,fail=1", "now,success=3", "now,done=100". Nothing for anything else.
std::optional<Halt> parseHalt(const std::string& text);

} // namespace nqrun
