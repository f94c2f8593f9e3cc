#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <sys/types.h>

namespace chaos {

/// Nanoseconds of the monotonic clock, which all processes share.
std::int64_t now();

/// One worker process, as it tells itself.
struct WorkerEntry {
    std::atomic<std::int32_t> pid;
    std::atomic<std::int64_t> doomedAt;  // when it ended, or closed its pipe, by itself; 0: not
    std::atomic<std::uint64_t> doomedBy; // the job that made it do so
    std::atomic<bool> hasGrown;          // it keeps memory because a job told it to
};

/// What the workers of one round write down in memory that they share with the host: who took which
/// job, and who is about to die by whose fault. The host holds every failure against it.
///
/// Memory without a name on disk; workers open it through the host's descriptor in /proc.
struct Board {
    static constexpr std::size_t maxWorkers = 8192;
    static constexpr std::size_t maxJobs = 16384;

    std::atomic<std::uint32_t> workerCount;
    std::array<WorkerEntry, maxWorkers> workers;
    std::array<std::atomic<std::int32_t>, maxJobs> takers; // by job number; 0: nobody yet
};

/// Maps a board for as long as it lives.
class BoardMapping {
public:
    /// A fresh board, which stays open for workers.
    BoardMapping();

    /// The board that `path` names. Throws when there is none.
    explicit BoardMapping(const std::string& path);

    ~BoardMapping();
    BoardMapping(const BoardMapping&) = delete;
    BoardMapping& operator=(const BoardMapping&) = delete;

    Board* operator->() const
    {
        return mBoard;
    }

    Board* get() const
    {
        return mBoard;
    }

    /// For BoardMapping in another process, while this one lives.
    std::string path() const;

    /// The entry of a worker that has entered itself; null for a stranger.
    const WorkerEntry* entryOf(pid_t worker) const;

private:
    void map();

    int mFd = -1;
    Board* mBoard = nullptr;
};

} // namespace chaos
