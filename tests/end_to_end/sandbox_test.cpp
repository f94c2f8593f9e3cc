#include "fixture.h"
#include "text_pattern.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace {

using end_to_end::EndToEnd;
using end_to_end::matchesWhole;
using end_to_end::Pool;

class SandboxedWorker : public EndToEnd {
protected:
    SandboxedWorker()
        : mPool(NQ_SANDBOXED_WORKER, {})
    {
        mPool.scheduler().setJobProcessTimeout(1);
    }

    void SetUp() override
    {
        ASSERT_TRUE(mPool.start(1));
    }

    Pool mPool;
};

TEST_F(SandboxedWorker, answersJobsOfEverySize)
{
    const std::string large(4 << 20, 'x');
    EXPECT_EQ(mPool.ask("small"), "small");
    EXPECT_EQ(mPool.ask(large), large);
    EXPECT_EQ(mPool.ask("small again"), "small again");
}

TEST_F(SandboxedWorker, getsNoFurtherThanItsPipe)
{
    const std::string refused = std::strerror(EPERM);
    EXPECT_EQ(mPool.ask("read a file"), refused);
    EXPECT_EQ(mPool.ask("open a socket"), refused);
    EXPECT_EQ(mPool.ask("start a process"), refused);
    EXPECT_EQ(mPool.ask("signal the host"), refused);
}

TEST_F(SandboxedWorker, isKilledAndReplacedThoughItHasBecomeAnotherUser)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "only a worker of root can become another user";
    EXPECT_EQ(mPool.ask("tell the user"), "65534");
    const std::string failure = mPool.ask("hang");
    // Two seconds, and more on a busy machine that pumps later.
    EXPECT_TRUE(
        matchesWhole(failure, R"(\(killing scheduler worker : timeout \(([2-9]|[1-9][0-9])s\)\))"))
        << failure;
    EXPECT_EQ(mPool.ask("tell the user"), "65534");
}

} // namespace
