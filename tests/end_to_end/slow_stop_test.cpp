#include "fixture.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace {

using end_to_end::EndToEnd;
using end_to_end::Pool;
using end_to_end::ProcessWatch;
using end_to_end::TemporaryFolder;

class SlowStop : public EndToEnd {
protected:
    /// Runs what ends the worker only once it has had its thirty seconds to leave.
    static void expectThirtySeconds(const std::function<void()>& end, const ProcessWatch& worker)
    {
        const auto before = std::chrono::steady_clock::now();
        end();
        const auto taken = std::chrono::steady_clock::now() - before;
        EXPECT_GE(taken, std::chrono::seconds{30});
        EXPECT_LT(taken, std::chrono::seconds{45});
        EXPECT_TRUE(worker.endsWithin(std::chrono::milliseconds{0}));
    }
};

TEST_F(SlowStop, killsAWorkerThatIgnoresItsClosedPipeAfterThirtySeconds)
{
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    const ProcessWatch worker(std::stoi(pool.ask("pid")));
    ASSERT_EQ(pool.ask("ignore-end"), "ignoring");
    expectThirtySeconds([&] { EXPECT_TRUE(pool.scheduler().stopScheduler()); }, worker);
}

TEST_F(SlowStop, ofAWorkerWhoseLastWordsNobodyReadsIsEndedInsideThePump)
{
    Pool pool;
    ASSERT_TRUE(pool.scheduler().setCaptureStandardError(true));
    ASSERT_TRUE(pool.start(1));
    const ProcessWatch worker(std::stoi(pool.ask("pid")));
    pool.push("close-pipe-and-print");
    expectThirtySeconds(
        [&] { EXPECT_TRUE(pool.pumpUntil([&] { return !pool.failures().empty(); })); }, worker);
    EXPECT_EQ(pool.ask("echo next"), "next");
}

TEST_F(SlowStop, ofAWorkerLeftByARefusedStartIsEndedByTheDestructor)
{
    TemporaryFolder folder;
    const std::string onlyTheFirst = folder.addScript(
        "worker",
        "mkdir '" + folder.file("first") + "' 2>/dev/null || exit 1\nexec '" +
            end_to_end::workerPath() + "' \"$@\"\n");
    auto pool =
        std::make_unique<Pool>(onlyTheFirst, std::vector<std::string>{"--print-at-the-end"});
    ASSERT_TRUE(pool->scheduler().setCaptureStandardError(true));
    ASSERT_FALSE(pool->start(2));
    const auto left = pool->scheduler().workers();
    ASSERT_EQ(left.size(), 1U);
    const ProcessWatch worker(static_cast<pid_t>(left[0].mPid));
    expectThirtySeconds([&] { pool.reset(); }, worker);
}

} // namespace
