#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace nqrun {

/// How far a run has come.
struct Tally {
    std::uint64_t done = 0;
    std::uint64_t failed = 0;
    std::uint64_t skipped = 0; ///< logged by an earlier run
    std::size_t running = 0;
    std::optional<std::size_t> queued; ///< or running, where only both together are known
    std::optional<double> total;       ///< items in all, as far as it is known or can be estimated
    std::string slowest;               ///< the item that runs for the longest time
    std::chrono::duration<double> slowestTime{};
    bool isStopping = false;
};

/// One line of at most `columns`; what matters least goes first when it does not fit. 0: no limit.
std::string
progressText(const Tally& tally, std::chrono::duration<double> elapsed, std::size_t columns);

/// A line on the terminal that is drawn anew five times a second; on anything else than a terminal,
/// a line every ten seconds.
class Progress {
public:
    using Clock = std::chrono::steady_clock;

    explicit Progress(bool isWanted);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// When show() wants to be called; nothing if never.
    std::optional<Clock::time_point> due() const;
    void show(const Tally& tally);

    /// Takes the line away, before something else is written.
    void clear();

private:
    bool mIsWanted;
    bool mIsTerminal;
    bool mIsDrawn = false;
    Clock::time_point mStart = Clock::now();
    Clock::time_point mNext;
};

} // namespace nqrun
