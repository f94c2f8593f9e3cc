#include "supervision/nqWorkerLaunch.h"

#include "supervision/nqEventLog.h"
#include "support/nqLogObject.h"
#include "system/nqDirUtils.h"
#include "system/nqHighResTimer.h"
#include "system/nqThread.h"

#include <optional>
#include <utility>

namespace nq {

namespace {

std::vector<std::string> buildArguments(const nqWorkerLaunch& launch)
{
    std::vector<std::string> arguments;
    arguments.reserve(launch.mArgumentsUtf8.size() + 1);
    if (launch.mPrependChannelId)
        arguments.push_back(launch.mPipeName);
    arguments.insert(arguments.end(), launch.mArgumentsUtf8.begin(), launch.mArgumentsUtf8.end());
    if (!launch.mPrependChannelId)
        arguments.push_back(launch.mPipeName);
    return arguments;
}

/// Before anything can go wrong: why a worker does not connect stands there most of all.
void keepStandardError(nqProcess& process, const nqWorkerLaunch& launch)
{
    if (launch.mStandardErrors == nullptr)
        return;
    nqOwnedDescriptor end = process.takeStandardError();
    if (end.get() != -1)
        launch.mStandardErrors->add(process.getPid(), std::move(end));
}

/// Why the launch has failed, or null when the process runs and its connection is pending.
const char* startAndConnect(
    nqProcess& process,
    const nqWorkerLaunch& launch,
    const std::vector<std::string>& arguments,
    nqNamedPipeServer& server)
{
    if (launch.mStandardErrors != nullptr)
        process.captureStandardError();
    process.setWorkingDirectory(
        nqDirUtils::ExtractFolder(nqDirUtils::GetAbsolutePathUtf8(launch.mExeUtf8Path)));
    {
        const nqThread::Uncancellable held; // a child that has been forked needs its owner
        process.startProcess(
            launch.mExeUtf8Path, arguments, launch.mStartProcessFlag, nqProcess::InheritedPriority);
    }
    keepStandardError(process, launch);
    if (process.getState() != nqProcess::Running)
        return "Process state is not 'running'";
    if (!server.waitForNewConnection(launch.mWorkerConnectionTimeout, nullptr))
        return "Timeout while waiting for worker connection";
    if (!server.hasPendingConnections())
        return "No pending connection";
    return nullptr;
}

/// An empty first argument is followed by no separator; hosts search for the text as it is.
std::string commandLineText(const std::string& exePath, const std::vector<std::string>& arguments)
{
    std::string joined;
    for (const std::string& argument : arguments) {
        if (!joined.empty())
            joined += "\" \"";
        joined += argument;
    }
    return exePath + " \"" + joined + "\"";
}

void logFailedLaunch(const char* reason, const nqProcess& process, const std::string& commandLine)
{
    const std::int64_t pid = process.getPid();
    const std::string currentDirectory = nqDirUtils::GetCurrentWorkingDirUtf8();
    nqLogObject(nqLog::Error, true)
        << "Fail to startWorker, " << reason << " (pid " << std::to_string(pid)
        << ") - command line was: " << commandLine << " current working directory was "
        << currentDirectory;
}

// The reason outlives the delivery.
void noteFailedLaunch(nqEventLog& events, const char* reason, const nqProcess& process)
{
    nqSchedulerEvent event;
    event.mKind = nqSchedulerEvent::Kind::LaunchFailed;
    event.mPid = process.getPid();
    event.mMessage = reason;
    event.mErrorNumber = process.startError();
    setProcessEnd(event, process.end());
    events.note(event);
}

void noteLaunch(nqEventLog& events, std::int64_t pid, const nqHighResTimer& sinceLaunch)
{
    nqSchedulerEvent event;
    event.mKind = nqSchedulerEvent::Kind::WorkerLaunched;
    event.mPid = pid;
    event.mDuration = timeOn(sinceLaunch);
    events.note(event);
}

} // namespace

std::unique_ptr<nqSchedulerWorker>
launchWorker(const nqWorkerLaunch& launch, nqNamedPipeServer& server, nqJobQueues* queues)
{
    std::optional<nqHighResTimer> sinceLaunch;
    if (launch.mEvents.isObserved())
        sinceLaunch.emplace().start();
    auto process = std::make_unique<nqProcess>();
    const std::vector<std::string> arguments = buildArguments(launch);
    if (const char* failure = startAndConnect(*process, launch, arguments, server)) {
        logFailedLaunch(failure, *process, commandLineText(launch.mExeUtf8Path, arguments));
        process->killProcess();
        if (sinceLaunch)
            noteFailedLaunch(launch.mEvents, failure, *process);
        return nullptr;
    }

    const nqWorkerLimits& limits = launch.mLimits;
    // Only now: a limit set before the start would hit the loading of the program itself.
    if (limits.mMaxPhysicalMemory != 0)
        process->setWorkingSetMaxSize(limits.mMaxPhysicalMemory);

    // Nothing says that this connection comes from the process just started; the oldest is taken.
    auto worker = std::make_unique<nqSchedulerWorker>(
        server.takePendingConnection(), std::move(process), queues);
    worker->setEvents(launch.mEvents, sinceLaunch);
    if (launch.mStandardErrors != nullptr)
        worker->setPrintsToTheHost();
    if (sinceLaunch)
        noteLaunch(launch.mEvents, worker->pid(), *sinceLaunch);
    worker->setMaxCapMemory(limits.mMaxCapMemory);
    worker->setJobProcessTimeout(limits.mJobProcessTimeout);
    worker->setMaxCapMemoryAfterProcessingAJob(limits.mMaxCapMemoryAfterProcessingAJob);
    return worker;
}

} // namespace nq
