#include "fixture.h"

#include <chrono>
#include <string>

namespace {

using end_to_end::EndToEnd;
using end_to_end::Pool;
using end_to_end::ProcessWatch;

class SlowStop : public EndToEnd {};

TEST_F(SlowStop, killsAWorkerThatIgnoresItsClosedPipeAfterThirtySeconds)
{
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    const ProcessWatch worker(std::stoi(pool.ask("pid")));
    ASSERT_EQ(pool.ask("ignore-end"), "ignoring");
    const auto before = std::chrono::steady_clock::now();
    EXPECT_TRUE(pool.scheduler().stopScheduler());
    const auto taken = std::chrono::steady_clock::now() - before;
    EXPECT_GE(taken, std::chrono::seconds{30});
    EXPECT_LT(taken, std::chrono::seconds{45});
    EXPECT_TRUE(worker.endsWithin(std::chrono::milliseconds{0}));
}

} // namespace
