#include "tools/nqrun/progress.h"

#include "tools/nqrun/io.h"
#include "tools/nqrun/text.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

namespace nqrun {

namespace {

constexpr std::chrono::milliseconds redrawEvery{200}; // as fast as people read
constexpr std::chrono::seconds lineEvery{10};
constexpr std::size_t usualColumns = 80;
constexpr std::size_t longestName = 60; // in a log

std::size_t terminalColumns()
{
    winsize size{};
    if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1)
        return size.ws_col - 1U; // a cursor behind the last column may begin a new line
    return usualColumns - 1;
}

// A terminal that somebody has stopped, or a pipe that nobody reads, holds up nothing.
bool hasRoom()
{
    pollfd stream{STDERR_FILENO, POLLOUT, 0};
    return ::poll(&stream, 1, 0) > 0;
}

std::string rateText(double perSecond)
{
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), perSecond < 9.95 ? "%.1f/s" : "%.0f/s", perSecond);
    return text.data();
}

} // namespace

std::string
progressText(const Tally& tally, std::chrono::duration<double> elapsed, std::size_t columns)
{
    const std::uint64_t over = tally.done + tally.failed;
    std::string line = std::to_string(tally.done + tally.skipped) + " done, " +
                       std::to_string(tally.failed) + " failed";
    if (tally.total)
        line += " of " + std::to_string(std::llround(*tally.total));

    std::vector<std::string> parts; // in the order in which they matter
    parts.push_back(
        tally.queued ? std::to_string(*tally.queued) + " in the queue"
                     : std::to_string(tally.running) + " running");
    if (over != 0 && elapsed.count() > 0) {
        const double rate = static_cast<double>(over) / elapsed.count();
        const double left = tally.total.value_or(0) - static_cast<double>(over + tally.skipped);
        if (tally.isStopping)
            parts.emplace_back("stopping");
        else if (tally.total && left > 0)
            parts.push_back(durationText(std::chrono::duration<double>(left / rate)) + " left");
        parts.push_back(rateText(rate));
    }
    for (const std::string& part : parts) {
        if (columns != 0 && columnsOf(line) + 2 + part.size() > columns)
            return columns < columnsOf(line) ? shown(line, columns) : line;
        line += ", " + part;
    }
    if (tally.slowest.empty())
        return line;
    const std::string before = ", slowest: ";
    const std::string after = " (" + durationText(tally.slowestTime) + ")";
    constexpr std::size_t shortest = 8; // of a name that still says something
    const std::size_t fixed = columnsOf(line) + before.size() + after.size();
    if (columns != 0 && fixed + shortest > columns)
        return line;
    return line + before + shown(tally.slowest, columns != 0 ? columns - fixed : longestName) +
           after;
}

Progress::Progress(bool isWanted)
    : mIsWanted(isWanted),
      mIsTerminal(::isatty(STDERR_FILENO) == 1),
      mNext(mStart)
{
    if (mIsTerminal)
        mNext += redrawEvery;
    else
        mNext += lineEvery;
}

Progress::~Progress()
{
    clear();
}

std::optional<Progress::Clock::time_point> Progress::due() const
{
    if (!mIsWanted)
        return std::nullopt;
    return mNext;
}

void Progress::show(const Tally& tally)
{
    const Clock::time_point now = Clock::now();
    if (!mIsWanted || now < mNext)
        return;
    mNext = now + (mIsTerminal ? std::chrono::milliseconds(redrawEvery) : lineEvery);
    if (!hasRoom())
        return;
    if (mIsTerminal) {
        mIsDrawn = true;
        writeAll(
            STDERR_FILENO, '\r' + progressText(tally, now - mStart, terminalColumns()) + "\x1b[K");
    } else {
        writeAll(STDERR_FILENO, "nqrun: " + progressText(tally, now - mStart, 0) + '\n');
    }
}

void Progress::clear()
{
    if (!mIsDrawn || !hasRoom())
        return;
    mIsDrawn = false;
    writeAll(STDERR_FILENO, "\r\x1b[K");
}

} // namespace nqrun
