#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sheet {

/// Exit statuses of contact-sheet.
constexpr int exitAllGood = 0;
constexpr int exitSomeFailed = 1;
constexpr int exitUsage = 2; // also: nothing could be started or written

/// What the scheduler is told. Sizes are in bytes; 0 switches a size limit off.
struct PoolLimits {
    unsigned long workers = 0;
    unsigned long timeoutSeconds = 20; // never off: it is what ends a hanging decoder
    unsigned long memory = 1ul << 30;
    unsigned long memoryAfterJob = 512ul << 20;
    unsigned long allocation = 0;
    std::string worker; ///< path of the worker's executable
};

struct Options {
    std::string output;
    std::string report;
    std::vector<std::string> paths;
    PoolLimits pool;
    std::uint32_t edge = 240;
    std::uint32_t columns = 0; ///< 0: chosen by the number of pictures
    std::string font;          ///< empty: the machine's
    bool quiet = false;
    bool verbose = false;
};

/// Options, or the status to exit with once the help, the version or what is wrong was printed.
struct ParsedOptions {
    std::optional<Options> options;
    int exitStatus = exitAllGood;
};

/// Reads the command line. `versionText` is what --version prints.
ParsedOptions parseOptions(int argc, const char* const* argv, const std::string& versionText);

} // namespace sheet
