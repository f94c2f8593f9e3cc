#include "support/nqLogObject.h"
#include "system/nqLog.h"
#include "system/nqNamedPipe.h"
#include "system/nqNamedPipeServer.h"
#include "system/nqProcess.h"
#include "system/nqThread.h"

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <pthread.h>
#include <random>
#include <sched.h>
#include <string>
#include <unistd.h>

namespace {

using nq::nqLog;
using nq::nqNamedPipe;
using nq::nqNamedPipeServer;
using nq::nqProcess;
using nq::nqThread;

std::string freshName()
{
    static std::atomic<int> count{0};
    return "nq-cancellation-test-" + std::to_string(::getpid()) + "-" + std::to_string(++count);
}

nqLog::LogEntry anEntry()
{
    nqLog::LogEntry entry;
    entry.mMessage = "cancelled";
    entry.mLevel = nqLog::Info;
    return entry;
}

/// Runs work on a thread of its own that may be cancelled.
class CancellableThread {
public:
    explicit CancellableThread(std::function<void()> work)
        : mWork(std::move(work))
    {
        EXPECT_EQ(::pthread_create(&mThread, nullptr, &CancellableThread::run, this), 0);
    }

    CancellableThread(const CancellableThread&) = delete;
    CancellableThread& operator=(const CancellableThread&) = delete;

    void cancel() const
    {
        EXPECT_EQ(::pthread_cancel(mThread), 0);
    }

    /// Waits for the end of the thread.
    bool endsCancelled() const
    {
        void* result = nullptr;
        EXPECT_EQ(::pthread_join(mThread, &result), 0);
        return result == PTHREAD_CANCELED;
    }

private:
    static void* run(void* thread)
    {
        static_cast<CancellableThread*>(thread)->mWork();
        return nullptr;
    }

    std::function<void()> mWork;
    pthread_t mThread{};
};

/// Whether a thread outlives `step`, in which its cancellation is already waiting, and is cancelled
/// at the next cancellation point of its own. Where a cancellation acts in a function that lets no
/// exception out, the whole test program ends.
bool outlives(const std::function<void()>& prepare, const std::function<void()>& step)
{
    bool isThrough = false;
    const CancellableThread thread([&] {
        prepare();
        ::pthread_cancel(::pthread_self());
        step();
        isThrough = true;
        ::pthread_testcancel();
    });
    return thread.endsCancelled() && isThrough;
}

TEST(Cancellation, waitsForTheEndOfAScopeThatForbidsIt)
{
    std::optional<nqThread::Uncancellable> forbidden;
    const auto prepare = [&] { forbidden.emplace(); };
    const auto step = [&] {
        ::pthread_testcancel();
        forbidden.reset();
    };
    EXPECT_TRUE(outlives(prepare, step));
}

TEST(Cancellation, waitsUntilAProcessIsDestroyed)
{
    std::optional<nqProcess> process;
    const auto prepare = [&] {
        process.emplace();
        process->startProcess(NQ_PROCESS_WORKER_PROGRAM, {"answer"}, true, nqProcess::LowPriority);
    };
    EXPECT_TRUE(outlives(prepare, [&] { process.reset(); }));
}

TEST(Cancellation, waitsUntilAServerWithAConnectionIsDestroyed)
{
    std::optional<nqNamedPipeServer> server;
    nqNamedPipe client;
    const auto prepare = [&] {
        const std::string name = freshName();
        server.emplace();
        server->listenUtf8(name);
        client.connectToNamedPipeServerUtf8(name);
        server->waitForNewConnection(0, nullptr);
    };
    EXPECT_TRUE(outlives(prepare, [&] { server.reset(); }));
}

TEST(Cancellation, waitsUntilAPipeWithAPendingWriteIsDestroyed)
{
    nqNamedPipeServer server;
    std::optional<nqNamedPipe> client;
    const auto prepare = [&] {
        const std::string name = freshName();
        server.listenUtf8(name);
        client.emplace();
        client->connectToNamedPipeServerUtf8(name);
        client->outgoingBuffer().assign(1, 'x');
    };
    EXPECT_TRUE(outlives(prepare, [&] { client.reset(); }));
}

TEST(Cancellation, waitsUntilALineIsWritten)
{
    const auto writeEverywhere = []() noexcept {
        nqLog::LogEntry entry = anEntry();
        nqLog("/dev/null").Write(entry, true);
        nqLog::WriteToStandardOutput(entry);
        nqLog::WriteToSystemLog(entry);
    };
    EXPECT_TRUE(outlives([] {}, writeEverywhere));
}

TEST(Cancellation, waitsUntilALoggerOfTheHostHasTakenALine)
{
    struct HostLog : nqLog {
        void Write(LogEntry& /*entry*/, bool /*flush*/) override
        {
            ::pthread_testcancel();
        }
    };
    HostLog hostLog;
    nqLog::msInstance = &hostLog;
    EXPECT_TRUE(outlives([] {}, [] { nq::nqLogObject(nqLog::Info, true) << "line"; }));
}

TEST(Cancellation, waitsUntilALaunchIsOver)
{
    nqProcess process;
    const auto launch = [&] {
        process.startProcess(NQ_PROCESS_WORKER_PROGRAM, {"answer"}, true, nqProcess::LowPriority);
    };
    EXPECT_TRUE(outlives([] {}, launch));
    EXPECT_EQ(process.getState(), nqProcess::Running);
}

TEST(Cancellation, atAnyMomentEndsTheThreadAlone)
{
    constexpr int threads = 100;
    std::mt19937 random(4711);
    for (int count = 0; count < threads; ++count) {
        std::atomic<int> turns{0};
        const CancellableThread thread([&] {
            for (;;) {
                const std::string name = freshName();
                nqNamedPipeServer server;
                server.listenUtf8(name);
                nqNamedPipe client;
                client.connectToNamedPipeServerUtf8(name);
                server.waitForNewConnection(1'000, nullptr);
                nqProcess process;
                process.startProcess(
                    NQ_PROCESS_WORKER_PROGRAM, {"answer"}, true, nqProcess::LowPriority);
                for (int pass = 0; pass < 10; ++pass) {
                    client.outgoingBuffer().assign(1, 'x');
                    client.processNamedPipeEvents(0, false);
                    process.waitForFinished(0);
                    ++turns;
                }
                ::pthread_testcancel();
            }
        });
        const int moment = std::uniform_int_distribution<int>(0, 30)(random);
        while (turns < moment)
            ::sched_yield();
        thread.cancel();
        EXPECT_TRUE(thread.endsCancelled());
    }
}

} // namespace
