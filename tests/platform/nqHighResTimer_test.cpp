#include "system/nqHighResTimer.h"

#include <chrono>
#include <gtest/gtest.h>

namespace {

using nq::nqHighResTimer;
using std::chrono::steady_clock;

double secondsSince(steady_clock::time_point start)
{
    return std::chrono::duration<double>(steady_clock::now() - start).count();
}

TEST(HighResTimer, showsZeroWhenNeverStarted)
{
    EXPECT_EQ(nqHighResTimer().getElapsedTimeInSec(), 0.0);
}

TEST(HighResTimer, countsSecondsOfTheMonotonicClock)
{
    nqHighResTimer timer;
    const auto beforeStart = steady_clock::now();
    timer.start();
    const auto afterStart = steady_clock::now();

    while (secondsSince(afterStart) < 0.01)
        ;

    const double atLeast = secondsSince(afterStart);
    const double elapsed = timer.getElapsedTimeInSec();
    const double atMost = secondsSince(beforeStart);
    EXPECT_GE(elapsed, atLeast);
    EXPECT_LE(elapsed, atMost);
}

TEST(HighResTimer, startsAgainFromZero)
{
    nqHighResTimer timer;
    timer.start();
    while (timer.getElapsedTimeInSec() <= 0.01)
        ;

    const auto beforeRestart = steady_clock::now();
    timer.start();
    const double elapsed = timer.getElapsedTimeInSec();

    EXPECT_LE(elapsed, secondsSince(beforeRestart));
}

TEST(HighResTimer, keepsCountingWhenCopied)
{
    nqHighResTimer timer;
    timer.start();
    const nqHighResTimer copy = timer;
    const double earlier = timer.getElapsedTimeInSec();

    EXPECT_GE(copy.getElapsedTimeInSec(), earlier);
}

} // namespace
