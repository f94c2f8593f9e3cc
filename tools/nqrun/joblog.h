#pragma once

#include "tools/nqrun/descriptor.h"
#include "tools/nqrun/finished.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace nqrun {

enum class JoblogFormat {
    Json,    ///< a line that names the command, then one for each attempt
    Parallel ///< the columns of GNU parallel, one line for each item
};

/// What an earlier run has logged of an item.
enum class Logged { No, Done, Failed };

/// What a log says of the items that are logged in it.
class JoblogHistory {
public:
    /// Remembers the last word on an item: its identity and how it ended. One that is to be tried
    /// again is not logged.
    void note(std::uint64_t index, std::string_view identity, Logged state);

    Logged stateOf(std::uint64_t index) const;

    /// Whether it is this item that is logged, as far as a checksum can tell.
    bool isOf(std::uint64_t index, std::string_view identity) const;

    std::uint64_t count() const;

private:
    struct Entry {
        std::uint32_t check = 0;
        Logged state = Logged::No;
    };
    // In pages, so that a log with a huge index in it, or one of a small share of the items, takes
    // no more memory than its lines ask for.
    static constexpr std::size_t pageEntries = 64;
    using Page = std::array<Entry, pageEntries>;

    const Entry* find(std::uint64_t index) const;

    std::unordered_map<std::uint64_t, Page> mPages; ///< by index / pageEntries
};

/// A file with one line for each attempt, from which a run can be resumed.
///
/// A line is written once the output of its item has been delivered, in one piece, and is on disk
/// a tenth of a second later. Whoever is interrupted in between, by SIGKILL or a power loss, leaves
/// an item that is not logged and runs again, and at worst a torn last line, which is cut off.
class Joblog {
public:
    /// What has to be the same for a log to be resumed.
    struct Run {
        std::vector<std::string> command;
        std::string kind; ///< "arguments", "shell", "blocks", "worker"...
    };

    /// Makes the file, or goes on with the one that is there if `resume`. Throws Error when that is
    /// not possible: the file is another run's, or in use, or the log of something else.
    Joblog(std::string path, JoblogFormat format, const Run& run, bool resume);

    /// Makes what is written safe on disk, as far as that is possible.
    ~Joblog();

    Joblog(const Joblog&) = delete;
    Joblog& operator=(const Joblog&) = delete;

    /// What was in the file.
    const JoblogHistory& history() const
    {
        return mHistory;
    }

    /// Throws Error when the line cannot be written; the file is then as before.
    void write(const Finished& finished);

    /// When sync() has to be called; nothing while all is on disk.
    std::optional<std::chrono::steady_clock::time_point> syncDue() const;
    void sync();

    const std::string& path() const
    {
        return mPath;
    }
    JoblogFormat format() const
    {
        return mFormat;
    }

private:
    void load(const Run& run);
    void append(const std::string& line);

    std::string mPath;
    JoblogFormat mFormat;
    Descriptor mFile;
    std::uint64_t mSize = 0; ///< of the whole lines
    bool mIsFile = true;     ///< rather than a pipe or a device
    JoblogHistory mHistory;
    std::optional<std::chrono::steady_clock::time_point> mUnsyncedSince;
};

/// The first line of a JSON log, without its end.
std::string joblogHeader(const Joblog::Run& run);

/// A line of a log, without its end.
std::string joblogLine(const Finished& finished, JoblogFormat format);

} // namespace nqrun
