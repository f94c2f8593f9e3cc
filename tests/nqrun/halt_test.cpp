#include "tools/nqrun/halt.h"

#include <gtest/gtest.h>

namespace nqrun {
namespace {

TEST(ParseHalt, readsWhenAndWhy)
{
    const auto halt = parseHalt("now,fail=3");
    ASSERT_TRUE(halt);
    EXPECT_EQ(halt->when, Halt::When::Now);
    EXPECT_EQ(halt->why, Halt::Why::Fail);
    EXPECT_EQ(halt->count, 3U);
    ASSERT_TRUE(parseHalt("never"));
    EXPECT_EQ(parseHalt("soon,success=1")->why, Halt::Why::Success);
}

TEST(ParseHalt, refusesEverythingElse)
{
    for (const char* const text :
         {"",
          "now",
          "now,fail",
          "now,fail=0",
          "now,fail=",
          "later,fail=1",
          "now,fails=1",
          "fail=1",
          "now,fail=10%"})
        EXPECT_FALSE(parseHalt(text)) << text;
}

TEST(Halt, isReachedByWhatItCounts)
{
    EXPECT_FALSE(parseHalt("never")->isReached(1000, 1000));
    EXPECT_TRUE(parseHalt("now,fail=2")->isReached(2, 0));
    EXPECT_FALSE(parseHalt("now,fail=2")->isReached(1, 9));
    EXPECT_TRUE(parseHalt("soon,success=2")->isReached(0, 2));
    EXPECT_TRUE(parseHalt("soon,done=3")->isReached(1, 2));
}

} // namespace
} // namespace nqrun
