#include "tests/unit/schedulerFixture.h"

namespace {

using nq::nqProcess;
using nq::nqScheduler;
using scripted::Connection;
using support::Entry;
using support::Lines;

class WorkerLaunch : public support::SchedulerFixture {
protected:
    /// Launches one worker with these arguments and returns what it was started with.
    Lines argumentsFor(const Lines& arguments, bool prependChannelId)
    {
        scheduler->setArgumentsUtf8(arguments, prependChannelId);
        EXPECT_TRUE(scheduler->startWorker());
        return machine.processes.back()->arguments;
    }

    /// The command line in the report of a launch with these arguments.
    std::string reportedCommandLine(const Lines& arguments, bool prependChannelId)
    {
        const std::string before = "command line was: ";
        const std::string behind = " current working directory was ";
        scheduler->setArgumentsUtf8(arguments, prependChannelId);
        machine.server.connections = {Connection::timesOut};
        EXPECT_FALSE(scheduler->startWorker());
        const std::string text = machine.messages().back();
        const auto begin = text.find(before) + before.size();
        return text.substr(begin, text.find(behind) - begin);
    }

    void timeOut()
    {
        machine.server.connections = {Connection::timesOut};
    }
};

TEST_F(WorkerLaunch, goesThroughItsStepsInOrder)
{
    scheduler->setMaxPhysicalMemory(1000);
    forgetCalls();
    EXPECT_TRUE(scheduler->startWorker());
    EXPECT_EQ(
        machine.calls,
        (Lines{
            "process 4242: created",
            "process 4242: setWorkingDirectory(/opt/w)",
            "process 4242: startProcess(/opt/w/worker, [uuid-1])",
            "server: waitForNewConnection(0, null)",
            "process 4242: setWorkingSetMaxSize(1000)",
            "server: takePendingConnection() gives pipe 1"}));
    EXPECT_TRUE(machine.logged.empty());
}

TEST_F(WorkerLaunch, putsThePipeNameFirstOrLast)
{
    EXPECT_EQ(argumentsFor({"-a", "-b"}, true), (Lines{"uuid-1", "-a", "-b"}));
    EXPECT_EQ(argumentsFor({"-a", "-b"}, false), (Lines{"-a", "-b", "uuid-1"}));
}

TEST_F(WorkerLaunch, passesThePipeNameAloneWithoutArguments)
{
    EXPECT_EQ(argumentsFor({}, true), Lines{"uuid-1"});
    EXPECT_EQ(argumentsFor({}, false), Lines{"uuid-1"});
}

TEST_F(WorkerLaunch, passesArgumentsAsTheyAre)
{
    const Lines odd{"", "two words", "\"quoted\"", "\xC3\xA9"};
    EXPECT_EQ(
        argumentsFor(odd, false), (Lines{"", "two words", "\"quoted\"", "\xC3\xA9", "uuid-1"}));
}

TEST_F(WorkerLaunch, passesTheStartFlagAndTheInheritedPriority)
{
    for (const bool flag : {false, true}) {
        nqScheduler fresh("/opt/w/worker", flag, {}, true);
        EXPECT_TRUE(fresh.startWorker());
        EXPECT_EQ(machine.processes.back()->silenceOutput, flag);
        EXPECT_EQ(machine.processes.back()->priority, nqProcess::InheritedPriority);
    }
}

TEST_F(WorkerLaunch, leavesTheOutputOfWorkersAloneInASchedulerThatWasToldNothing)
{
    nqScheduler fresh;
    EXPECT_TRUE(fresh.startWorker());
    EXPECT_EQ(machine.processes.back()->silenceOutput, false);
}

TEST_F(WorkerLaunch, startsARelativePathAsConfiguredInTheFolderOfItsAbsoluteForm)
{
    scheduler->setExePathUtf8("bin/worker");
    EXPECT_TRUE(scheduler->startWorker());
    EXPECT_EQ(process(0).exePath, "bin/worker");
    EXPECT_EQ(process(0).workingDirectory, "/home/user/bin");
}

TEST_F(WorkerLaunch, doesNotLookAtTheResultOfTheStartButAtTheState)
{
    machine.planProcess().startResult = false;
    EXPECT_TRUE(scheduler->startWorker());

    auto& dead = machine.planProcess();
    dead.startResult = true;
    dead.stateAfterStart = nqProcess::Ended;
    EXPECT_FALSE(scheduler->startWorker());
}

TEST_F(WorkerLaunch, setsNoWorkingSetLimitWhenItIsOff)
{
    scheduler->setMaxPhysicalMemory(0);
    EXPECT_TRUE(scheduler->startWorker());
    EXPECT_EQ(machine.count("process 4242: setWorkingSetMaxSize(0)"), 0);
}

TEST_F(WorkerLaunch, setsNoWorkingSetLimitWhenTheLaunchFails)
{
    scheduler->setMaxPhysicalMemory(1000);
    timeOut();
    EXPECT_FALSE(scheduler->startWorker());
    EXPECT_EQ(machine.count("process 4242: setWorkingSetMaxSize(1000)"), 0);
}

TEST_F(WorkerLaunch, sendsNoGreeting)
{
    start(1);
    EXPECT_TRUE(pipe(0).outgoing.empty());
    EXPECT_TRUE(pipe(0).passedOn.empty());
    scheduler->processScheduler(0);
    EXPECT_TRUE(pipe(0).outgoing.empty());
}

TEST_F(WorkerLaunch, takesTheOldestConnectionWhoeverMadeItOnPurpose)
{
    // A client of a launch that gave up has connected meanwhile.
    machine.planPipe();
    machine.server.pending.push_back(machine.takePipe());
    EXPECT_TRUE(scheduler->startWorker());
    EXPECT_EQ(machine.count("server: takePendingConnection() gives pipe 1"), 1);
    EXPECT_EQ(machine.server.pending.size(), 1U);
    EXPECT_EQ(machine.server.pending.front()->name, "pipe 2");
}

TEST_F(WorkerLaunch, waitsForItsOwnConnectionThoughOneIsPendingAlready)
{
    machine.server.pending.push_back(machine.takePipe());
    timeOut();
    EXPECT_FALSE(scheduler->startWorker());
    EXPECT_EQ(machine.server.pending.size(), 1U);
}

TEST_F(WorkerLaunch, givesUpOnAProcessThatIsNotRunningWithoutAWait)
{
    const std::string report =
        "Fail to startWorker, Process state is not 'running' (pid 4242) - command line was: "
        "/opt/w/worker \"uuid-1\" current working directory was /home/user";
    machine.planProcess().stateAfterStart = nqProcess::NotStarted;
    forgetCalls();
    EXPECT_FALSE(scheduler->startWorker());
    EXPECT_EQ(
        machine.calls,
        (Lines{
            "process 4242: created",
            "process 4242: setWorkingDirectory(/opt/w)",
            "process 4242: startProcess(/opt/w/worker, [uuid-1])",
            "entry: computeLogPrefix(true)",
            "log: " + report,
            "process 4242: killProcess()",
            "process 4242: destroyed"}));
}

TEST_F(WorkerLaunch, reportsAWorkerThatDoesNotConnect)
{
    scheduler->setArgumentsUtf8({"-v"}, false);
    timeOut();
    EXPECT_FALSE(scheduler->startWorker());
    EXPECT_EQ(
        support::entries(machine),
        (std::vector<Entry>{
            {3,
             true,
             "Fail to startWorker, Timeout while waiting for worker connection (pid 4242) - "
             "command line was: /opt/w/worker \"-v\" \"uuid-1\" current working directory was "
             "/home/user"}}));
    EXPECT_EQ(
        Lines(machine.calls.end() - 2, machine.calls.end()),
        (Lines{"process 4242: killProcess()", "process 4242: destroyed"}));
}

TEST_F(WorkerLaunch, reportsAConnectionThatIsNotThere)
{
    machine.server.connections = {Connection::arrivesEmpty};
    EXPECT_FALSE(scheduler->startWorker());
    EXPECT_EQ(
        support::entries(machine),
        (std::vector<Entry>{
            {3,
             true,
             "Fail to startWorker, No pending connection (pid 4242) - command line was: "
             "/opt/w/worker \"uuid-1\" current working directory was /home/user"}}));
    EXPECT_EQ(machine.count("process 4242: killProcess()"), 1);
}

TEST_F(WorkerLaunch, neverWaitsForAProcessAfterAFailedLaunch)
{
    timeOut();
    EXPECT_FALSE(scheduler->startWorker());
    EXPECT_TRUE(process(0).isDestroyed);
    for (const std::string& line : machine.calls)
        EXPECT_EQ(line.find("waitForFinished"), std::string::npos) << line;
}

TEST_F(WorkerLaunch, writesThePidAsASignedPlainNumber)
{
    const support::GroupingGlobalLocale locale;
    machine.planProcess().pid = -1;
    timeOut();
    scheduler->startWorker();
    machine.planProcess().pid = 4194304;
    timeOut();
    scheduler->startWorker();
    EXPECT_NE(machine.messages().at(0).find(" (pid -1) - "), std::string::npos);
    EXPECT_NE(machine.messages().at(1).find(" (pid 4194304) - "), std::string::npos);
}

TEST_F(WorkerLaunch, reportsTheHostsOwnDirectoryAndNotTheWorkersOnPurpose)
{
    machine.currentDirectory = "/srv/host";
    timeOut();
    scheduler->startWorker();
    EXPECT_EQ(process(0).workingDirectory, "/opt/w");
    const std::string text = machine.messages().at(0);
    const std::string end = " current working directory was /srv/host";
    EXPECT_EQ(text.substr(text.size() - end.size()), end);
}

TEST_F(WorkerLaunch, asksForPidAndDirectoryThoughTheReportIsDisabled)
{
    logger.setLevelEnabled(3, false);
    timeOut();
    scheduler->startWorker();
    EXPECT_TRUE(machine.logged.empty());
    EXPECT_EQ(machine.count("process 4242: getPid()"), 1);
    EXPECT_EQ(machine.count("dirs: GetCurrentWorkingDirUtf8()"), 1);
}

TEST_F(WorkerLaunch, printsTheReportAndAsksForPidAndDirectoryWithoutALogger)
{
    nq::nqLog::msInstance = nullptr;
    timeOut();
    scheduler->startWorker();
    EXPECT_EQ(
        machine.count("standard output: prefix | Fail to startWorker, Timeout while waiting for "
                      "worker connection (pid 4242) - command line was: /opt/w/worker \"uuid-1\" "
                      "current working directory was /home/user"),
        1);
    EXPECT_EQ(machine.count("process 4242: getPid()"), 1);
    EXPECT_EQ(machine.count("dirs: GetCurrentWorkingDirUtf8()"), 1);
}

TEST_F(WorkerLaunch, quotesTheArgumentsOfTheReportedCommandLine)
{
    EXPECT_EQ(reportedCommandLine({"a", "b"}, false), "/opt/w/worker \"a\" \"b\" \"uuid-1\"");
    EXPECT_EQ(reportedCommandLine({"a", "b"}, true), "/opt/w/worker \"uuid-1\" \"a\" \"b\"");
    EXPECT_EQ(reportedCommandLine({}, false), "/opt/w/worker \"uuid-1\"");
    EXPECT_EQ(reportedCommandLine({}, true), "/opt/w/worker \"uuid-1\"");
}

TEST_F(WorkerLaunch, joinsAnEmptyFirstArgumentWithoutASeparatorOnPurpose)
{
    EXPECT_EQ(reportedCommandLine({"", "b"}, false), "/opt/w/worker \"b\" \"uuid-1\"");
    EXPECT_EQ(reportedCommandLine({"", "", "b"}, false), "/opt/w/worker \"b\" \"uuid-1\"");
    EXPECT_EQ(
        reportedCommandLine({"a", "", "c"}, false), "/opt/w/worker \"a\" \"\" \"c\" \"uuid-1\"");
    EXPECT_EQ(reportedCommandLine({""}, true), "/opt/w/worker \"uuid-1\" \"\"");
}

TEST_F(WorkerLaunch, changesNothingInThePoolWhenItFails)
{
    start(1);
    timeOut();
    EXPECT_FALSE(scheduler->startWorker());
    forgetCalls();
    scheduler->processScheduler(0);
    EXPECT_EQ(
        machine.calls,
        (Lines{"server: processPipeServerEvents(0)", "pipe 1: processNamedPipeEvents(0, false)"}));
}

TEST_F(WorkerLaunch, addsTheNewWorkerAtTheEnd)
{
    start(1);
    EXPECT_TRUE(scheduler->startWorker());
    forgetCalls();
    scheduler->processScheduler(0);
    EXPECT_EQ(
        machine.calls,
        (Lines{
            "server: processPipeServerEvents(0)",
            "pipe 1: processNamedPipeEvents(0, false)",
            "pipe 2: processNamedPipeEvents(0, false)"}));
}

TEST_F(WorkerLaunch, givesTheWorkerTheThreeLimits)
{
    scheduler->setMaxCapMemory(100);
    scheduler->setJobProcessTimeout(10);
    scheduler->setMaxCapMemoryAfterProcessingAJob(50);
    start(3);
    for (const char* job : {"a", "b", "c"})
        scheduler->push(support::bytes(job));
    scheduler->processScheduler(0);

    process(0).ramInUse = 101;
    process(1).ramInUse = 51;
    answer(1, "B");
    scheduler->processScheduler(0);
    EXPECT_EQ(machine.count("process 4242: killProcess()"), 1);
    EXPECT_TRUE(process(1).isDestroyed);
    EXPECT_EQ(machine.count("process 4243: killProcess()"), 0);

    machine.advance(std::chrono::seconds{11});
    scheduler->processScheduler(0);
    EXPECT_EQ(machine.count("process 4244: killProcess()"), 1);
}

} // namespace
