#include "fixture.h"

#include <pthread.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace {

using end_to_end::EndToEnd;
using end_to_end::Pool;
using end_to_end::ProcessWatch;
using end_to_end::TemporaryFolder;

/// A thread that can be cancelled. Joined at the end of the scope.
class CancellableThread {
public:
    explicit CancellableThread(std::function<void()> work)
        : mWork(std::move(work))
    {
        pthread_create(&mThread, nullptr, &CancellableThread::run, this);
    }

    /// Cancels the thread and waits for its end. Whether it ended by being cancelled.
    bool isEndedByCancellation()
    {
        pthread_cancel(mThread);
        void* result = nullptr;
        pthread_join(mThread, &result);
        return result == PTHREAD_CANCELED;
    }

private:
    static void* run(void* self)
    {
        static_cast<CancellableThread*>(self)->mWork();
        return nullptr;
    }

    std::function<void()> mWork;
    pthread_t mThread{};
};

class Cancellation : public EndToEnd {};

TEST_F(Cancellation, ofAThreadThatSleepsInThePumpLeavesAPoolThatWorks)
{
    Pool pool;
    ASSERT_TRUE(pool.start(2));
    const std::string pid = pool.ask("pid");
    CancellableThread thread([&] {
        for (;;)
            pool.scheduler().processScheduler(60'000);
    });
    EXPECT_TRUE(thread.isEndedByCancellation());
    EXPECT_EQ(pool.ask("echo still serving"), "still serving");
    EXPECT_TRUE(pool.scheduler().stopScheduler());
}

TEST_F(Cancellation, ofAThreadThatPumpsWithoutSleepLosesNoJob)
{
    constexpr int rounds = 50;
    constexpr std::size_t jobsPerRound = 20;
    const std::string text(100'000, 't'); // keeps the pipes busy
    Pool pool;
    ASSERT_TRUE(pool.start(2));
    for (int round = 1; round <= rounds; ++round) {
        for (std::size_t job = 0; job < jobsPerRound; ++job)
            pool.push("echo " + text);
        CancellableThread thread([&] {
            for (;;)
                pool.scheduler().processScheduler(0);
        });
        ASSERT_TRUE(thread.isEndedByCancellation());
    }
    ASSERT_TRUE(pool.collect(rounds * jobsPerRound));
    EXPECT_TRUE(pool.failures().empty());
    for (const std::string& answer : pool.answers())
        ASSERT_TRUE(answer == text);
}

TEST_F(Cancellation, ofAThreadThatLaunchesAReplacementLeavesTheReplacementToTheNextPump)
{
    const TemporaryFolder folder;
    const std::string told = folder.addFifo("told");
    const std::string marker = folder.file("marker");
    const std::string script = folder.addScript(
        "worker",
        "if [ -e '" + marker + "' ]; then echo launched >'" + told + "'; exec '" +
            end_to_end::workerPath() + "' --never-connect \"$@\"; fi\nexec '" +
            end_to_end::workerPath() + "' \"$@\"\n");
    Pool pool(script, {});
    ASSERT_TRUE(pool.start(1));
    const std::string pid = pool.ask("pid");
    const ProcessWatch worker(std::stoi(pid));
    std::ofstream(marker).close();
    worker.kill(SIGKILL);
    ASSERT_TRUE(worker.endsWithin(end_to_end::generousLimit));

    CancellableThread thread([&] {
        for (;;)
            pool.scheduler().processScheduler(1000);
    });
    std::string line;
    std::getline(std::ifstream(told), line);
    ASSERT_EQ(line, "launched");
    EXPECT_TRUE(thread.isEndedByCancellation());

    std::filesystem::remove(marker);
    EXPECT_NE(pool.ask("pid"), pid);
    EXPECT_EQ(end_to_end::children().size(), 1U);
}

TEST_F(Cancellation, ofAThreadThatStopsLeavesTheStopToBeFinished)
{
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    const ProcessWatch worker(std::stoi(pool.ask("pid")));
    ASSERT_EQ(pool.ask("ignore-end"), "ignoring");
    CancellableThread thread([&] { pool.scheduler().stopScheduler(); });
    EXPECT_TRUE(thread.isEndedByCancellation());
    worker.kill(SIGKILL);
    EXPECT_TRUE(pool.scheduler().stopScheduler());
    EXPECT_TRUE(end_to_end::children().empty());
}

TEST_F(Cancellation, ofAThreadThatStopsLeavesNothingToPump)
{
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    const ProcessWatch worker(std::stoi(pool.ask("pid")));
    ASSERT_EQ(pool.ask("ignore-end"), "ignoring");
    CancellableThread thread([&] { pool.scheduler().stopScheduler(); });
    EXPECT_TRUE(thread.isEndedByCancellation());
    worker.kill(SIGKILL);
    pool.push("echo for the next start");
    pool.scheduler().processScheduler(0);
    pool.scheduler().waitForFinished();
    EXPECT_TRUE(mLog.messages().empty()) << "nothing is launched without a server";
    EXPECT_TRUE(pool.scheduler().stopScheduler());
    ASSERT_TRUE(pool.start(1));
    EXPECT_TRUE(pool.collect(1 + 2));
    EXPECT_EQ(pool.answers().back(), "for the next start");
}

} // namespace
