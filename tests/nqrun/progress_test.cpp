#include "tools/nqrun/progress.h"
#include "tools/nqrun/text.h"

#include <gtest/gtest.h>

namespace nqrun {
namespace {

Tally aTally()
{
    Tally tally;
    tally.done = 90;
    tally.failed = 10;
    tally.running = 4;
    tally.total = 300;
    tally.slowest = "photographs/a rather long name of a photograph.jpg";
    tally.slowestTime = std::chrono::seconds(12);
    return tally;
}

TEST(ProgressText, saysHowFarItIs)
{
    EXPECT_EQ(
        progressText(aTally(), std::chrono::seconds(50), 0),
        "90 done, 10 failed of 300, 4 running, 1 min 40 s left, 2.0/s, slowest: photographs/a "
        "rather long name of a photograph.jpg (12 s)");
}

TEST(ProgressText, fitsEveryWidth)
{
    for (std::size_t columns = 1; columns <= 160; ++columns) {
        const std::string text = progressText(aTally(), std::chrono::seconds(50), columns);
        EXPECT_LE(columnsOf(text), columns) << text;
    }
}

TEST(ProgressText, keepsTheCountsOnANarrowTerminal)
{
    EXPECT_EQ(
        progressText(aTally(), std::chrono::seconds(50), 40),
        "90 done, 10 failed of 300, 4 running");
    EXPECT_NE(
        progressText(aTally(), std::chrono::seconds(50), 100).find("photo"), std::string::npos);
}

TEST(ProgressText, saysHowManyAreInTheQueueOfACluster)
{
    Tally tally;
    tally.done = 10;
    tally.queued = 1000;
    EXPECT_EQ(
        progressText(tally, std::chrono::seconds(10), 0),
        "10 done, 0 failed, 1000 in the queue, 1.0/s");
}

TEST(ProgressText, promisesNoEndThatItCannotKnow)
{
    Tally tally = aTally();
    tally.total.reset();
    EXPECT_EQ(
        progressText(tally, std::chrono::seconds(50), 60), "90 done, 10 failed, 4 running, 2.0/s");
}

TEST(ProgressText, countsWhatAnEarlierRunHasDone)
{
    Tally tally;
    tally.done = 10;
    tally.skipped = 100;
    tally.total = 120;
    EXPECT_EQ(
        progressText(tally, std::chrono::seconds(10), 0),
        "110 done, 0 failed of 120, 0 running, 10 s left, 1.0/s");
}

} // namespace
} // namespace nqrun
