#pragma once

#include "nqExport.h"
#include "nqOutcome.h"

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace nq {

/// A run of a pool as a picture: a row for each worker, a bar for each attempt of a job in the
/// colour of its end, marks for workers that had to be replaced, and how many jobs waited.
///
/// Any number of jobs takes some MiB at most: beyond the first ones, bars merge by time, and the
/// picture shows which share of each moment went into what. Failed ones stay visible.
///
/// nqPoolOptions::timelineFile makes one of a pool. By hand it takes what a host has recorded, of
/// several machines say. Times count from the beginning of the run; they may come in any order. Not
/// locked: one object belongs to one thread.
class NQ_API nqPoolTimeline {
public:
    using Time = std::chrono::microseconds; ///< since the beginning of the run

    /// One attempt of a job, or a job that has ended without one.
    struct Attempt {
        std::size_t worker = 0; ///< its row, from 1; 0: none, the job is only counted
        Time begin{};           ///< when the worker was given the job
        Time end{};             ///< when that was over
        nqAttempt::Reason reason = nqAttempt::Reason::None; ///< why the job was not done
        bool isLast = true;     ///< the job had its outcome by it; otherwise it was tried again
        nqJobId job = 0;        ///< shown where there is no label
        std::string_view label; ///< any bytes; the beginning is shown
    };

    /// An empty picture of a pool with so many workers. `title` may be empty.
    explicit nqPoolTimeline(std::size_t workers, const std::string& title = {});
    ~nqPoolTimeline();

    /// Leaves `other` good for nothing but an assignment.
    nqPoolTimeline(nqPoolTimeline&& other) noexcept;

    /// Likewise.
    nqPoolTimeline& operator=(nqPoolTimeline&& other) noexcept;

    /// Adds an attempt; a larger number of a worker than there are rows is only counted.
    void addAttempt(const Attempt& attempt);

    /// A worker was replaced. `cause` is told to people: "crashed".
    void addRestart(std::size_t worker, Time at, std::string_view cause);

    /// From now on, so many jobs wait.
    void addQueued(Time at, std::size_t jobs);

    /// The picture: an SVG file, with a light and a dark look, in which nothing is loaded or run.
    std::string svg() const;

    /// Writes it to a file, which is replaced as a whole. Throws nqPoolError when that cannot be.
    void write(const std::string& file) const;

private:
    struct Private;
    std::unique_ptr<Private> mPrivate;
};

/// Reads what a pool has written to nqPoolOptions::traceFile, also when its host was killed: a last
/// line that is cut is left out. Throws nqPoolError when the file cannot be read or is no trace of
/// a pool.
NQ_API nqPoolTimeline readPoolTrace(const std::string& file);

} // namespace nq
