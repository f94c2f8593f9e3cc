#include "pool/nqTimelineRecord.h"

#include "pool/nqMarkup.h"

#include <algorithm>

namespace nq {

namespace {

using Reason = nqAttempt::Reason;
using Time = nqTimelineRecord::Time;

constexpr std::size_t mostRows = 256;     // each is a few pixels high
constexpr std::size_t mostColumns = 1024; // about one for each pixel
constexpr std::size_t mostCells = 32'768; // of all rows, so that the picture stays below a MiB
constexpr std::size_t mostBars = 1'500;
constexpr std::size_t mostFailedBars = 300; // of more attempts than that
constexpr std::size_t mostRestarts = 500;
constexpr Time narrowestColumn{16};

std::size_t columnsFor(std::size_t workers)
{
    std::size_t columns = mostColumns;
    while (columns > 2 && columns * std::min(workers, mostRows) > mostCells)
        columns /= 2;
    return columns;
}

bool hasFailed(Reason reason)
{
    return reason != Reason::None && reason != Reason::Cancelled && reason != Reason::Stopped;
}

/// Each two become one.
template <typename Value, typename Merge>
void halve(std::vector<Value>& values, const Merge& merge)
{
    const std::size_t half = (values.size() + 1) / 2;
    for (std::size_t index = 0; index < half; ++index) {
        Value merged = values[2 * index];
        if (2 * index + 1 < values.size())
            merge(merged, values[2 * index + 1]);
        values[index] = merged;
    }
    values.resize(half);
}

void mergeCells(nqTimelineRecord::Cell& into, const nqTimelineRecord::Cell& next)
{
    for (std::size_t look = 0; look < into.times.size(); ++look)
        into.times[look] += next.times[look];
    into.restarts += next.restarts;
}

void mergeQueued(nqTimelineRecord::Queued& into, const nqTimelineRecord::Queued& next)
{
    if (!next.isKnown)
        return;
    into.most = into.isKnown ? std::max(into.most, next.most) : next.most;
    into.last = next.last;
    into.isKnown = true;
}

} // namespace

nqTimelineRecord::Look nqTimelineRecord::lookOf(Reason reason)
{
    switch (reason) {
    case Reason::None:
        return Look::Done;
    case Reason::Crashed:
    case Reason::Exited:
    case Reason::Lost:
        return Look::Died;
    case Reason::Timeout:
    case Reason::Deadline:
        return Look::Late;
    case Reason::MemoryCap:
        return Look::Large;
    case Reason::Exception:
    case Reason::ResultLost:
    case Reason::NoWorker:
        return Look::Wrong;
    case Reason::Cancelled:
    case Reason::Stopped:
        return Look::Gone;
    }
    return Look::Wrong;
}

nqTimelineRecord::nqTimelineRecord(std::size_t workers)
    : mWorkers(workers),
      mColumns(columnsFor(workers)),
      mWidth(narrowestColumn),
      mRows(std::min(workers, mostRows))
{
}

void nqTimelineRecord::addAttempt(const nqPoolTimeline::Attempt& attempt)
{
    const Time begin = std::max(attempt.begin, Time(0));
    const Time end = std::max(attempt.end, begin);
    const auto reason = static_cast<std::size_t>(attempt.reason);
    reach(end);
    if (attempt.isLast)
        ++mJobs[reason];
    if (attempt.worker == 0)
        return;
    ++mAttempts[reason];
    if (attempt.worker > mRows.size())
        return;
    Row& row = mRows[attempt.worker - 1];
    ++row.attempts;
    row.busy += static_cast<double>((end - begin).count());
    addToCells(row, begin, end, lookOf(attempt.reason));
    keepBar(attempt, begin, end);
}

void nqTimelineRecord::addToCells(Row& row, Time begin, Time end, Look look)
{
    const std::size_t last = columnOf(end);
    for (std::size_t column = columnOf(begin); column <= last; ++column) {
        const Time first = mWidth * static_cast<std::int64_t>(column);
        const Time part = std::min(end, first + mWidth) - std::max(begin, first);
        cell(row, column).times[static_cast<std::size_t>(look)] += static_cast<float>(part.count());
    }
}

nqTimelineRecord::Cell& nqTimelineRecord::cell(Row& row, std::size_t column)
{
    if (row.cells.size() <= column)
        row.cells.resize(column + 1);
    return row.cells[column];
}

void nqTimelineRecord::keepBar(const nqPoolTimeline::Attempt& attempt, Time begin, Time end)
{
    if (mAreAllBarsKept && mBars.size() == mostBars) {
        mAreAllBarsKept = false;
        const auto isDull = [](const Bar& bar) { return !hasFailed(bar.reason); };
        mBars.erase(std::remove_if(mBars.begin(), mBars.end(), isDull), mBars.end());
    }
    if (!mAreAllBarsKept && (!hasFailed(attempt.reason) || mBars.size() >= mostFailedBars))
        return;
    std::string label =
        attempt.label.empty() ? "job " + std::to_string(attempt.job) : shownLabel(attempt.label);
    mBars.push_back({attempt.worker - 1, begin, end, attempt.reason, std::move(label)});
}

void nqTimelineRecord::addRestart(std::size_t worker, Time at, std::string_view cause)
{
    at = std::max(at, Time(0));
    reach(at);
    ++mRestartCount;
    if (worker == 0 || worker > mRows.size())
        return;
    ++cell(mRows[worker - 1], columnOf(at)).restarts;
    if (mRestarts.size() < mostRestarts)
        mRestarts.push_back({worker - 1, at, shownLabel(cause)});
}

void nqTimelineRecord::addQueued(Time at, std::size_t jobs)
{
    at = std::max(at, Time(0));
    reach(at);
    const std::size_t column = columnOf(at);
    if (mQueued.size() <= column)
        mQueued.resize(column + 1);
    mergeQueued(mQueued[column], {true, jobs, jobs});
}

/// Makes columns wider until there is one for this time.
void nqTimelineRecord::reach(Time time)
{
    mEnd = std::max(mEnd, time);
    while (columnOf(time) >= mColumns) {
        mWidth *= 2;
        for (Row& row : mRows)
            halve(row.cells, mergeCells);
        halve(mQueued, mergeQueued);
    }
}

std::size_t nqTimelineRecord::columnOf(Time time) const
{
    return static_cast<std::size_t>(time / mWidth);
}

std::size_t nqTimelineRecord::workers() const
{
    return mWorkers;
}

const std::vector<nqTimelineRecord::Row>& nqTimelineRecord::rows() const
{
    return mRows;
}

const std::vector<nqTimelineRecord::Bar>& nqTimelineRecord::bars() const
{
    return mBars;
}

bool nqTimelineRecord::areAllBarsKept() const
{
    return mAreAllBarsKept;
}

const std::vector<nqTimelineRecord::Restart>& nqTimelineRecord::restarts() const
{
    return mRestarts;
}

std::uint64_t nqTimelineRecord::restartCount() const
{
    return mRestartCount;
}

const std::vector<nqTimelineRecord::Queued>& nqTimelineRecord::queued() const
{
    return mQueued;
}

Time nqTimelineRecord::end() const
{
    return mEnd;
}

Time nqTimelineRecord::columnWidth() const
{
    return mWidth;
}

const std::array<std::uint64_t, nqPoolStatistics::reasons>& nqTimelineRecord::attempts() const
{
    return mAttempts;
}

const std::array<std::uint64_t, nqPoolStatistics::reasons>& nqTimelineRecord::jobs() const
{
    return mJobs;
}

} // namespace nq
