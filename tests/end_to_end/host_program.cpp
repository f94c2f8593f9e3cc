// A host of its own process, for what a test cannot do to itself: to be killed, to run without
// standard streams, to leave a scheduler behind. Its first argument names the scenario.

#include "machine.h"
#include "nqLog.h"
#include "pool.h"

#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using end_to_end::workerPath;
using Arguments = std::vector<std::string>;

constexpr int connectionLimitMs = 30'000;
constexpr int refusedByTheMachine = 77; // what a test skips

// Reachable to the end; volatile, since nobody reads it and it must be written all the same.
nq::nqScheduler* volatile leftBehind = nullptr;

/// Unlike Pool, with the workers' output let through, and never destroyed: how a host leaves
/// without a word is what the scenarios are about. At most one for each run.
class TalkingPool {
public:
    explicit TalkingPool(bool silent)
        : mScheduler(*new nq::nqScheduler(workerPath(), silent, {}, true))
    {
        leftBehind = &mScheduler;
    }

    bool start(unsigned long nbWorkers)
    {
        return mScheduler.startScheduler(nbWorkers, connectionLimitMs);
    }

    nq::nqScheduler& scheduler()
    {
        return mScheduler;
    }

    void push(const std::string& job)
    {
        mScheduler.push(std::vector<char>(job.begin(), job.end()));
    }

    /// The next answer or failure, whenever it comes.
    std::string next()
    {
        std::vector<char> bytes;
        nq::nqScheduler::FailReason reason{};
        std::string message;
        for (;;) {
            if (mScheduler.pop(bytes))
                return {bytes.begin(), bytes.end()};
            if (mScheduler.popFail(bytes, reason, message))
                return '(' + message + ')';
            mScheduler.processScheduler(50);
        }
    }

    std::string ask(const std::string& job)
    {
        push(job);
        return next();
    }

private:
    nq::nqScheduler& mScheduler;
};

void say(const std::string& line)
{
    std::cout << line << std::endl;
}

int failed(const std::string& what)
{
    std::cerr << what << std::endl;
    return EXIT_FAILURE;
}

/// serve WORKERS JOB...: tells every answer until somebody ends it.
int serve(const Arguments& arguments)
{
    TalkingPool pool(false);
    if (!pool.start(std::stoul(arguments.at(0))))
        return failed("no start");
    for (auto job = arguments.begin() + 1; job != arguments.end(); ++job)
        pool.push(*job);
    for (;;)
        say("answer: " + pool.next());
}

/// print loud|silent TEXT: lets one worker print.
int print(const Arguments& arguments)
{
    nq::nqScheduler scheduler(workerPath(), arguments.at(0) == "silent", {}, true);
    const std::string job = "print " + arguments.at(1);
    if (!scheduler.startScheduler(1, connectionLimitMs))
        return failed("no start");
    scheduler.push({job.begin(), job.end()});
    scheduler.waitForFinished();
    std::vector<char> answer;
    const bool isAnswered =
        scheduler.pop(answer) && std::string(answer.begin(), answer.end()) == "printed";
    return isAnswered ? EXIT_SUCCESS : failed("no answer");
}

/// closed-streams DIGITS: works without those standard streams.
int closedStreams(const Arguments& arguments)
{
    for (const char digit : arguments.at(0))
        close(digit - '0');

    TalkingPool pool(false);
    if (!pool.start(2))
        return 2;
    // What the workers and, in the report of a crash, this host print must not reach any pipe.
    for (int round = 0; round < 5; ++round) {
        if (pool.ask("print hello") != "printed" || pool.ask("crash") != "(Unexpected crash)")
            return 3;
        const std::string text = "round " + std::to_string(round);
        if (pool.ask("echo " + text) != text)
            return 4;
    }
    for (const char digit : arguments.at(0))
        if (fcntl(digit - '0', F_GETFD) != -1)
            return 5;
    return pool.scheduler().stopScheduler() ? EXIT_SUCCESS : 6;
}

/// private-output FILE: runs without standard streams, and a file of its own has taken the number
/// of standard output.
int privateOutput(const Arguments& arguments)
{
    for (int stream = 0; stream < 3; ++stream)
        close(stream);
    const int input = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int file = open(arguments.at(0).c_str(), O_WRONLY | O_CLOEXEC);
    if (input != STDIN_FILENO || file != STDOUT_FILENO)
        return 2;
    const end_to_end::CapturingLog log; // or lines of the host's own would go there, too
    TalkingPool pool(false);
    return pool.start(1) && pool.ask("print hello") == "printed" ? EXIT_SUCCESS : 3;
}

/// Makes standard output and error a pipe that nobody reads.
bool breakPipe()
{
    int ends[2];
    if (pipe(ends) != 0)
        return false;
    dup2(ends[1], STDOUT_FILENO);
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
    close(ends[1]);
    return true;
}

/// Makes standard output and error a file that may not grow.
bool fillFile()
{
    const int file = open(".", O_WRONLY | O_TMPFILE, 0600);
    dup2(file, STDOUT_FILENO);
    dup2(file, STDERR_FILENO);
    close(file);
    const rlimit nothing{0, 0};
    return file >= 0 && setrlimit(RLIMIT_FSIZE, &nothing) == 0;
}

/// unwritable-output pipe|file bare|logger: host and worker log where nothing can be written.
int unwritableOutput(const Arguments& arguments)
{
    for (const int signal : {SIGPIPE, SIGXFSZ})
        std::signal(signal, SIG_DFL);
    if (!(arguments.at(0) == "pipe" ? breakPipe() : fillFile()))
        return 2;
    static nq::nqLog logger;
    if (arguments.at(1) == "logger")
        nq::nqLog::msInstance = &logger;
    TalkingPool pool(false);
    if (!pool.start(1))
        return 3;
    if (pool.ask("log text") != "logged")
        return 4;
    if (pool.ask("crash") != "(Unexpected crash)") // which the host reports
        return 5;
    return EXIT_SUCCESS;
}

/// empty-job: an empty job is dropped without a word and counted for ever, on purpose.
int emptyJob(const Arguments&)
{
    TalkingPool pool(true);
    if (!pool.start(1))
        return failed("no start");
    pool.push("");
    if (pool.ask("echo after") != "after")
        return failed("the next job was not answered");
    for (int pass = 0; pass < 100; ++pass)
        pool.scheduler().processScheduler(0);
    if (pool.scheduler().jobCount() != 1)
        return failed("the empty job is not counted");
    if (pool.scheduler().resultCount() != 0 || pool.scheduler().failCount() != 0)
        return failed("the empty job was resolved");
    return EXIT_SUCCESS;
}

/// no-logger: a message without a logger goes to standard output.
int noLogger(const Arguments& arguments)
{
    nq::nqScheduler scheduler(arguments.at(0), true, {}, true);
    return scheduler.startScheduler(1, 0) ? failed("started") : EXIT_SUCCESS;
}

/// ended-thread: the thread that launched the workers ends before they are used.
int endedThread(const Arguments&)
{
    TalkingPool pool(true);
    bool isStarted = false;
    std::string before;
    std::thread([&] {
        isStarted = pool.start(1);
        before = pool.ask("pid");
    }).join();
    if (!isStarted)
        return failed("no start");
    for (int round = 0; round < 100; ++round)
        if (pool.ask("pid") != before)
            return failed("the worker was replaced");
    return EXIT_SUCCESS;
}

/// static-scheduler: ends while a scheduler of static life still has jobs, which it drains at exit.
/// Without a logger, a job that fails there is reported on standard output.
int staticScheduler(const Arguments&)
{
    static nq::nqScheduler scheduler(workerPath(), true, {}, true);
    if (!scheduler.startScheduler(2, connectionLimitMs))
        return failed("no start");
    const std::string job = "echo drained at exit";
    for (int count = 0; count < 200; ++count)
        scheduler.push(std::vector<char>(job.begin(), job.end()));
    return EXIT_SUCCESS;
}

/// leave HOW: ends with a scheduler that nobody has stopped.
int leave(const Arguments& arguments)
{
    TalkingPool pool(false);
    if (!pool.start(2))
        return failed("no start");
    pool.ask("fork-helper");
    pool.push("print-and-hang busy");
    pool.scheduler().processScheduler(0); // the job is on its way
    const std::string& how = arguments.at(0);
    if (how == "_exit")
        _exit(EXIT_SUCCESS);
    if (how == "abort")
        std::abort();
    if (how == "crash") {
        std::signal(SIGSEGV, SIG_DFL);
        std::raise(SIGSEGV);
    }
    return EXIT_SUCCESS;
}

bool enterNetworkNamespace()
{
    return unshare(CLONE_NEWNET) == 0;
}

bool becomeNobody()
{
    constexpr uid_t nobody = 65'534;
    // Readable again for a leak check at the end, which another user's process is not.
    return setgroups(0, nullptr) == 0 && setresgid(nobody, nobody, nobody) == 0 &&
           setresuid(nobody, nobody, nobody) == 0 && prctl(PR_SET_DUMPABLE, 1) == 0 &&
           access(workerPath().c_str(), X_OK) == 0;
}

/// change user|network: changes itself while its workers run, and then starts others.
int change(const Arguments& arguments)
{
    TalkingPool pool(true);
    pool.scheduler().setJobProcessTimeout(1);
    if (!pool.start(2))
        return failed("no start");
    const bool isChanged = arguments.at(0) == "user" ? becomeNobody() : enterNetworkNamespace();
    if (!isChanged)
        return refusedByTheMachine;
    if (pool.ask("echo before") != "before")
        return failed("a running worker did not answer");
    if (!pool.scheduler().stopScheduler() || !pool.start(1))
        return failed("no second start");
    if (pool.ask("hang").find("timeout") == std::string::npos)
        return failed("a hanging worker was not killed");
    return pool.ask("echo after") == "after" ? EXIT_SUCCESS : failed("no replacement");
}

struct Scenario {
    const char* name;
    int (*run)(const Arguments& arguments);
};

constexpr Scenario scenarios[] = {
    {"serve", serve},
    {"print", print},
    {"closed-streams", closedStreams},
    {"private-output", privateOutput},
    {"unwritable-output", unwritableOutput},
    {"empty-job", emptyJob},
    {"no-logger", noLogger},
    {"ended-thread", endedThread},
    {"static-scheduler", staticScheduler},
    {"leave", leave},
    {"change", change},
};

} // namespace

int main(int argc, char** argv)
{
    const Arguments arguments(argv + 1, argv + argc);
    for (const Scenario& scenario : scenarios)
        if (!arguments.empty() && arguments.front() == scenario.name)
            return scenario.run({arguments.begin() + 1, arguments.end()});
    return failed("usage: host_program SCENARIO [ARGUMENT]...");
}
