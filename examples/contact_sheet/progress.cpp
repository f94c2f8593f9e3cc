#include "examples/contact_sheet/progress.h"

#include <cmath>
#include <cstdio>

#include <unistd.h>

namespace sheet {

namespace {

constexpr std::chrono::milliseconds redrawEvery{200}; // as fast as people read

std::string timeText(double seconds)
{
    const auto whole = static_cast<unsigned long>(std::ceil(seconds));
    if (whole < 60)
        return std::to_string(whole) + " s";
    if (whole < 3600)
        return std::to_string(whole / 60) + " min " + std::to_string(whole % 60) + " s";
    return std::to_string(whole / 3600) + " h " + std::to_string(whole % 3600 / 60) + " min";
}

} // namespace

std::string progressText(const Tally& tally, std::chrono::duration<double> elapsed)
{
    std::string text = std::to_string(tally.done) + " of " + std::to_string(tally.total) +
                       " done, " + std::to_string(tally.failed) + " failed";
    if (tally.done == 0 || elapsed.count() <= 0)
        return text;

    const double rate = static_cast<double>(tally.done) / elapsed.count();
    char rateText[32];
    std::snprintf(rateText, sizeof rateText, "%.1f", rate);
    const double left = static_cast<double>(tally.total - tally.done) / rate;
    return text + ", " + rateText + " per second, " + timeText(left) + " left";
}

Progress::Progress(bool wanted)
    : mActive(wanted && isatty(STDERR_FILENO) == 1)
{
}

Progress::~Progress()
{
    clear();
}

void Progress::show(const Tally& tally)
{
    const Clock::time_point now = Clock::now();
    if (!mActive || now < mNextDraw)
        return;
    mNextDraw = now + redrawEvery;
    mDrawn = true;
    std::fprintf(stderr, "\r%s\x1b[K", progressText(tally, now - mStart).c_str());
    std::fflush(stderr);
}

void Progress::clear()
{
    if (!mDrawn)
        return;
    mDrawn = false;
    std::fputs("\r\x1b[K", stderr);
    std::fflush(stderr);
}

} // namespace sheet
