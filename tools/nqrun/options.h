#pragma once

#include "tools/nqrun/command.h"
#include "tools/nqrun/halt.h"
#include "tools/nqrun/items.h"
#include "tools/nqrun/joblog.h"
#include "tools/nqrun/queue_address.h"
#include "tools/nqrun/shard.h"

#include <optional>
#include <string>
#include <vector>

namespace nqrun {

constexpr int exitOwnError = 255;
constexpr int mostFailuresTold = 100; ///< exit statuses up to this are a count; one more for more

struct Options {
    unsigned jobs = 0; ///< commands at a time, or items in a queue; 0: by itself
    ItemOptions items;
    std::vector<std::string> command; ///< empty with a worker, and with a cluster
    bool isShell = false;
    bool keepOrder = false;
    bool hasTags = false;
    bool isDryRun = false;
    bool isQuiet = false;
    CommandLimits limits;
    unsigned retries = 0; ///< after the first attempt
    Halt halt;
    std::string keepFailed; ///< a folder for scripts; empty: none
    std::string joblog;     ///< empty: none
    JoblogFormat joblogFormat = JoblogFormat::Json;
    bool resumes = false;
    bool resumesFailed = false;
    Shard shard;
    std::string worker;   ///< a worker program of the library in place of commands
    QueueAddress cluster; ///< in place of both: the agents' workers
    std::string results;  ///< a folder for the results of workers; empty: lines
    std::string metrics;
    std::string trace;
    std::string timeline;
    std::string status;

    bool hasCluster() const
    {
        return !cluster.redis.empty();
    }
};

/// Reads the command line. Nothing when everything has been said, as --help does: then with
/// `exitStatus`. Throws Error.
std::optional<Options>
parseOptions(int argc, const char* const* argv, const std::string& version, int& exitStatus);

/// The text of --help.
const char* helpText();

} // namespace nqrun
