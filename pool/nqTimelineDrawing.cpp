// From top to bottom: title, totals, legend, a row for each worker, what waited, the time. Lengths
// are in hundredths of a unit, so that no number has more than two decimals.
#include "pool/nqTimelineDrawing.h"

#include "pool/nqEndNames.h"
#include "pool/nqMarkup.h"
#include "pool/nqTexts.h"

#include <algorithm>
#include <cmath>
#include <string_view>
#include <utility>

namespace nq {

namespace {

using Reason = nqAttempt::Reason;
using Look = nqTimelineRecord::Look;
using Time = nqTimelineRecord::Time;
using Length = std::int64_t;

constexpr Length unit = 100;
constexpr Length width = 1000 * unit;
constexpr Length margin = 20 * unit;
constexpr Length left = 112 * unit; // of the rows
constexpr Length right = width - margin;
constexpr Length titleLine = 36 * unit;
constexpr Length totalsLine = 59 * unit;
constexpr Length legendLine = 86 * unit;
constexpr Length legendStep = 22 * unit;
constexpr Length queueHeight = 44 * unit;
constexpr Length labelHeight = 15 * unit;
constexpr Length narrowestFailure = 2 * unit;
constexpr std::size_t longestTitle = 50; // bytes
constexpr std::size_t mostTicks = 10;
constexpr std::uint64_t manyRestarts = 100;

/// Six colours that stay apart for people who do not see all of them, by lightness as well. Dark
/// ones where the page is light, and the other way round.
constexpr char style[] =
    "<style>"
    "text{font:13px system-ui,-apple-system,'Segoe "
    "UI',Roboto,Helvetica,Arial,sans-serif;fill:#59636e}"
    ".title{font-size:18px;font-weight:600;fill:#1f2328}"
    ".page{fill:#fff;stroke:#d8dee4}.row{fill:#eff2f5}.grid{stroke:#d8dee4}"
    ".queue{fill:#8c959f;fill-opacity:.45}"
    ".unseen{fill-opacity:0}"
    ".mark{fill:#1f2328;stroke:#fff;stroke-width:.8}"
    ".Done{fill:#4a90d0}.Died{fill:#cf3f0a}.Late{fill:#f0a818}.Large{fill:#a8478f}"
    ".Wrong{fill:#24292f}.Gone{fill:#a9b2bb}"
    "@media(prefers-color-scheme:dark){"
    "text{fill:#9198a1}.title{fill:#e6edf3}"
    ".page{fill:#0d1117;stroke:#30363d}.row{fill:#1b222b}.grid{stroke:#30363d}"
    ".mark{fill:#e6edf3;stroke:#0d1117}"
    ".Done{fill:#3a7fc4}.Died{fill:#ff7043}.Late{fill:#ffc53d}.Large{fill:#d787c3}"
    ".Wrong{fill:#f0f3f6}.Gone{fill:#626b75}"
    "}</style>\n";

constexpr std::array<const char*, nqTimelineRecord::looks> classes{
    "Done", "Died", "Late", "Large", "Wrong", "Gone"};

constexpr char markLook[] = "mark";

const char* classOf(Look look)
{
    return classes[static_cast<std::size_t>(look)];
}

/// For people: "memory cap".
std::string spoken(std::string_view name)
{
    std::string text(name);
    std::replace(text.begin(), text.end(), '_', ' ');
    return text;
}

std::string spoken(Reason reason)
{
    return reason == Reason::None ? "done" : spoken(nameOf(reason));
}

/// "1,000,000"
std::string grouped(std::uint64_t number)
{
    std::string text = std::to_string(number);
    for (std::size_t place = 3; place < text.size(); place += 4)
        text.insert(text.size() - place, 1, ',');
    return text;
}

std::string counted(std::uint64_t number, const char* what)
{
    return grouped(number) + ' ' + what + (number == 1 ? "" : "s");
}

/// The time between two ticks of an axis that ends then.
Time tickStep(Time end)
{
    using namespace std::chrono_literals;
    constexpr std::array<Time, 40> steps{
        100us, 200us, 500us, 1ms,  2ms,  5ms,  10ms,  20ms,  50ms,  100ms, 200ms,  500ms, 1s, 2s,
        5s,    10s,   15s,   30s,  1min, 2min, 5min,  10min, 15min, 30min, 1h,     2h,    3h, 6h,
        12h,   24h,   48h,   168h, 336h, 672h, 1344h, 2688h, 5376h, 8760h, 17520h, 87600h};
    const auto isWideEnough = [&](Time step) {
        return end / step < static_cast<std::int64_t>(mostTicks);
    };
    const auto found = std::find_if(steps.begin(), steps.end(), isWideEnough);
    return found == steps.end() ? steps.back() : *found;
}

/// A rectangle as part of a path.
void appendPiece(std::string& path, Length x, Length y, Length wide, Length high)
{
    path += 'M';
    appendDecimal(path, x, 2);
    path += ' ';
    appendDecimal(path, y, 2);
    path += 'h';
    appendDecimal(path, wide, 2);
    path += 'v';
    appendDecimal(path, high, 2);
    path += 'h';
    appendDecimal(path, -wide, 2);
    path += 'z';
}

struct LegendEntry {
    const char* look;
    std::string text;
    Length x;
    Length y;
};

class Drawing {
public:
    Drawing(const nqTimelineRecord& record, const std::string& title)
        : mRecord(record),
          mTitle(title),
          mEnd(std::max(record.end(), Time(1)))
    {
    }

    std::string draw();

private:
    void layOut();
    void layOutLegend();
    void drawHead();
    void drawTotals();
    void drawLegend();
    void drawGrid();
    void drawRow(std::size_t index);
    void drawColumns();
    void drawColumnsOf(std::size_t row, Look look);
    void drawBar(const nqTimelineRecord::Bar& bar);
    void drawRestarts();
    void drawRestartsOfColumns(Length half);
    void drawMark(std::size_t row, Time at, Length half, const std::string& what);
    void drawTriangle(Length x, Length y, Length half);
    void drawQueue();

    Length share(const nqTimelineRecord::Cell& cell, Time column, Look look) const;
    Length xOf(Time time) const;
    Length topOf(std::size_t row) const;
    std::string tooltipOf(const nqTimelineRecord::Bar& bar) const;

    void length(const char* name, Length value);
    void rectangle(const char* look, Length x, Length y, Length wide, Length high);
    void text(Length x, Length y, std::string_view content, const char* more = "");

    const nqTimelineRecord& mRecord;
    const std::string& mTitle;
    const Time mEnd;
    std::string mOut;
    std::vector<LegendEntry> mLegend;
    Length mRowsTop = 0;
    Length mPitch = 0;
    Length mBarHeight = 0;
    Length mQueueTop = 0; // or, without one, the end of the rows
    Length mAxis = 0;
    Length mHeight = 0;
};

std::string Drawing::draw()
{
    layOut();
    mOut = "<svg xmlns=\"http://www.w3.org/2000/svg\" role=\"img\"";
    length("width", width);
    length("height", mHeight);
    mOut += " viewBox=\"0 0 1000 ";
    appendDecimal(mOut, mHeight, 2);
    mOut += "\">\n";
    mOut += style;
    rectangle("page", unit / 2, unit / 2, width - unit, mHeight - unit);
    mOut.insert(mOut.size() - 2, " rx=\"8\"");
    mOut += '\n';
    drawHead();
    drawTotals();
    drawLegend();
    for (std::size_t row = 0; row < mRecord.rows().size(); ++row)
        drawRow(row);
    drawGrid();
    if (!mRecord.areAllBarsKept())
        drawColumns();
    for (const nqTimelineRecord::Bar& bar : mRecord.bars())
        drawBar(bar);
    drawRestarts();
    drawQueue();
    mOut += "</svg>\n";
    return std::move(mOut);
}

void Drawing::layOut()
{
    const std::size_t rows = mRecord.rows().size();
    const auto pitches = {
        std::pair<std::size_t, Length>{4, 34},
        {8, 28},
        {16, 20},
        {32, 14},
        {64, 9},
        {128, 6},
        {~std::size_t{0}, 4}};
    mPitch =
        std::find_if(
            pitches.begin(), pitches.end(), [&](const auto& pitch) { return rows <= pitch.first; })
            ->second *
        unit;
    mBarHeight = mPitch - std::max(unit, mPitch / 5);
    layOutLegend();
    mRowsTop = (mLegend.empty() ? legendLine : mLegend.back().y) + legendStep;
    mQueueTop = mRowsTop + static_cast<Length>(rows) * mPitch;
    mAxis = mQueueTop + 6 * unit;
    if (!mRecord.queued().empty())
        mAxis += queueHeight + 6 * unit;
    mHeight = mAxis + 30 * unit;
}

void Drawing::drawHead()
{
    std::uint64_t jobs = 0;
    for (const std::uint64_t count : mRecord.jobs())
        jobs += count;
    std::string title = mTitle.empty() ? std::string() : shortened(mTitle, longestTitle) + ": ";
    title += counted(jobs, "job") + " in " + durationText(mRecord.end());
    text(margin, titleLine, title, " class=\"title\"");
}

void Drawing::drawTotals()
{
    std::uint64_t jobs = 0;
    std::uint64_t attempts = 0;
    double busy = 0;
    for (std::size_t index = 0; index < nqPoolStatistics::reasons; ++index) {
        jobs += mRecord.jobs()[index];
        attempts += mRecord.attempts()[index];
    }
    for (const nqTimelineRecord::Row& row : mRecord.rows())
        busy += row.busy;
    const std::uint64_t done = mRecord.jobs()[static_cast<std::size_t>(Reason::None)];
    const std::uint64_t cancelled = mRecord.jobs()[static_cast<std::size_t>(Reason::Cancelled)] +
                                    mRecord.jobs()[static_cast<std::size_t>(Reason::Stopped)];
    std::string line = counted(mRecord.workers(), "worker");
    const double available =
        static_cast<double>(mEnd.count()) * static_cast<double>(mRecord.rows().size());
    if (available > 0 && busy > 0)
        line += ", busy " + std::to_string(std::lround(100 * busy / available)) + " % of the time";
    line += "; " + grouped(done) + " done, " + grouped(jobs - done - cancelled) + " failed";
    if (cancelled != 0)
        line += ", " + grouped(cancelled) + " cancelled";
    if (attempts > jobs)
        line += "; " + counted(attempts, "attempt");
    if (mRecord.restartCount() != 0)
        line += "; " + counted(mRecord.restartCount(), "restart");
    text(margin, totalsLine, line);
}

// How wide a text is, nobody knows: eight units for a character are enough.
void Drawing::layOutLegend()
{
    Length x = margin;
    Length y = legendLine;
    const auto add = [&](const char* look, std::string label) {
        const Length wide = 32 * unit + static_cast<Length>(label.size()) * 8 * unit;
        if (x + wide > width) {
            x = margin;
            y += legendStep;
        }
        mLegend.push_back({look, std::move(label), x, y});
        x += wide;
    };
    for (std::size_t index = 0; index < nqPoolStatistics::reasons; ++index) {
        const auto reason = static_cast<Reason>(index);
        if (mRecord.attempts()[index] != 0)
            add(classOf(nqTimelineRecord::lookOf(reason)),
                spoken(reason) + ' ' + grouped(mRecord.attempts()[index]));
    }
    if (mRecord.restartCount() != 0)
        add(markLook, "worker replaced");
}

void Drawing::drawLegend()
{
    for (const LegendEntry& entry : mLegend) {
        if (entry.look == markLook)
            drawTriangle(entry.x + 6 * unit, entry.y + unit, 5 * unit);
        else
            rectangle(entry.look, entry.x, entry.y - 10 * unit, 12 * unit, 12 * unit);
        mOut += entry.look == markLook ? "/>\n" : "\n";
        text(entry.x + 18 * unit, entry.y, entry.text);
    }
}

void Drawing::drawGrid()
{
    const Time step = tickStep(mEnd);
    for (Time time(0); time <= mEnd; time += step) {
        mOut += "<path class=\"grid\" d=\"M";
        appendDecimal(mOut, xOf(time), 2);
        mOut += ' ';
        appendDecimal(mOut, mRowsTop, 2);
        mOut += 'V';
        appendDecimal(mOut, mAxis + 4 * unit, 2);
        mOut += "\"/>";
        const std::string label = time.count() == 0 ? "0" : durationText(time);
        const bool isNearTheEdge = xOf(time) + 30 * unit > right;
        text(
            isNearTheEdge ? right : xOf(time),
            mAxis + 19 * unit,
            label,
            isNearTheEdge ? " text-anchor=\"end\"" : " text-anchor=\"middle\"");
    }
}

void Drawing::drawRow(std::size_t index)
{
    const nqTimelineRecord::Row& row = mRecord.rows()[index];
    const Length top = topOf(index);
    const std::string name = "worker " + std::to_string(index + 1);
    rectangle("row", left, top, right - left, mBarHeight);
    mOut.replace(mOut.size() - 2, 2, "><title>");
    mOut += name + ": " + counted(row.attempts, "attempt") + ", busy " +
            std::to_string(std::lround(100 * row.busy / static_cast<double>(mEnd.count()))) +
            " % of the time</title></rect>\n";
    const auto every = static_cast<std::size_t>((labelHeight + mPitch - 1) / mPitch);
    if (index % every == 0)
        text(
            left - 8 * unit,
            top + mBarHeight / 2 + std::max(Length(0), 9 * unit / 2),
            name,
            " text-anchor=\"end\"");
}

/// The height of what stands for this look in a column, which is not full unless all of its time
/// went there. What has failed is high enough to be seen.
Length Drawing::share(const nqTimelineRecord::Cell& cell, Time column, Look look) const
{
    const float time = cell.times[static_cast<std::size_t>(look)];
    if (!(time > 0))
        return 0;
    const Length high = std::lround(
        static_cast<double>(mBarHeight) *
        std::min(1.0, static_cast<double>(time) / static_cast<double>(column.count())));
    const Length visible = look == Look::Done ? Length(0) : mBarHeight / 2;
    constexpr Length grain = unit / 4;
    return std::min(mBarHeight, std::max(visible, (high + grain / 2) / grain * grain));
}

/// What was done hangs from the top of its row; all else stands on its ground, below the marks.
void Drawing::drawColumns()
{
    for (std::size_t row = 0; row < mRecord.rows().size(); ++row) {
        drawColumnsOf(row, Look::Done);
        for (const Look look : {Look::Gone, Look::Wrong, Look::Late, Look::Large, Look::Died})
            drawColumnsOf(row, look);
    }
}

/// One path. Columns of the same height next to each other become one piece of it.
void Drawing::drawColumnsOf(std::size_t row, Look look)
{
    const auto& cells = mRecord.rows()[row].cells;
    const Time column = mRecord.columnWidth();
    const bool isDone = look == Look::Done;
    const Length ground = topOf(row) + (isDone ? 0 : mBarHeight);
    std::string path;
    Length height = 0;
    Time since(0);
    for (std::size_t index = 0; index <= cells.size(); ++index) {
        const Time begin = std::min(column * static_cast<std::int64_t>(index), mEnd);
        const Time wide = std::max(std::min(column, mEnd - begin), Time(1));
        const Length next = index < cells.size() ? share(cells[index], wide, look) : 0;
        if (next == height)
            continue;
        if (height != 0) {
            const Length x = xOf(since);
            appendPiece(
                path,
                x,
                ground,
                std::max(xOf(begin) - x, isDone ? Length(0) : narrowestFailure),
                isDone ? height : -height);
        }
        since = begin;
        height = next;
    }
    if (path.empty())
        return;
    mOut.append("<path pointer-events=\"none\" class=\"").append(classOf(look));
    mOut.append("\" d=\"").append(path).append("\"/>\n");
}

/// Narrow ones are drawn as wide as can be seen; wide ones leave a gap to the next. Beside columns,
/// which show it already, one is there to be pointed at.
void Drawing::drawBar(const nqTimelineRecord::Bar& bar)
{
    const Length begin = xOf(bar.begin);
    const bool isDone = bar.reason == Reason::None;
    Length wide = xOf(bar.end) - begin;
    if (wide > 3 * unit)
        wide -= unit * 3 / 5;
    wide = std::max(wide, isDone ? unit * 3 / 5 : narrowestFailure);
    const char* const look =
        mRecord.areAllBarsKept() ? classOf(nqTimelineRecord::lookOf(bar.reason)) : "unseen";
    rectangle(look, begin, topOf(bar.row), wide, mBarHeight);
    if (wide > 6 * unit && mBarHeight > 8 * unit)
        mOut.insert(mOut.size() - 2, " rx=\"2\"");
    mOut.replace(mOut.size() - 2, 2, "><title>");
    mOut += tooltipOf(bar) + "</title></rect>\n";
}

std::string Drawing::tooltipOf(const nqTimelineRecord::Bar& bar) const
{
    std::string tip;
    appendXmlText(tip, bar.label);
    return tip + ": " + spoken(bar.reason) + " after " + durationText(bar.end - bar.begin) +
           " (worker " + std::to_string(bar.row + 1) + ", from " + durationText(bar.begin) + ')';
}

void Drawing::drawRestarts()
{
    const bool areMany = mRecord.restartCount() > manyRestarts;
    const Length half = std::min((areMany ? 3 : 5) * unit, mPitch / 4);
    if (mRecord.restarts().size() < mRecord.restartCount()) {
        drawRestartsOfColumns(half);
        return;
    }
    for (const nqTimelineRecord::Restart& restart : mRecord.restarts())
        drawMark(restart.row, restart.at, half, "replaced: " + spoken(restart.cause));
}

/// No mark covers the one before.
void Drawing::drawRestartsOfColumns(Length half)
{
    for (std::size_t row = 0; row < mRecord.rows().size(); ++row) {
        const auto& cells = mRecord.rows()[row].cells;
        Length latest = 0;
        std::uint64_t count = 0;
        for (std::size_t index = 0; index < cells.size(); ++index) {
            count += cells[index].restarts;
            const Time at =
                std::min(mRecord.columnWidth() * static_cast<std::int64_t>(index), mEnd);
            if (count == 0 || xOf(at) < latest + 2 * half)
                continue;
            drawMark(
                row, at, half, "replaced: " + std::to_string(std::exchange(count, 0)) + " times");
            latest = xOf(at);
        }
    }
}

void Drawing::drawMark(std::size_t row, Time at, Length half, const std::string& what)
{
    drawTriangle(xOf(at), topOf(row) + half * 3 / 2, half);
    mOut += "><title>worker " + std::to_string(row + 1) + ' ';
    appendXmlText(mOut, what);
    mOut += "</title></path>\n";
}

/// With its tip down there; the element is still open.
void Drawing::drawTriangle(Length x, Length y, Length half)
{
    mOut.append("<path class=\"").append(markLook).append("\" d=\"M");
    appendDecimal(mOut, x, 2);
    mOut += ' ';
    appendDecimal(mOut, y, 2);
    mOut += 'l';
    appendDecimal(mOut, -half, 2);
    mOut += ' ';
    appendDecimal(mOut, -half * 9 / 5, 2);
    mOut += 'h';
    appendDecimal(mOut, 2 * half, 2);
    mOut += "z\"";
}

void Drawing::drawQueue()
{
    const auto& queued = mRecord.queued();
    std::size_t most = 0;
    for (const nqTimelineRecord::Queued& column : queued)
        most = std::max(most, column.most);
    if (queued.empty())
        return;
    const Length ground = mQueueTop + 6 * unit + queueHeight;
    text(left - 8 * unit, ground - queueHeight / 2 - 2 * unit, "waiting", " text-anchor=\"end\"");
    text(
        left - 8 * unit,
        ground - queueHeight / 2 + 13 * unit,
        "max " + grouped(most),
        " text-anchor=\"end\"");
    std::string path = "M";
    appendDecimal(path, left, 2);
    path += ' ';
    appendDecimal(path, ground, 2);
    std::size_t last = 0;
    Length height = 0;
    for (std::size_t index = 0; index < queued.size(); ++index) {
        const nqTimelineRecord::Queued& column = queued[index];
        const std::size_t jobs = column.isKnown ? column.most : last;
        last = column.isKnown ? column.last : last;
        const Length next = std::lround(
            static_cast<double>(queueHeight) * static_cast<double>(jobs) /
            static_cast<double>(std::max<std::size_t>(most, 1)));
        if (next == height)
            continue;
        path += 'H';
        appendDecimal(
            path, xOf(std::min(mEnd, mRecord.columnWidth() * static_cast<std::int64_t>(index))), 2);
        path += 'V';
        appendDecimal(path, ground - next, 2);
        height = next;
    }
    path += 'H';
    appendDecimal(path, right, 2);
    path += 'V';
    appendDecimal(path, ground, 2);
    mOut += "<path class=\"queue\" d=\"" + path + "z\"/>\n";
}

Length Drawing::xOf(Time time) const
{
    const double part = static_cast<double>(time.count()) / static_cast<double>(mEnd.count());
    return left + std::lround(part * static_cast<double>(right - left));
}

Length Drawing::topOf(std::size_t row) const
{
    return mRowsTop + static_cast<Length>(row) * mPitch;
}

void Drawing::length(const char* name, Length value)
{
    mOut.append(" ").append(name).append("=\"");
    appendDecimal(mOut, value, 2);
    mOut += '"';
}

void Drawing::rectangle(const char* look, Length x, Length y, Length wide, Length high)
{
    mOut.append("<rect class=\"").append(look).append("\"");
    length("x", x);
    length("y", y);
    length("width", wide);
    length("height", high);
    mOut += "/>";
}

void Drawing::text(Length x, Length y, std::string_view content, const char* more)
{
    mOut += "<text";
    length("x", x);
    length("y", y);
    mOut.append(more).append(">");
    appendXmlText(mOut, content);
    mOut += "</text>\n";
}

} // namespace

std::string drawTimeline(const nqTimelineRecord& record, const std::string& title)
{
    return Drawing(record, title).draw();
}

} // namespace nq
