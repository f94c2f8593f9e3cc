#include "system/nqLog.h"
#include "tests/common/processes.h"
#include "tests/platform/process_helpers.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <thread>

namespace {

using namespace nq::test;
using common::CurrentFolder;
using common::TemporaryFolder;
using nq::nqLog;
using nq::nqProcess;

bool start(nqProcess& process, const std::string& program)
{
    return process.startProcess(program, {}, true, nqProcess::InheritedPriority);
}

/// Starts the worker program while this process may hold so many descriptors only.
bool startWithDescriptors(rlim_t allowed, nqProcess& process)
{
    const common::DescriptorLimit limit;
    return limit.set(allowed) && start(process, workerProgram);
}

/// Keeps the last message.
class OneLineLog : public nqLog {
public:
    OneLineLog()
    {
        msInstance = this;
    }

    void Write(LogEntry& entry, bool /*flush*/) override
    {
        mMessage = entry.mMessage;
    }

    std::string mMessage;
};

class ProcessLaunch : public ProcessTest {
protected:
    void expectRefused(const std::string& program)
    {
        nqProcess process;
        EXPECT_FALSE(start(process, program));
        EXPECT_EQ(process.getState(), nqProcess::NotStarted);
        EXPECT_EQ(process.getPid(), 0);
        EXPECT_EQ(process.getCurrentRamInUse(), 0U);
        EXPECT_FALSE(process.setWorkingSetMaxSize(1 << 20));
        EXPECT_TRUE(process.waitForFinished(withoutLimit));
        process.killProcess();
    }

    TemporaryFolder mFolder;
};

TEST_F(ProcessLaunch, runsTheProgramWithItsArguments)
{
    OutputPipe output;
    nqProcess process;
    ASSERT_TRUE(output.during([&] {
        return process.startProcess(
            workerProgram, {"answer", "", "two words"}, false, nqProcess::InheritedPriority);
    }));
    EXPECT_EQ(output.readLine(), "ready");
    EXPECT_EQ(process.getState(), nqProcess::Running);
    const std::string expected = workerProgram + '\0' + "answer" + '\0' + '\0' + "two words" + '\0';
    EXPECT_EQ(procFile(static_cast<pid_t>(process.getPid()), "cmdline"), expected);
}

TEST_F(ProcessLaunch, isRefusedForAMissingProgram)
{
    expectRefused(mFolder.file("missing"));
}

TEST_F(ProcessLaunch, isRefusedForAnEmptyPath)
{
    expectRefused("");
}

TEST_F(ProcessLaunch, isRefusedForADirectory)
{
    expectRefused(mFolder.path());
}

TEST_F(ProcessLaunch, isRefusedForAFileThatIsNotExecutable)
{
    expectRefused(mFolder.addFile("program", "#!/bin/sh\n", 0644));
}

TEST_F(ProcessLaunch, isRefusedForATextThatNamesNoInterpreter)
{
    expectRefused(mFolder.addFile("program", "echo never\n", 0755));
}

TEST_F(ProcessLaunch, isRefusedForAScriptWhoseInterpreterIsMissing)
{
    if (runsUnderValgrind())
        GTEST_SKIP() << "an exec that fails that late is fatal here";
    expectRefused(mFolder.addFile("program", "#!" + mFolder.file("missing") + "\n", 0755));
}

TEST_F(ProcessLaunch, isRefusedForATextThatTheKernelWouldCutShort)
{
    const std::string cut = workerProgram + '\0' + "more";
    expectRefused(cut);
    nqProcess process;
    EXPECT_FALSE(process.startProcess(workerProgram, {cut}, true, nqProcess::InheritedPriority));
}

TEST_F(ProcessLaunch, isRefusedForAMissingWorkingDirectory)
{
    nqProcess process;
    process.setWorkingDirectory(mFolder.file("missing"));
    EXPECT_FALSE(start(process, workerProgram));
    EXPECT_EQ(process.getState(), nqProcess::NotStarted);
}

TEST_F(ProcessLaunch, isRefusedWhenTheHostHasNoDescriptorsLeft)
{
    // A sanitizer that meets a class for the first time needs descriptors itself, also when a line
    // of the log is written.
    nqProcess missing;
    EXPECT_FALSE(start(missing, "/missing"));
    // However many are free: none, one for a part of what a launch needs, or just enough.
    for (rlim_t allowed = 3; allowed < 20; ++allowed) {
        nqProcess process; // made before, for the same reason
        const bool started = startWithDescriptors(allowed, process);
        EXPECT_EQ(process.getState() != nqProcess::NotStarted, started);
        if (allowed == 3) {
            EXPECT_FALSE(started);
        }
    }
}

TEST_F(ProcessLaunch, saysThatNoDescriptorsAreLeft)
{
    OneLineLog log;
    nqProcess missing; // for a sanitizer, as above
    EXPECT_FALSE(start(missing, "/missing"));
    nqProcess process;
    EXPECT_FALSE(startWithDescriptors(3, process));
    EXPECT_EQ(
        log.mMessage, "Cannot prepare the start of " + workerProgram + ": Too many open files");
}

TEST_F(ProcessLaunch, saysWhatHasFailedInTheChild)
{
    OneLineLog log;
    nqProcess process;
    process.setWorkingDirectory("/missing");
    EXPECT_FALSE(start(process, workerProgram));
    EXPECT_EQ(
        log.mMessage,
        "Cannot start " + workerProgram +
            ": its working directory /missing cannot be entered: No such file or directory");
}

TEST_F(ProcessLaunch, happensOncePerObject)
{
    nqProcess process;
    ASSERT_TRUE(start(process, workerProgram));
    const std::int64_t pid = process.getPid();
    EXPECT_FALSE(start(process, workerProgram));
    EXPECT_EQ(process.getPid(), pid);
    EXPECT_TRUE(process.waitForFinished(withoutLimit));
    EXPECT_FALSE(start(process, workerProgram));

    nqProcess refused;
    EXPECT_FALSE(start(refused, mFolder.file("missing")));
    EXPECT_FALSE(start(refused, workerProgram));
    EXPECT_EQ(refused.getState(), nqProcess::NotStarted);
}

TEST_F(ProcessLaunch, countsARelativePathFromTheDirectoryOfTheHost)
{
    std::filesystem::create_symlink(workerProgram, mFolder.file("worker"));
    std::filesystem::create_directory(mFolder.file("elsewhere"));
    const CurrentFolder here(mFolder.path());
    OutputPipe output;
    nqProcess process;
    process.setWorkingDirectory(mFolder.file("elsewhere"));
    ASSERT_TRUE(output.during([&] {
        return process.startProcess("./worker", {"answer"}, false, nqProcess::InheritedPriority);
    }));
    EXPECT_EQ(output.readLine(), "ready");
    const auto pid = static_cast<pid_t>(process.getPid());
    EXPECT_EQ(procLink(pid, "cwd"), std::filesystem::canonical(mFolder.file("elsewhere")));
    const std::string arguments = procFile(pid, "cmdline");
    EXPECT_EQ(arguments.substr(0, arguments.find('\0')), "./worker");
}

TEST_F(ProcessLaunch, startsInTheDirectoryOfTheHostUnlessToldOtherwise)
{
    const CurrentFolder here(mFolder.path());
    OutputPipe output;
    nqProcess process;
    ASSERT_TRUE(startWorker(process, output, "answer"));
    EXPECT_EQ(output.readLine(), "ready");
    EXPECT_EQ(
        procLink(static_cast<pid_t>(process.getPid()), "cwd"),
        std::filesystem::canonical(mFolder.path()));
}

TEST_F(ProcessLaunch, doesNotSearchThePath)
{
    const CurrentFolder here(mFolder.path());
    expectRefused("sh");
}

TEST_F(ProcessLaunch, runsAProgramOfThatNameInTheCurrentDirectory)
{
    std::filesystem::create_symlink(workerProgram, mFolder.file("sh"));
    const CurrentFolder here(mFolder.path());
    nqProcess process;
    ASSERT_TRUE(process.startProcess("sh", {"rest"}, true, nqProcess::InheritedPriority));
    EXPECT_EQ(
        procLink(static_cast<pid_t>(process.getPid()), "exe"),
        std::filesystem::canonical(workerProgram));
}

TEST_F(ProcessLaunch, passesTheEnvironmentOn)
{
    if (runsUnderValgrind())
        GTEST_SKIP() << "takes its own entry out of the environment of children";
    ::setenv("NQ_PROCESS_TEST", "a value=with \xC3\xA9", 1);
    std::string expected;
    for (char** entry = environ; *entry != nullptr; ++entry)
        expected += std::string(*entry) + '\0';
    OutputPipe output;
    nqProcess process;
    ASSERT_TRUE(startWorker(process, output, "answer"));
    EXPECT_EQ(output.readLine(), "ready");
    EXPECT_EQ(procFile(static_cast<pid_t>(process.getPid()), "environ"), expected);
    ::unsetenv("NQ_PROCESS_TEST");
}

TEST_F(ProcessLaunch, clearsSignalMaskAndDispositions)
{
    sigset_t all;
    sigset_t maskBefore;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, &maskBefore);
    std::map<int, struct sigaction> before;
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    for (int signal = 1; signal <= SIGRTMAX; ++signal) {
        struct sigaction old {};
        if (::sigaction(signal, &ignore, &old) == 0)
            before[signal] = old;
    }
    OutputPipe output;
    nqProcess process;
    const bool started = startWorker(process, output, "rest");
    const std::string ready = output.readLine();
    for (const auto& [signal, action] : before)
        ::sigaction(signal, &action, nullptr);
    ::pthread_sigmask(SIG_SETMASK, &maskBefore, nullptr);

    ASSERT_TRUE(started);
    EXPECT_EQ(ready, "ready");
    const auto pid = static_cast<pid_t>(process.getPid());
    EXPECT_EQ(statusLine(pid, "SigIgn"), "0000000000000000");
    EXPECT_EQ(statusLine(pid, "SigBlk"), "0000000000000000");
}

TEST_F(ProcessLaunch, leavesMaskAndDispositionsOfTheHostAlone)
{
    sigset_t blocked;
    sigset_t before;
    ::sigemptyset(&blocked);
    ::sigaddset(&blocked, SIGUSR2);
    ::pthread_sigmask(SIG_BLOCK, &blocked, &before);
    const std::string signals = statusLine(::getpid(), "SigBlk") +
                                statusLine(::getpid(), "SigIgn") + statusLine(::getpid(), "SigCgt");
    {
        nqProcess process;
        nqProcess refused;
        EXPECT_TRUE(start(process, workerProgram));
        EXPECT_FALSE(start(refused, mFolder.file("missing")));
    }
    const std::string after = statusLine(::getpid(), "SigBlk") + statusLine(::getpid(), "SigIgn") +
                              statusLine(::getpid(), "SigCgt");
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    EXPECT_EQ(after, signals);
}

TEST_F(ProcessLaunch, passesNoDescriptorOnBeyondTheStandardStreams)
{
    const int leaking = ::open("/dev/null", O_RDONLY);
    const int high = ::fcntl(leaking, F_DUPFD, 700);
    OutputPipe output;
    nqProcess other;
    nqProcess process;
    ASSERT_TRUE(startWorker(other, output, "answer"));
    EXPECT_EQ(output.readLine(), "ready");
    ASSERT_TRUE(startWorker(process, output, "answer"));
    EXPECT_EQ(output.readLine(), "ready");
    const auto held = common::openDescriptors(static_cast<pid_t>(process.getPid()));
    EXPECT_EQ(held.size(), 3U);
    EXPECT_EQ(held.rbegin()->first, 2);
    EXPECT_EQ(::fcntl(leaking, F_GETFD), 0) << "the host's own descriptor must stay as it was";
    ::close(high);
    ::close(leaking);
}

TEST_F(ProcessLaunch, givesANullStandardInput)
{
    OutputPipe output;
    nqProcess process;
    ASSERT_TRUE(startWorker(process, output, "answer"));
    EXPECT_EQ(output.readLine(), "ready");
    EXPECT_EQ(common::openDescriptors(static_cast<pid_t>(process.getPid())).at(0), "/dev/null");
}

TEST_F(ProcessLaunch, letsOutputThroughUnlessSilenced)
{
    OutputPipe output;
    OutputPipe errors;
    nqProcess process;
    ASSERT_TRUE(output.during([&] {
        return errors.during(
            [&] {
                return process.startProcess(
                    workerProgram, {"speak-on-both"}, false, nqProcess::InheritedPriority);
            },
            STDERR_FILENO);
    }));
    EXPECT_EQ(output.readLine(), "on output");
    EXPECT_EQ(errors.readLine(), "on error");
}

TEST_F(ProcessLaunch, silencesOutputWhenTold)
{
    OutputPipe output;
    nqProcess process;
    const auto startSilent = [&] {
        return process.startProcess(
            workerProgram, {"speak-on-both"}, true, nqProcess::InheritedPriority);
    };
    ASSERT_TRUE(output.during([&] { return output.during(startSilent, STDERR_FILENO); }));
    EXPECT_TRUE(process.waitForFinished(withoutLimit));
    output.closeWriter();
    EXPECT_EQ(output.readLine(), "");
}

TEST_F(ProcessLaunch, pointsStreamsThatTheHostHasClosedAtTheNullDevice)
{
    int saved[3];
    for (int stream = 0; stream < 3; ++stream) {
        saved[stream] = ::fcntl(stream, F_DUPFD_CLOEXEC, 3);
        ::close(stream);
    }
    nqProcess process;
    const bool started =
        process.startProcess(workerProgram, {"allocate"}, false, nqProcess::InheritedPriority);
    const auto ofHost = common::openDescriptors();
    for (int stream = 0; stream < 3; ++stream) {
        ::dup2(saved[stream], stream);
        ::close(saved[stream]);
    }
    ASSERT_TRUE(started);
    auto held = common::openDescriptors(static_cast<pid_t>(process.getPid()));
    for (int stream = 0; stream < 3; ++stream) {
        EXPECT_EQ(held[stream], "/dev/null");
        EXPECT_EQ(ofHost.count(stream), 0U) << "nothing of the host's may land there";
    }
}

TEST_F(ProcessLaunch, pointsAStreamWhoseNumberAFileOfTheHostHasTakenAtTheNullDevice)
{
    for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) {
        OutputPipe file;
        nqProcess process;
        const auto start = [&] {
            ::fcntl(stream, F_SETFD, FD_CLOEXEC);
            return process.startProcess(
                workerProgram, {"allocate"}, false, nqProcess::InheritedPriority);
        };
        ASSERT_TRUE(file.during(start, stream));
        EXPECT_EQ(
            common::openDescriptors(static_cast<pid_t>(process.getPid()))[stream], "/dev/null");
    }
}

TEST_F(ProcessLaunch, leavesTheRangeOfSelectToTheHost)
{
    constexpr rlim_t more = FD_SETSIZE + 64;
    const common::DescriptorLimit limit;
    if (!limit.set(more))
        GTEST_SKIP() << "the hard limit of descriptors is below " << more;
    const auto descriptorsBefore = common::openDescriptors();
    nqProcess process;
    EXPECT_TRUE(
        process.startProcess(workerProgram, {"allocate"}, true, nqProcess::InheritedPriority));
    EXPECT_GT(process.getCurrentRamInUse(), 0U);
    auto added = common::openDescriptors();
    for (const auto& known : descriptorsBefore)
        added.erase(known.first);
    EXPECT_FALSE(added.empty());
    for (const auto& [number, target] : added)
        EXPECT_GE(number, FD_SETSIZE) << target;
}

TEST_F(ProcessLaunch, makesTheChildTheLeaderOfASessionAndAGroupOfItsOwn)
{
    nqProcess process;
    ASSERT_TRUE(
        process.startProcess(workerProgram, {"allocate"}, true, nqProcess::InheritedPriority));
    const auto pid = static_cast<pid_t>(process.getPid());
    EXPECT_EQ(::getpgid(pid), pid);
    EXPECT_EQ(::getsid(pid), pid);
}

TEST_F(ProcessLaunch, lowersThePriorityAsAsked)
{
    const int own = ::getpriority(PRIO_PROCESS, 0);
    const std::map<nqProcess::ProcessPriority, int> expected{
        {nqProcess::InheritedPriority, own},
        {nqProcess::LowPriority, std::max(own, 10)},
        {nqProcess::IdlePriority, 19}};
    for (const auto& [priority, niceness] : expected) {
        nqProcess process;
        ASSERT_TRUE(process.startProcess(workerProgram, {"allocate"}, true, priority));
        EXPECT_EQ(::getpriority(PRIO_PROCESS, static_cast<id_t>(process.getPid())), niceness);
    }
    EXPECT_EQ(::getpriority(PRIO_PROCESS, 0), own);
}

TEST_F(ProcessLaunch, raisesNoPriorityOfAHostThatIsNicer)
{
    constexpr int nicer = 15;
    common::Child host([] {
        ::setpriority(PRIO_PROCESS, 0, nicer);
        nqProcess process;
        const bool started =
            process.startProcess(workerProgram, {"rest"}, true, nqProcess::LowPriority);
        const auto pid = static_cast<id_t>(process.getPid());
        return started && ::getpriority(PRIO_PROCESS, pid) == nicer ? 0 : 1;
    });
    EXPECT_EQ(host.wait(), 0);
}

TEST_F(ProcessLaunch, copiesNoMemoryOfTheHost)
{
    if (vforkIsAFork())
        GTEST_SKIP() << "vfork is a fork here";
    constexpr std::size_t pages = 16'384;
    const auto pageBytes = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    const std::size_t bytes = pages * pageBytes;
    void* mapping =
        ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(mapping, MAP_FAILED);
    ::madvise(mapping, bytes, MADV_NOHUGEPAGE);
    auto* memory = static_cast<volatile char*>(mapping);
    const auto touchAll = [&] {
        for (std::size_t page = 0; page < pages; ++page)
            memory[page * pageBytes] = 1;
    };
    touchAll();
    nqProcess process;
    ASSERT_TRUE(start(process, workerProgram));
    rusage before{};
    rusage after{};
    ::getrusage(RUSAGE_SELF, &before);
    touchAll(); // after a fork, each page would fault once to be copied
    ::getrusage(RUSAGE_SELF, &after);
    EXPECT_LT(after.ru_minflt - before.ru_minflt, static_cast<long>(pages / 10));
    ::munmap(mapping, bytes);
}

TEST_F(ProcessLaunch, worksOnManyThreadsAtOnce)
{
    constexpr int threadCount = 8;
    constexpr int launchesPerThread = 6;
    std::atomic<int> ended{0};
    std::atomic<int> refused{0};
    const auto launch = [&] {
        for (int count = 0; count < launchesPerThread; ++count) {
            nqProcess process;
            nqProcess missing;
            if (start(process, workerProgram) && process.waitForFinished(withoutLimit))
                ++ended;
            if (!start(missing, mFolder.file("missing")))
                ++refused;
        }
    };
    std::vector<std::thread> threads;
    threads.reserve(threadCount);
    for (int count = 0; count < threadCount; ++count)
        threads.emplace_back(launch);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(ended, launchesPerThread * threadCount);
    EXPECT_EQ(refused, launchesPerThread * threadCount);
}

TEST_F(ProcessLaunch, doesNotTieTheChildToTheLaunchingThread)
{
    OutputPipe output;
    nqProcess process;
    std::thread([&] { EXPECT_TRUE(startWorker(process, output, "answer")); }).join();
    EXPECT_EQ(output.readLine(), "ready");
    ::kill(static_cast<pid_t>(process.getPid()), SIGUSR1);
    EXPECT_EQ(output.readLine(), "pong");
    EXPECT_EQ(process.getState(), nqProcess::Running);
}

TEST_F(ProcessLaunch, measuresNoMemoryThatIsNotResident)
{
    OutputPipe output;
    nqProcess process;
    ASSERT_TRUE(startWorker(process, output, "allocate-without-touch"));
    EXPECT_EQ(output.readLine(), "ready");
    EXPECT_GT(process.getCurrentRamInUse(), 0U);
    EXPECT_LT(process.getCurrentRamInUse(), std::uint64_t{512} << 20);
}

TEST_F(ProcessLaunch, measuresMemoryUntilTheEnd)
{
    constexpr std::uint64_t growth = std::uint64_t{64} << 20;
    OutputPipe output;
    nqProcess process;
    EXPECT_EQ(process.getCurrentRamInUse(), 0U);
    ASSERT_TRUE(startWorker(process, output, "allocate"));
    EXPECT_EQ(output.readLine(), "ready");
    const std::uint64_t before = process.getCurrentRamInUse();
    EXPECT_GT(before, 0U);
    EXPECT_LT(before, growth);
    ::kill(static_cast<pid_t>(process.getPid()), SIGUSR1);
    EXPECT_EQ(output.readLine(), "grown");
    EXPECT_GE(process.getCurrentRamInUse(), before + growth);

    process.killProcess();
    waitWithoutReaping(process.getPid());
    EXPECT_EQ(process.getCurrentRamInUse(), 0U) << "ended, not yet reaped";
    EXPECT_TRUE(process.waitForFinished(withoutLimit));
    EXPECT_EQ(process.getCurrentRamInUse(), 0U);
}

TEST_F(ProcessLaunch, makesAllocationsFailBeyondTheWorkingSetLimit)
{
    OutputPipe output;
    nqProcess process;
    EXPECT_FALSE(process.setWorkingSetMaxSize(1 << 20)) << "not started yet";
    ASSERT_TRUE(startWorker(process, output, "allocate"));
    EXPECT_EQ(output.readLine(), "ready");
    EXPECT_TRUE(process.setWorkingSetMaxSize(1 << 20));
    ::kill(static_cast<pid_t>(process.getPid()), SIGUSR1);
    EXPECT_EQ(output.readLine(), "refused");
    EXPECT_EQ(process.getState(), nqProcess::Running);

    EXPECT_TRUE(process.setWorkingSetMaxSize(~std::uint64_t{0})) << "the hard limit was kept";
    ::kill(static_cast<pid_t>(process.getPid()), SIGUSR1);
    EXPECT_EQ(output.readLine(), "grown");

    process.killProcess();
    EXPECT_TRUE(process.waitForFinished(withoutLimit));
    EXPECT_FALSE(process.setWorkingSetMaxSize(1 << 20)) << "ended";
}

TEST_F(ProcessLaunch, neverLimitsTheWorkingSetBeyondTheHardLimit)
{
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_DATA, &before), 0);
    OutputPipe output;
    nqProcess process;
    ASSERT_TRUE(startWorker(process, output, "allocate"));
    EXPECT_EQ(output.readLine(), "ready");
    const auto pid = static_cast<pid_t>(process.getPid());
    const rlimit hard{rlim_t{1} << 40, rlim_t{1} << 41};
    ASSERT_EQ(::prlimit(pid, RLIMIT_DATA, &hard, nullptr), 0);
    EXPECT_TRUE(process.setWorkingSetMaxSize(std::uint64_t{1} << 50));
    rlimit now{};
    ASSERT_EQ(::prlimit(pid, RLIMIT_DATA, nullptr, &now), 0);
    EXPECT_EQ(now.rlim_cur, hard.rlim_max);
    EXPECT_EQ(now.rlim_max, hard.rlim_max);
}

} // namespace
