#include "fixture.h"

#include <chrono>
#include <csignal>
#include <cstdint>
#include <string>
#include <unistd.h>

namespace {

using end_to_end::EndToEnd;
using end_to_end::Pool;

/// A host that reads what its workers print to their standard error.
class StandardErrorOfWorkers : public EndToEnd {
protected:
    struct End {
        std::int64_t mPid = 0;
        common::Descriptor mDescriptor;
    };

    void SetUp() override
    {
        ASSERT_TRUE(mPool.scheduler().setCaptureStandardError(true));
    }

    /// The oldest that was not taken yet.
    End take()
    {
        End end;
        int descriptor = -1;
        if (mPool.scheduler().takeStandardError(end.mPid, descriptor))
            end.mDescriptor = common::Descriptor(descriptor);
        return end;
    }

    /// Pumps and reads until `text` has come or the end.
    bool read(const End& end, const std::string& text)
    {
        return mPool.pumpUntil([&] {
            mRead += common::readAll(end.mDescriptor.get());
            return mRead.find(text) != std::string::npos;
        });
    }

    Pool mPool;
    std::string mRead;
};

} // namespace

TEST_F(StandardErrorOfWorkers, comesToTheHostThoughTheirOutputIsSilenced)
{
    ASSERT_TRUE(mPool.start(1));
    const End end = take();
    EXPECT_EQ(std::to_string(end.mPid), mPool.ask("pid"));
    mPool.push("print to the host");
    EXPECT_TRUE(read(end, "to the host"));
}

TEST_F(StandardErrorOfWorkers, holdsTheLastWordsOfOneThatWasKilled)
{
    ASSERT_TRUE(mPool.start(1));
    const End end = take();
    mPool.push("print-and-hang last words");
    const auto hasPrinted = [&] {
        return common::becomesReadable(end.mDescriptor.get(), std::chrono::milliseconds(0));
    };
    ASSERT_TRUE(mPool.pumpUntil(hasPrinted));
    ASSERT_EQ(::kill(static_cast<pid_t>(end.mPid), SIGKILL), 0);
    ASSERT_TRUE(mPool.collect(1));
    EXPECT_NE(common::readAll(end.mDescriptor.get()).find("last words"), std::string::npos);
    char byte = 0;
    EXPECT_EQ(::read(end.mDescriptor.get(), &byte, 1), 0) << "the end shows";
    EXPECT_NE(take().mPid, end.mPid) << "that of the replacement";
}

TEST_F(StandardErrorOfWorkers, ofAWorkerThatCannotConnectSaysWhy)
{
    Pool pool("/bin/sh", {}); // takes the pipe's name for a script, and says that there is none
    ASSERT_TRUE(pool.scheduler().setCaptureStandardError(true));
    ASSERT_FALSE(pool.start(1));
    std::int64_t pid = 0;
    int descriptor = -1;
    ASSERT_TRUE(pool.scheduler().takeStandardError(pid, descriptor));
    const common::Descriptor end(descriptor);
    EXPECT_NE(pid, 0);
    EXPECT_NE(common::readAll(end.get()).find("/bin/sh: "), std::string::npos);
}
