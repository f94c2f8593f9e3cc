#include "examples/contact_sheet/progress.h"

#include <gtest/gtest.h>

namespace {

using sheet::progressText;
using std::chrono::seconds;

TEST(ProgressText, hasNoRateBeforeAnythingIsDone)
{
    EXPECT_EQ(progressText({40, 0, 0}, seconds(3)), "0 of 40 done, 0 failed");
}

TEST(ProgressText, tellsRateAndTimeLeft)
{
    EXPECT_EQ(
        progressText({40, 10, 1}, seconds(4)),
        "10 of 40 done, 1 failed, 2.5 per second, 12 s left");
}

TEST(ProgressText, tellsLongTimesInMinutesAndHours)
{
    EXPECT_EQ(
        progressText({100, 10, 0}, seconds(10)),
        "10 of 100 done, 0 failed, 1.0 per second, 1 min 30 s left");
    EXPECT_EQ(
        progressText({10'000, 100, 0}, seconds(100)),
        "100 of 10000 done, 0 failed, 1.0 per second, 2 h 45 min left");
}

} // namespace
