#include "nqPoolThread.h"
#include "tests/common/descriptors.h"
#include "tests/common/files.h"
#include "tests/common/random.h"
#include "tests/end_to_end/fixture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <future>
#include <set>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using common::generousLimit;
using nq::nqJobId;
using nq::nqOutcome;
using nq::nqPoolOptions;
using nq::nqPoolThread;
using Future = std::future<nqOutcome>;
using Reason = nqOutcome::Reason;
using State = nqOutcome::State;

/// Yields until `done`. False when that does not happen in generous time.
bool becomesTrue(const std::function<bool()>& done)
{
    const auto deadline = std::chrono::steady_clock::now() + generousLimit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::yield();
    }
    return true;
}

bool isReady(const Future& future)
{
    return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

/// One that does not come within generous time comes as a failure of the test.
nqOutcome outcomeOf(Future& future)
{
    if (future.wait_for(generousLimit) == std::future_status::ready)
        return future.get();
    ADD_FAILURE() << "a job has no outcome";
    return {};
}

/// Calls `host` with 0, 1, 2 and so on, each on a thread of its own, and waits for all.
void onThreads(std::size_t count, const std::function<void(std::size_t thread)>& host)
{
    std::vector<std::thread> all;
    all.reserve(count);
    for (std::size_t thread = 0; thread < count; ++thread)
        all.emplace_back(host, thread);
    for (std::thread& one : all)
        one.join();
}

/// Submits what `job` makes of 0, 1, 2 and so on.
std::vector<Future>
submitAll(nqPoolThread& pool, std::size_t count, const std::function<std::string(std::size_t)>& job)
{
    std::vector<Future> futures;
    futures.reserve(count);
    for (std::size_t i = 0; i < count; ++i)
        futures.push_back(pool.submit(job(i)));
    return futures;
}

std::string fileOfTask(pid_t thread, const std::string& name)
{
    return common::contentOf("/proc/self/task/" + std::to_string(thread) + '/' + name);
}

/// Whether the thread sleeps, as the kernel sees it.
bool isAsleep(pid_t thread)
{
    const std::string state = fileOfTask(thread, "stat");
    const std::size_t name = state.rfind(") ");
    return name != std::string::npos && state.compare(name, 3, ") S") == 0;
}

/// Signal N is bit N - 1.
std::uint64_t blockedSignals(pid_t thread)
{
    const std::string status = fileOfTask(thread, "status");
    const std::string name = "SigBlk:";
    return std::stoull(status.substr(status.find(name) + name.size()), nullptr, 16);
}

constexpr std::uint64_t bitOf(int signal)
{
    return std::uint64_t{1} << (signal - 1);
}

/// All but those that nobody can block, and those of a thread's own faults, which a sanitizer keeps
/// open.
constexpr std::uint64_t signalsOfOthers =
    std::uint64_t{0x7fffffff} &
    ~(bitOf(SIGKILL) | bitOf(SIGSTOP) | bitOf(SIGSEGV) | bitOf(SIGBUS) | bitOf(SIGFPE) |
      bitOf(SIGILL) | bitOf(SIGTRAP) | bitOf(SIGABRT) | bitOf(SIGSYS));

std::set<pid_t> threads()
{
    std::set<pid_t> all;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task"))
        all.insert(std::stoi(entry.path().filename()));
    return all;
}

/// A host with threads, whose workers take the jobs as they are.
class PoolThread : public end_to_end::EndToEnd {
protected:
    PoolThread()
    {
        mOptions.worker = end_to_end::workerPath();
        mOptions.plainWorker = true;
        mOptions.workers = 2;
    }

    /// A pool that can hold no other job than the one that does not end.
    void fillWithAHangingJob(nqPoolThread& pool)
    {
        mHanging = pool.submit("hang", {}, &mHangingId);
        ASSERT_TRUE(becomesTrue([&] { return pool.statistics().running == 1; }));
    }

    nqPoolOptions mOptions;
    Future mHanging;
    nqJobId mHangingId = 0;
};

/// A thread that submits one job and may have to wait for it.
class Submitter {
public:
    Submitter(nqPoolThread& pool, const std::string& job)
        : mFuture(std::async(std::launch::async, [this, &pool, job] {
              mThread = static_cast<pid_t>(::syscall(SYS_gettid));
              return pool.submit(job);
          }))
    {
    }

    /// Whether it waits inside submit(), once it has had time to come so far.
    bool hasToWait()
    {
        const auto hasReturned = [&] {
            return mFuture.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
        };
        return becomesTrue([&] { return hasReturned() || (mThread != 0 && isAsleep(mThread)); }) &&
               !hasReturned();
    }

    /// What submit() has returned or thrown.
    Future result()
    {
        return mFuture.get();
    }

private:
    std::atomic<pid_t> mThread{0};
    std::future<Future> mFuture;
};

TEST_F(PoolThread, givesEachThreadTheOutcomesOfItsOwnJobs)
{
    nqPoolThread pool(mOptions);
    onThreads(4, [&](std::size_t thread) {
        const auto text = [thread](std::size_t job) {
            return std::to_string(thread) + ' ' + std::to_string(job);
        };
        auto futures = submitAll(pool, 200, [&](std::size_t job) { return "echo " + text(job); });
        for (std::size_t job = 0; job < futures.size(); ++job)
            EXPECT_EQ(outcomeOf(futures[job]).text(), text(job));
    });
    pool.drain();
    EXPECT_EQ(pool.statistics().done, 800U);
}

TEST_F(PoolThread, numbersTheJobsOfAllThreads)
{
    nqPoolThread pool(mOptions);
    std::vector<std::set<nqJobId>> ids(3);
    onThreads(ids.size(), [&](std::size_t thread) {
        for (int job = 0; job < 50; ++job) {
            nqJobId id = 0;
            Future future = pool.submit("echo x", {}, &id);
            ids[thread].insert(id);
            EXPECT_EQ(outcomeOf(future).id, id);
        }
    });
    std::set<nqJobId> all;
    for (const auto& own : ids)
        all.insert(own.begin(), own.end());
    EXPECT_EQ(all.size(), 150U);
    EXPECT_EQ(*all.begin(), 1U);
    EXPECT_EQ(*all.rbegin(), 150U);
}

TEST_F(PoolThread, handsAFailedJobBack)
{
    nqPoolThread pool(mOptions);
    Future future = pool.submit("crash");
    const nqOutcome outcome = outcomeOf(future);
    EXPECT_EQ(outcome.state, State::Failed);
    EXPECT_EQ(outcome.reason, Reason::Crashed);
    EXPECT_EQ(outcome.signal, SIGSEGV);
    EXPECT_EQ(outcome.text(), "crash");
}

TEST_F(PoolThread, holdsAJobToItsOwnOptions)
{
    nqPoolThread pool(mOptions);
    nq::nqJobOptions options;
    options.timeout = std::chrono::milliseconds(50);
    Future future = pool.submit("hang", options);
    EXPECT_EQ(outcomeOf(future).reason, Reason::Timeout);
}

TEST_F(PoolThread, takesTheMemoryOfAJobThatIsMoved)
{
    nqPoolThread pool(mOptions);
    std::vector<char> job(1000, 'x');
    Future future = pool.submit(std::move(job));
    EXPECT_TRUE(job.empty()); // NOLINT(bugprone-use-after-move): that is the question
    EXPECT_EQ(outcomeOf(future).state, State::Done);
}

TEST_F(PoolThread, cancelsAJobThatRuns)
{
    nqPoolThread pool(mOptions);
    fillWithAHangingJob(pool);
    pool.cancel(mHangingId);
    const nqOutcome outcome = outcomeOf(mHanging);
    EXPECT_EQ(outcome.reason, Reason::Cancelled);
    EXPECT_EQ(outcome.text(), "hang");
}

TEST_F(PoolThread, cancelsAJobThatHasJustBeenHandedOver)
{
    nqPoolThread pool(mOptions);
    for (int round = 0; round < 100; ++round) {
        nqJobId id = 0;
        Future future = pool.submit("hang", {}, &id);
        pool.cancel(id);
        EXPECT_EQ(outcomeOf(future).reason, Reason::Cancelled);
    }
}

TEST_F(PoolThread, letsAJobBeThatHasEndedOrNeverWas)
{
    nqPoolThread pool(mOptions);
    nqJobId id = 0;
    Future future = pool.submit("echo a", {}, &id);
    EXPECT_EQ(outcomeOf(future).text(), "a");
    pool.cancel(id);
    pool.cancel(0);
    pool.cancel(id + 1);
    Future next = pool.submit("echo b");
    EXPECT_EQ(outcomeOf(next).text(), "b");
}

TEST_F(PoolThread, givesEveryJobOneOutcomeWhoeverCancelsItAtWhateverMoment)
{
    nqPoolThread pool(mOptions);
    constexpr std::size_t hosts = 3;
    constexpr std::size_t jobs = 300;
    std::atomic<std::size_t> running{hosts};
    const auto host = [&](std::size_t thread) {
        const auto text = [thread](std::size_t job) {
            return std::to_string(thread) + ' ' + std::to_string(job);
        };
        auto futures = submitAll(pool, jobs, [&](std::size_t job) { return "echo " + text(job); });
        for (std::size_t job = 0; job < jobs; ++job) {
            const nqOutcome outcome = outcomeOf(futures[job]);
            EXPECT_TRUE(outcome || outcome.reason == Reason::Cancelled);
            EXPECT_EQ(outcome.text(), (outcome ? "" : "echo ") + text(job));
        }
        --running;
    };
    const auto cancelAny = [&] {
        common::SeededRandom random(1);
        while (running != 0) {
            pool.cancel(random.below(hosts * jobs) + 1);
            std::this_thread::yield();
        }
    };
    onThreads(hosts + 1, [&](std::size_t thread) { thread < hosts ? host(thread) : cancelAny(); });
}

TEST_F(PoolThread, makesSubmittersWaitWhileItIsFull)
{
    mOptions.maxPendingJobs = 1;
    nqPoolThread pool(mOptions);
    fillWithAHangingJob(pool);
    Submitter one(pool, "echo one");
    Submitter other(pool, "echo other");
    EXPECT_TRUE(one.hasToWait());
    EXPECT_TRUE(other.hasToWait());
    pool.cancel(mHangingId);
    Future ofOne = one.result();
    Future ofOther = other.result();
    EXPECT_EQ(outcomeOf(ofOne).text(), "one");
    EXPECT_EQ(outcomeOf(ofOther).text(), "other");
}

TEST_F(PoolThread, leavesTheJobToTheCallerWhenItIsFullAndRefuses)
{
    mOptions.maxPendingJobs = 1;
    mOptions.whenFull = nqPoolOptions::WhenFull::Refuse;
    nqPoolThread pool(mOptions);
    fillWithAHangingJob(pool);
    std::vector<char> job{'e', 'c', 'h', 'o', ' ', 'x'};
    nqJobId id = 7;
    EXPECT_FALSE(pool.submit(std::move(job), {}, &id).valid());
    EXPECT_EQ(job.size(), 6U); // NOLINT(bugprone-use-after-move): it was not moved from
    EXPECT_EQ(id, 7U);
}

TEST_F(PoolThread, hasRoomAgainAsSoonAsAFutureIsReady)
{
    mOptions.maxPendingJobs = 1;
    mOptions.whenFull = nqPoolOptions::WhenFull::Refuse;
    nqPoolThread pool(mOptions);
    for (int job = 0; job < 300; ++job) {
        Future future = pool.submit("echo x");
        ASSERT_TRUE(future.valid());
        EXPECT_EQ(outcomeOf(future).text(), "x");
    }
}

TEST_F(PoolThread, hasTheOutcomesOfAllJobsOnceItIsDrained)
{
    nqPoolThread pool(mOptions);
    const auto futures =
        submitAll(pool, 100, [](std::size_t job) { return job % 10 == 0 ? "crash" : "echo x"; });
    pool.drain();
    for (const Future& future : futures)
        EXPECT_TRUE(isReady(future));
    EXPECT_EQ(pool.statistics().done, 90U);
    EXPECT_EQ(pool.statistics().failed, 10U);
}

TEST_F(PoolThread, isDrainedAtOnceWithoutJobs)
{
    nqPoolThread pool(mOptions);
    pool.drain();
    EXPECT_EQ(pool.statistics().submitted, 0U);
}

TEST_F(PoolThread, drainsWhatIsThereThoughOthersGoOnSubmitting)
{
    nqPoolThread pool(mOptions);
    std::atomic<bool> isOver{false};
    std::thread other([&] {
        while (!isOver) {
            Future future = pool.submit("echo y");
            EXPECT_EQ(outcomeOf(future).text(), "y");
        }
    });
    for (int round = 0; round < 50; ++round) {
        const Future future = pool.submit("echo x");
        pool.drain();
        EXPECT_TRUE(isReady(future));
    }
    isOver = true;
    other.join();
}

TEST_F(PoolThread, handsBackWhatAStopFinds)
{
    nqPoolThread pool(mOptions);
    auto futures =
        submitAll(pool, 10, [](std::size_t job) { return "hang " + std::to_string(job); });
    pool.stop();
    for (std::size_t job = 0; job < futures.size(); ++job) {
        ASSERT_TRUE(isReady(futures[job]));
        const nqOutcome outcome = futures[job].get();
        EXPECT_EQ(outcome.state, State::Cancelled);
        EXPECT_EQ(outcome.reason, Reason::Stopped);
        EXPECT_EQ(outcome.text(), "hang " + std::to_string(job));
        EXPECT_EQ(outcome.id, job + 1);
    }
    EXPECT_EQ(pool.statistics().cancelled, 10U);
    EXPECT_EQ(pool.statistics().alive, 0U);
}

TEST_F(PoolThread, isStoppedBySeveralThreadsAtOnce)
{
    nqPoolThread pool(mOptions);
    fillWithAHangingJob(pool);
    onThreads(4, [&](std::size_t) {
        pool.stop();
        EXPECT_TRUE(isReady(mHanging));
    });
    pool.stop();
}

TEST_F(PoolThread, refusesJobsOnceItIsStopped)
{
    nqPoolThread pool(mOptions);
    pool.stop();
    std::vector<char> job(3, 'x');
    EXPECT_THROW(pool.submit(std::move(job)), nq::nqPoolError);
    EXPECT_EQ(job.size(), 3U); // NOLINT(bugprone-use-after-move): it was not moved from
    pool.cancel(1);
    pool.drain();
}

TEST_F(PoolThread, wakesSubmittersThatWaitForRoomWhenItIsStopped)
{
    mOptions.maxPendingJobs = 1;
    nqPoolThread pool(mOptions);
    fillWithAHangingJob(pool);
    Submitter waiting(pool, "echo x");
    EXPECT_TRUE(waiting.hasToWait());
    pool.stop();
    EXPECT_THROW(waiting.result(), nq::nqPoolError);
}

TEST_F(PoolThread, givesEveryFutureItsOutcomeWhenItIsStoppedWhileOthersSubmit)
{
    for (int round = 0; round < 10; ++round) {
        nqPoolThread pool(mOptions);
        std::atomic<int> accepted{0};
        const auto host = [&] {
            std::vector<Future> futures;
            try {
                for (;;) {
                    futures.push_back(pool.submit("echo x"));
                    ++accepted;
                }
            } catch (const nq::nqPoolError&) {
                pool.stop();
            }
            for (const Future& future : futures)
                EXPECT_TRUE(isReady(future));
        };
        onThreads(4, [&](std::size_t thread) {
            if (thread != 0)
                return host();
            EXPECT_TRUE(becomesTrue([&] { return accepted >= 20 * round; }));
            pool.stop();
        });
    }
}

TEST_F(PoolThread, givesEveryFutureItsOutcomeWhenItIsDestroyed)
{
    std::vector<Future> futures;
    {
        nqPoolThread pool(mOptions);
        futures =
            submitAll(pool, 10, [](std::size_t job) { return job % 2 == 0 ? "hang" : "echo x"; });
    }
    for (Future& future : futures) {
        ASSERT_TRUE(isReady(future));
        const nqOutcome outcome = future.get();
        EXPECT_TRUE(outcome || outcome.reason == Reason::Stopped);
    }
}

TEST_F(PoolThread, tellsTheCallerThatItsOptionsCannotWork)
{
    mOptions.worker = "/nowhere/worker";
    EXPECT_THROW(nqPoolThread{mOptions}, nq::nqPoolError);
}

TEST_F(PoolThread, refusesAnEmptyJobForPlainWorkers)
{
    nqPoolThread pool(mOptions);
    EXPECT_THROW(pool.submit(""), nq::nqPoolError);
    Future future = pool.submit("echo x");
    EXPECT_EQ(outcomeOf(future).id, 1U) << "the refused one has no number";
}

TEST_F(PoolThread, saysWhyNoWorkerCanBeLaunched)
{
    const common::TemporaryFolder folder;
    mOptions.worker = folder.addScript("worker", "exit 3\n");
    nqPoolThread pool(mOptions);
    Future future = pool.submit("echo x");
    const nqOutcome outcome = outcomeOf(future);
    EXPECT_EQ(outcome.reason, Reason::NoWorker);
    pool.drain();
    EXPECT_EQ(pool.problem(), outcome.message);
    EXPECT_NE(pool.problem(), "");
}

TEST_F(PoolThread, hasAllSignalsBlockedInItsThreadAlone)
{
    const std::set<pid_t> before = threads();
    const std::uint64_t ofTheHost = blockedSignals(::getpid());
    nqPoolThread pool(mOptions);
    Future future = pool.submit("signals");
    EXPECT_EQ(outcomeOf(future).text().substr(0, 24), "blocked 0000000000000000");
    EXPECT_EQ(threads().size(), before.size() + 1);
    EXPECT_EQ(blockedSignals(::getpid()), ofTheHost);
    for (const pid_t thread : threads()) {
        if (before.count(thread) == 0) {
            EXPECT_EQ(blockedSignals(thread) & signalsOfOthers, signalsOfOthers);
        }
    }
}

TEST_F(PoolThread, sleepsWhileItHasNothingToDo)
{
    const std::set<pid_t> before = threads();
    nqPoolThread pool(mOptions);
    Future future = pool.submit("echo x");
    outcomeOf(future);
    pool.drain();
    for (const pid_t thread : threads()) {
        if (before.count(thread) == 0) {
            EXPECT_TRUE(becomesTrue([&] { return isAsleep(thread); }));
        }
    }
}

TEST_F(PoolThread, isOnlyDestroyedInAForkedChild)
{
    auto pool = std::make_unique<nqPoolThread>(mOptions);
    fillWithAHangingJob(*pool);
    const pid_t child = ::fork();
    if (child == 0) {
        pool.reset();
        ::_exit(0);
    }
    EXPECT_EQ(common::waitForExitCode(child), 0);
    Future future = pool->submit("echo x");
    EXPECT_EQ(outcomeOf(future).text(), "x");
}

} // namespace
