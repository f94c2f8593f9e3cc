#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace sheet {

/// How far a run is.
struct Tally {
    std::size_t total = 0;
    std::size_t done = 0; ///< shown or failed
    std::size_t failed = 0;
};

/// "12 of 40 done, 1 failed, 8.3 per second, 4 s left". The rate and the time left are missing
/// until there is something to compute them from.
std::string progressText(const Tally& tally, std::chrono::duration<double> elapsed);

/// One line on standard error, drawn over itself; nothing at all when that is no terminal.
class Progress {
public:
    /// `wanted` false keeps it silent on a terminal too.
    explicit Progress(bool wanted);
    ~Progress();

    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Draws at most a few times a second, however often it is called.
    void show(const Tally& tally);

    /// Wipes the line, so that something else can be printed.
    void clear();

private:
    using Clock = std::chrono::steady_clock;

    bool mActive;
    bool mDrawn = false;
    Clock::time_point mStart = Clock::now();
    Clock::time_point mNextDraw = mStart;
};

} // namespace sheet
