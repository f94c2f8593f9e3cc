#pragma once

#include "pool/include/nqPoolStatistics.h"
#include "pool/include/nqPoolTimeline.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace nq {

/// What a timeline knows of a run, in bounded memory: the first bars one by one, and all of them by
/// columns, stretches of time of the same width, which doubles whenever the run outgrows them.
class nqTimelineRecord {
public:
    using Time = nqPoolTimeline::Time;

    /// What a bar looks like.
    enum class Look { Done, Died, Late, Large, Wrong, Gone };
    static constexpr std::size_t looks = 6;
    static Look lookOf(nqAttempt::Reason reason);

    struct Bar {
        std::size_t row;
        Time begin;
        Time end;
        nqAttempt::Reason reason;
        std::string label;
    };

    struct Restart {
        std::size_t row;
        Time at;
        std::string cause;
    };

    /// One worker in one column.
    struct Cell {
        std::array<float, looks> times{}; ///< microseconds that went into each look
        std::uint32_t restarts = 0;
    };

    struct Row {
        std::vector<Cell> cells; ///< empty: no worker was there
        std::uint64_t attempts = 0;
        double busy = 0; ///< microseconds
    };

    /// Jobs that waited.
    struct Queued {
        bool isKnown = false; ///< something has changed in this column
        std::size_t most = 0;
        std::size_t last = 0;
    };

    explicit nqTimelineRecord(std::size_t workers);

    void addAttempt(const nqPoolTimeline::Attempt& attempt);
    void addRestart(std::size_t worker, Time at, std::string_view cause);
    void addQueued(Time at, std::size_t jobs);

    std::size_t workers() const;
    const std::vector<Row>& rows() const;

    /// Those of all attempts; of many, the first failed ones.
    const std::vector<Bar>& bars() const;
    bool areAllBarsKept() const;

    const std::vector<Restart>& restarts() const; ///< all, or the first ones of many
    std::uint64_t restartCount() const;           ///< of all
    const std::vector<Queued>& queued() const;    ///< empty: nothing is known

    Time end() const; ///< of the run
    Time columnWidth() const;

    /// Of all attempts, and of the jobs by their last one; each reason cast to an index.
    const std::array<std::uint64_t, nqPoolStatistics::reasons>& attempts() const;
    const std::array<std::uint64_t, nqPoolStatistics::reasons>& jobs() const;

private:
    void reach(Time time);
    void addToCells(Row& row, Time begin, Time end, Look look);
    Cell& cell(Row& row, std::size_t column);
    void keepBar(const nqPoolTimeline::Attempt& attempt, Time begin, Time end);
    std::size_t columnOf(Time time) const;

    std::size_t mWorkers;
    std::size_t mColumns; ///< at most
    Time mWidth;
    Time mEnd{};
    std::vector<Row> mRows;
    std::vector<Queued> mQueued;
    std::vector<Bar> mBars;
    bool mAreAllBarsKept = true;
    std::vector<Restart> mRestarts;
    std::uint64_t mRestartCount = 0;
    std::array<std::uint64_t, nqPoolStatistics::reasons> mAttempts{};
    std::array<std::uint64_t, nqPoolStatistics::reasons> mJobs{};
};

} // namespace nq
