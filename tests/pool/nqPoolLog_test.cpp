#include "pool/nqPoolLog.h"
#include "system/nqLog.h"
#include "tests/scripted/scriptedMachine.h"

#include <atomic>
#include <gtest/gtest.h>
#include <optional>
#include <thread>
#include <vector>

namespace {

using nq::nqLog;
using nq::nqPoolLog;
using Log = nq::nqPoolOptions::Log;

nq::nqPoolOptions options(Log log)
{
    nq::nqPoolOptions made;
    made.log = log;
    made.logFile = "/var/log/pool.log";
    return made;
}

class PoolLog : public testing::Test {
protected:
    /// How many lines of those that the library logs now reach standard error.
    std::size_t shownLines()
    {
        mMachine.logged.clear();
        nqLog::LogEntry entry;
        entry.mMessage = "a line";
        nqLog::msInstance->Write(entry, true);
        return mMachine.logged.size();
    }

    scripted::Machine mMachine;
};

TEST_F(PoolLog, keepsLinesFromStandardOutput)
{
    const nqPoolLog guard(options(Log::Nowhere));
    ASSERT_NE(nqLog::msInstance, nullptr);
    EXPECT_EQ(shownLines(), 0U);
}

TEST_F(PoolLog, sendsLinesToStandardErrorIfToldSo)
{
    const nqPoolLog guard(options(Log::StandardError));
    EXPECT_EQ(shownLines(), 1U);
}

TEST_F(PoolLog, showsLinesAsLongAsOneOfSeveralWantsThem)
{
    const nqPoolLog silent(options(Log::Nowhere));
    {
        const nqPoolLog shown(options(Log::StandardError));
        EXPECT_EQ(shownLines(), 1U);
    }
    EXPECT_EQ(shownLines(), 0U);
}

TEST_F(PoolLog, sendsLinesToEachPlaceOnce)
{
    const nqPoolLog file(options(Log::File));
    EXPECT_EQ(shownLines(), 1U);
    const nqPoolLog sameFile(options(Log::File));
    EXPECT_EQ(shownLines(), 1U);
    const nqPoolLog shown(options(Log::StandardError));
    EXPECT_EQ(shownLines(), 2U);
}

TEST_F(PoolLog, leavesNoLoggerBehind)
{
    {
        const nqPoolLog guard(options(Log::Nowhere));
    }
    EXPECT_EQ(nqLog::msInstance, nullptr);
}

TEST_F(PoolLog, staysInstalledUntilTheLastGuardGoes)
{
    std::optional<nqPoolLog> first(options(Log::Nowhere));
    const nqPoolLog second(options(Log::Nowhere));
    first.reset();
    EXPECT_NE(nqLog::msInstance, nullptr);
}

TEST_F(PoolLog, canBeUsedAgainAfterTheLastGuard)
{
    {
        const nqPoolLog guard(options(Log::StandardError));
    }
    const nqPoolLog guard(options(Log::Nowhere));
    EXPECT_EQ(shownLines(), 0U);
}

TEST_F(PoolLog, leavesTheHostsLoggerAlone)
{
    nqLog host;
    nqLog::msInstance = &host;
    {
        const nqPoolLog guard(options(Log::Nowhere));
        EXPECT_EQ(nqLog::msInstance, &host);
    }
    EXPECT_EQ(nqLog::msInstance, &host);
}

TEST_F(PoolLog, leavesALoggerAloneThatTheHostInstallsLater)
{
    nqLog host;
    {
        const nqPoolLog guard(options(Log::Nowhere));
        nqLog::msInstance = &host;
        const nqPoolLog another(options(Log::Nowhere));
        EXPECT_EQ(nqLog::msInstance, &host);
    }
    EXPECT_EQ(nqLog::msInstance, &host);
}

TEST_F(PoolLog, isSharedByThreads)
{
    std::atomic<int> missing{0};
    std::vector<std::thread> threads(4);
    for (std::thread& thread : threads) {
        thread = std::thread([&missing] {
            for (int round = 0; round < 1'000; ++round) {
                const nqPoolLog guard(options(Log::Nowhere));
                if (nqLog::msInstance == nullptr)
                    ++missing;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(missing, 0);
    EXPECT_EQ(nqLog::msInstance, nullptr);
}

} // namespace
