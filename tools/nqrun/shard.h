#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace nqrun {

/// Which items are this process's: every `count`th, from the `number`th on.
struct Shard {
    std::uint64_t number = 1; ///< from 1
    std::uint64_t count = 1;

    bool holds(std::uint64_t index) const
    {
        return (index - 1) % count == number - 1;
    }
};

/// Looks up an environment variable.
using Environment = std::function<std::optional<std::string>(const std::string& name)>;

/// Reads "2/8", "auto" (a task of a Slurm array, or one that srun or an MPI launcher has started)
/// or "auto/8" (an indexed job of Kubernetes). Throws Error when that is none of them, and when the
/// environment does not say exactly which shard this is.
Shard parseShard(const std::string& text, const Environment& environment);

} // namespace nqrun
