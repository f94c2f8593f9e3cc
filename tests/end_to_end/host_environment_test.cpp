#include "fixture.h"
#include "tests/common/signalStorm.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <locale>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

using common::SignalStorm;
using end_to_end::EndToEnd;
using end_to_end::Pool;
using end_to_end::ProcessWatch;

class HostEnvironment : public EndToEnd {};

/// Another disposition of one signal until the end of the scope.
class SignalDisposition {
public:
    SignalDisposition(int signal, void (*handler)(int))
        : mSignal(signal)
    {
        struct sigaction action {};
        action.sa_handler = handler;
        sigaction(mSignal, &action, &mBefore);
    }
    ~SignalDisposition()
    {
        sigaction(mSignal, &mBefore, nullptr);
    }
    SignalDisposition(const SignalDisposition&) = delete;
    SignalDisposition& operator=(const SignalDisposition&) = delete;

private:
    int mSignal;
    struct sigaction mBefore {};
};

void reapEverything(int)
{
    const int before = errno;
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    errno = before;
}

/// Jobs of every kind, a stop and a further start; what any host expects to work.
void expectServiceOfEveryKind()
{
    Pool pool;
    ASSERT_TRUE(pool.start(2));
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(pool.ask("echo " + std::string(300'000, 'e')), std::string(300'000, 'e'));
        EXPECT_EQ(pool.ask("crash"), "(Unexpected crash)");
        const ProcessWatch answered(std::stoi(pool.ask("answer-and-die")));
        EXPECT_TRUE(answered.endsWithin(end_to_end::generousLimit)); // else it may get a job more
        EXPECT_EQ(pool.ask("echo next"), "next");
    }
    ASSERT_TRUE(pool.scheduler().stopScheduler());
    ASSERT_TRUE(pool.start(1));
    EXPECT_EQ(pool.ask("echo again"), "again");
    ASSERT_TRUE(pool.scheduler().stopScheduler());
    EXPECT_EQ(pool.failures().size(), 3U);
}

TEST_F(HostEnvironment, twoSchedulersOfOneHostDoNotMix)
{
    Pool one;
    Pool other;
    ASSERT_TRUE(one.start(2));
    ASSERT_TRUE(other.start(2));
    for (int id = 0; id < 50; ++id) {
        one.push("echo one");
        other.push("echo other");
    }
    one.push("crash");
    const auto deadline = std::chrono::steady_clock::now() + end_to_end::generousLimit;
    while (one.answers().size() + one.failures().size() < 51 || other.answers().size() < 50) {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline);
        one.pump(1);
        other.pump(1);
    }
    EXPECT_EQ(one.answers(), std::vector<std::string>(50, "one"));
    EXPECT_EQ(other.answers(), std::vector<std::string>(50, "other"));
    EXPECT_TRUE(other.failures().empty());
}

TEST_F(HostEnvironment, schedulersOnSeveralThreadsDoNotDisturbEachOther)
{
    std::vector<std::thread> threads;
    threads.reserve(3);
    for (int thread = 0; thread < 3; ++thread) {
        threads.emplace_back([] {
            for (int round = 0; round < 3; ++round)
                expectServiceOfEveryKind();
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

TEST_F(HostEnvironment, aHostMayIgnoreTheEndOfItsChildren)
{
    const SignalDisposition ignored(SIGCHLD, SIG_IGN);
    expectServiceOfEveryKind();
}

TEST_F(HostEnvironment, aHostMayReapEveryChildItself)
{
    const SignalDisposition reaping(SIGCHLD, reapEverything);
    expectServiceOfEveryKind();
}

TEST_F(HostEnvironment, theOtherChildrenOfTheHostStayItsOwn)
{
    common::Child own([] { return 7; });
    expectServiceOfEveryKind();
    EXPECT_EQ(own.wait(), 7);
}

TEST_F(HostEnvironment, aForkedChildThatDestroysItsCopyOfASchedulerDisturbsNobody)
{
    std::optional<Pool> pool(std::in_place);
    ASSERT_TRUE(pool->start(2));
    pool->push("echo pending");
    common::Child child([&] {
        pool->scheduler().processScheduler(0);
        pool.reset(); // would have to answer the job first
        return 0;
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_TRUE(pool->collect(1));
    EXPECT_EQ(pool->answers(), std::vector<std::string>{"pending"});
    EXPECT_TRUE(pool->scheduler().stopScheduler());
    EXPECT_TRUE(pool->start(2)) << "nobody else holds the name";
    EXPECT_TRUE(mLog.messages().empty());
}

TEST_F(HostEnvironment, theSignalDispositionsOfTheHostStayAsTheyAre)
{
    const auto dispositions = [] {
        std::vector<void (*)(int)> handlers;
        for (int signal = 1; signal < NSIG; ++signal) {
            struct sigaction action {};
            sigaction(signal, nullptr, &action);
            handlers.push_back(action.sa_handler);
        }
        return handlers;
    };
    const auto before = dispositions();
    expectServiceOfEveryKind();
    EXPECT_EQ(dispositions(), before);
}

TEST_F(HostEnvironment, aWorkerStartsWithoutTheSignalSettingsOfTheHost)
{
    const SignalDisposition ignored(SIGTERM, SIG_IGN);
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGINT);
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    {
        Pool pool;
        ASSERT_TRUE(pool.start(1));
        EXPECT_EQ(pool.ask("signals"), "blocked 0000000000000000 ignored 0000000000000000");
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(HostEnvironment, aSignalEachMillisecondDisturbsNothing)
{
    const auto before = SignalStorm::handled();
    const SignalStorm storm;
    expectServiceOfEveryKind();
    EXPECT_GT(SignalStorm::handled(), before);
}

TEST_F(HostEnvironment, aSignalEachMillisecondDoesNotLengthenALaunch)
{
    const SignalStorm storm;
    const auto before = std::chrono::steady_clock::now();
    Pool pool({"--never-connect"});
    EXPECT_FALSE(pool.scheduler().startScheduler(1, 200));
    const auto taken = std::chrono::steady_clock::now() - before;
    EXPECT_GE(taken, std::chrono::milliseconds{200});
    EXPECT_LT(taken, std::chrono::seconds{10});
}

/// Digits in groups of three, as many a host wants them.
class Grouping : public std::numpunct<char> {
protected:
    char do_thousands_sep() const override
    {
        return '.';
    }
    char do_decimal_point() const override
    {
        return ',';
    }
    std::string do_grouping() const override
    {
        return "\3";
    }
};

/// Groups the digits of everything that is streamed until the end of the scope.
class GroupingLocale {
public:
    GroupingLocale()
        : mBefore(std::locale::global(std::locale(std::locale::classic(), new Grouping)))
    {
    }
    ~GroupingLocale()
    {
        std::locale::global(mBefore);
    }
    GroupingLocale(const GroupingLocale&) = delete;
    GroupingLocale& operator=(const GroupingLocale&) = delete;

private:
    std::locale mBefore;
};

TEST_F(HostEnvironment, aGroupingLocaleLeavesTheTextsExact)
{
    const GroupingLocale grouping;
    Pool pool;
    pool.scheduler().setMaxCapMemoryAfterProcessingAJob(1); // every worker uses more
    EXPECT_FALSE(pool.start(1234567));
    ASSERT_TRUE(pool.start(1));
    const std::string pid = pool.ask("pid");
    const std::vector<std::string> messages = mLog.messages();
    ASSERT_EQ(messages.size(), 2U);
    EXPECT_EQ(messages[0], "Too many workers (1234567), limit to ideal thread count");
    EXPECT_NE(messages[1].find("(PID " + pid + ")"), std::string::npos) << messages[1];
    const std::string use = messages[1].substr(0, messages[1].find("B)"));
    EXPECT_EQ(use.find(','), std::string::npos) << use;
}

TEST_F(HostEnvironment, aGroupingLocaleLeavesTheReportOfAFailureExact)
{
    const GroupingLocale grouping;
    Pool pool;
    ASSERT_TRUE(pool.start(1));
    const std::string pid = pool.ask("pid");
    pool.ask("crash");
    EXPECT_EQ(
        mLog.messages(),
        std::vector<std::string>{"Job failed error (1) Unexpected crash (PID " + pid + ")"});
}

TEST_F(HostEnvironment, aGroupingLocaleLeavesTheReportOfALaunchExact)
{
    const GroupingLocale grouping;
    Pool pool({"--never-connect"});
    std::vector<pid_t> launched;
    mLog.onMessage = [&](const std::string&) { launched = end_to_end::children(); };
    EXPECT_FALSE(pool.scheduler().startScheduler(1, 50));
    ASSERT_EQ(launched.size(), 1U);
    EXPECT_NE(
        mLog.messages().at(0).find("(pid " + std::to_string(launched[0]) + ")"), std::string::npos);
}

/// Holds every descriptor number below `count` until the end of the scope, as far as it was free.
class ManyDescriptors {
public:
    explicit ManyDescriptors(int count)
    {
        getrlimit(RLIMIT_NOFILE, &mBefore);
        rlimit raised = mBefore;
        raised.rlim_cur = std::min<rlim_t>(raised.rlim_max, 4096);
        if (setrlimit(RLIMIT_NOFILE, &raised) != 0)
            return;
        for (int fd = open("/dev/null", O_RDONLY | O_CLOEXEC); fd != -1;
             fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) {
            mHeld.push_back(fd);
            if (fd >= count)
                break;
        }
    }
    ~ManyDescriptors()
    {
        for (const int fd : mHeld)
            close(fd);
        setrlimit(RLIMIT_NOFILE, &mBefore);
    }
    ManyDescriptors(const ManyDescriptors&) = delete;
    ManyDescriptors& operator=(const ManyDescriptors&) = delete;

    int highest() const
    {
        return mHeld.empty() ? -1 : mHeld.back();
    }

    void release(std::size_t count)
    {
        for (std::size_t i = 0; i < count; ++i) {
            close(mHeld.front());
            mHeld.erase(mHeld.begin());
        }
    }

private:
    rlimit mBefore{};
    std::vector<int> mHeld;
};

TEST_F(HostEnvironment, moreThanAThousandOpenDescriptorsAreNoObstacle)
{
    ManyDescriptors many(1200);
    if (many.highest() < 1200)
        GTEST_SKIP() << "this machine allows too few descriptors";
    expectServiceOfEveryKind();
}

TEST_F(HostEnvironment, aLowDescriptorNumberThatIsFreeIsUsedForWaiting)
{
    ManyDescriptors many(1200);
    if (many.highest() < 1200)
        GTEST_SKIP() << "this machine allows too few descriptors";
    Pool pool;
    pool.scheduler().setJobProcessTimeout(1);
    ASSERT_TRUE(pool.start(1));
    many.release(20); // the next worker's socket is accepted with low numbers free
    EXPECT_EQ(pool.ask("crash"), "(Unexpected crash)");
    pool.push("hang");
    pool.pump(0); // hands out the job
    const auto before = std::chrono::steady_clock::now();
    pool.pump(100);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds{90});
    EXPECT_TRUE(pool.collect(2));
}

/// What this process and its workers have used of the processors, in user mode and in the kernel.
std::chrono::nanoseconds processorTime()
{
    std::chrono::nanoseconds used{0};
    auto processes = end_to_end::children();
    processes.push_back(getpid());
    for (const pid_t process : processes) {
        clockid_t clock{};
        timespec time{};
        EXPECT_EQ(clock_getcpuclockid(process, &clock), 0);
        EXPECT_EQ(clock_gettime(clock, &time), 0);
        used += std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
    }
    return used;
}

TEST_F(HostEnvironment, aPoolIsIdleWithoutBurningAProcessor)
{
    Pool pool;
    ASSERT_TRUE(pool.start(2));
    const auto before = processorTime();
    for (int pass = 0; pass < 10; ++pass)
        pool.pump(50); // nothing to do: ten waits of their full time
    EXPECT_LT(processorTime() - before, std::chrono::milliseconds{250});
}

} // namespace
