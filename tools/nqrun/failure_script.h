#pragma once

#include "tools/nqrun/finished.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace nqrun {

/// What a script runs again.
struct FailedCommand {
    std::vector<std::string> arguments;
    std::string_view input; ///< its standard input; in a file beside the script
    bool hasInput = false;
    bool isWorkersJob = false; ///< the arguments are a worker's; the input is a job
};

/// A folder with a script for each failed item, which runs exactly its command again, in the same
/// folder and with the same standard input.
class FailureScripts {
public:
    /// Makes the folder if it is missing. Throws Error.
    explicit FailureScripts(const std::string& folder);

    /// Throws Error when the script cannot be written; then there is none.
    void write(const Finished& finished, const FailedCommand& command) const;

    /// Removes what an earlier run has left for an item that is done now.
    void remove(std::uint64_t index) const;

private:
    std::string pathOf(std::uint64_t index, const char* ending) const;

    std::string mFolder;
};

} // namespace nqrun
