#pragma once

#include "tools/nqrun/descriptor.h"

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace nqrun {

/// Which items are jobs in a queue right now, in a file beside the joblog. The queue outlives this
/// process: who resumes a run that was killed finds here whose jobs they were, and under which ids,
/// and takes up their outcomes instead of running them once more.
class SentItems {
public:
    /// The last job that an item was sent as.
    struct Job {
        std::uint64_t id = 0;
        std::uint32_t attempt = 1; ///< of the item
        std::uint64_t check = 0;   ///< of the item
    };

    /// Reads what a run before has left if `resumes`, and locks it; makes nothing yet. Throws
    /// Error when the file is in use, or is something else.
    SentItems(std::string path, bool resumes);

    /// Removes the file when nothing is in the queue.
    ~SentItems();

    SentItems(const SentItems&) = delete;
    SentItems& operator=(const SentItems&) = delete;

    /// Whose jobs they are: a name that no other run has.
    const std::string& client() const
    {
        return mClient;
    }

    /// Makes the file. Throws Error.
    void begin();

    /// What the run before had sent, and not logged. Told once.
    std::optional<Job> takeLeft(std::uint64_t index);

    /// Whether there is more of it.
    bool hasLeft() const
    {
        return !mLeft.empty();
    }

    /// The item is sent as this job. Throws Error when that cannot be written.
    void note(std::uint64_t index, const Job& job);

    /// The item is logged. Throws Error likewise.
    void forget(std::uint64_t index);

private:
    void load();
    void open(int flags);
    void write(std::uint64_t slot, const std::string& line);

    std::string mPath;
    std::string mClient;
    Descriptor mFile;
    bool mIsMade = false;
    std::uint64_t mSlotCount = 0;
    std::vector<std::uint64_t> mFreeSlots;
    std::unordered_map<std::uint64_t, std::uint64_t> mSlots; ///< by item
    std::unordered_map<std::uint64_t, Job> mLeft;            ///< by item
};

} // namespace nqrun
