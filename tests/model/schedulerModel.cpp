#include "tests/model/schedulerModel.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace model {

namespace {

/// More pump calls than any wait of these tests needs.
constexpr int endlessPumpCount = 100'000;

std::string joined(const std::vector<std::string>& texts, const std::string& separator)
{
    std::string all;
    for (const std::string& text : texts)
        all += (all.empty() ? "" : separator) + text;
    return all;
}

std::string absolute(const World& world, const std::string& path)
{
    return path.empty() || path.front() == '/' ? path : world.currentDirectory + "/" + path;
}

std::string folderOf(const std::string& path)
{
    const auto slash = path.rfind('/');
    if (slash == std::string::npos)
        return {};
    return slash == 0 ? "/" : path.substr(0, slash);
}

} // namespace

Scheduler::Scheduler(
    World& world,
    std::string exePath,
    std::vector<std::string> arguments,
    bool silencesWorkers,
    bool prependsPipeName)
    : mWorld(&world),
      mSilencesWorkers(silencesWorkers)
{
    mConfiguration.exePath = std::move(exePath);
    mConfiguration.arguments = std::move(arguments);
    mConfiguration.prependsPipeName = prependsPipeName;
    mWorld->say("system: CreateUuid(true)");
    mWorld->say("server: created");
}

Scheduler::Configuration* Scheduler::changeableConfiguration()
{
    return mIsStarted ? nullptr : &mConfiguration;
}

const Scheduler::Configuration& Scheduler::configuration() const
{
    return mConfiguration;
}

bool Scheduler::isStarted() const
{
    return mIsStarted;
}

std::size_t Scheduler::workerCount() const
{
    return mWorkers.size();
}

bool Scheduler::start(unsigned long workerCount, int connectionTimeout)
{
    if (mIsStarted) {
        mWorld->log(2, true, "Cannot startScheduler - already started");
        return false;
    }
    mConnectionTimeout = connectionTimeout;

    mWorld->say("server: listenUtf8(" + mPipeName + ")");
    if (!mWorld->server.listens) {
        mWorld->log(3, true, "Fail to startScheduler - cannot listen");
        return false;
    }

    mWorkerCount = workerCount;
    const int limit = std::max(2 * mWorld->idealThreadCount, 4);
    if (workerCount > static_cast<unsigned long>(limit)) {
        ++mWorld->seen["start: too many"];
        mWorld->log(
            2,
            true,
            "Too many workers (" + std::to_string(workerCount) + "), limit to ideal thread count");
        return false;
    }

    bool everyLaunchWorked = true;
    for (unsigned long i = 0; i < workerCount; ++i)
        everyLaunchWorked = launch() && everyLaunchWorked;
    ++mWorld->seen[everyLaunchWorked ? "start: all launched" : "start: a launch failed"];
    mIsStarted = everyLaunchWorked;
    return everyLaunchWorked;
}

bool Scheduler::stop()
{
    if (!mIsStarted)
        return false;
    waitForFinished();
    mWorld->say("server: closeNamedPipeServer()");
    mWorld->server.pending.clear();

    for (Worker& worker : mWorkers) {
        worker.closePipe();
        scripted::Process& process = worker.process();
        if (isRunning(process)) {
            wait(*mWorld, process, 30000);
            if (isRunning(process)) {
                ++mWorld->seen["stop: killed"];
                model::kill(*mWorld, process);
                wait(*mWorld, process, 0);
            }
        }
        worker.end();
    }
    mWorkers.clear();
    mIsStarted = false;
    ++mWorld->seen["stop"];
    return true;
}

void Scheduler::waitForFinished()
{
    int pumps = 0;
    while (mIsStarted && queues.jobCount() != 0) {
        pump(10);
        if (++pumps == endlessPumpCount)
            throw std::logic_error("this wait has no end");
    }
}

bool Scheduler::kill(
    std::int64_t pid, nq::nqScheduler::FailReason reason, const std::string& message)
{
    for (Worker& worker : mWorkers) {
        if (worker.pid() == pid)
            return reason != nq::nqScheduler::NoFailure && worker.killFor(reason, message);
    }
    return false;
}

bool Scheduler::heal()
{
    while (mIsStarted && mWorkers.size() < mWorkerCount) {
        ++mWorld->seen["healed"];
        if (!launch()) {
            ++mWorld->seen["healing failed"];
            return false;
        }
    }
    return mIsStarted;
}

std::vector<std::string> Scheduler::workerLines()
{
    using State = nq::nqWorkerStatus::State;
    std::vector<std::string> lines;
    for (Worker& worker : mWorkers) {
        mWorld->say(worker.process().name + ": getCurrentRamInUse()");
        const State working = worker.isReady() ? State::Idle : State::Busy;
        lines.push_back(workerLine(
            worker.pid(),
            worker.isLeaving() ? State::Leaving : working,
            worker.process().ramInUse,
            worker.milliseconds()));
    }
    return lines;
}

std::size_t Scheduler::busyWorkerCount() const
{
    return static_cast<std::size_t>(std::count_if(
        mWorkers.begin(), mWorkers.end(), [](const Worker& worker) { return !worker.isReady(); }));
}

std::vector<std::int64_t> Scheduler::pids() const
{
    std::vector<std::int64_t> all;
    for (const Worker& worker : mWorkers)
        all.push_back(worker.pid());
    return all;
}

void Scheduler::end()
{
    mWorld->isObserved = false;
    stop();
    for (Worker& worker : mWorkers)
        worker.end();
    mWorkers.clear();
    mWorld->say("server: destroyed");
}

void Scheduler::pump(int timeoutMs)
{
    if (!mIsStarted)
        return;
    mWorld->say("server: processPipeServerEvents(0)");

    bool hasBytesToWrite = false;
    bool hasIdle = false;
    int replacements = 0;
    std::vector<int> sockets;
    for (auto worker = mWorkers.begin(); worker != mWorkers.end();) {
        worker->step();
        if (worker->isFinished()) {
            worker->end();
            worker = mWorkers.erase(worker);
            ++replacements;
            hasIdle = true;
            continue;
        }
        const scripted::Pipe& pipe = *worker->pipe();
        hasBytesToWrite = hasBytesToWrite || hasPendingWrite(pipe);
        if (pipe.socket != -1)
            sockets.push_back(pipe.socket);
        hasIdle = hasIdle || worker->isReady();
        ++worker;
    }

    const bool canDispatch = hasIdle && !queues.pending.empty();
    if (timeoutMs > 0 && !hasBytesToWrite && queues.results.empty() && !canDispatch &&
        !sockets.empty())
        sleep(timeoutMs, sockets);

    for (int i = 0; i < replacements; ++i)
        ++mWorld->seen[launch() ? "replacement" : "replacement failed"];
}

void Scheduler::sleep(int timeoutMs, std::vector<int> sockets)
{
    std::sort(sockets.begin(), sockets.end());
    sockets.erase(std::unique(sockets.begin(), sockets.end()), sockets.end());
    scripted::Select select;
    select.count = sockets.back() + 1;
    select.readSet = sockets;
    select.exceptionSet = sockets;
    select.seconds = timeoutMs / 1000;
    select.microseconds = timeoutMs % 1000 * 1000L;
    mWorld->say("select()");
    mWorld->selects.push_back(select);
    ++mWorld->seen["slept"];
    if (mWorld->onSelect)
        mWorld->onSelect();
}

std::vector<std::string> Scheduler::commandLine() const
{
    std::vector<std::string> all = mConfiguration.arguments;
    all.insert(mConfiguration.prependsPipeName ? all.begin() : all.end(), mPipeName);
    return all;
}

bool Scheduler::launch()
{
    const std::string& exePath = mConfiguration.exePath;
    const std::vector<std::string> arguments = commandLine();
    if (mWorld->isObserved)
        mWorld->say("timer: start()");
    const auto process = mWorld->takeProcess();
    mWorld->say(process->name + ": created");
    process->workingDirectory = folderOf(absolute(*mWorld, exePath));
    mWorld->say(process->name + ": setWorkingDirectory(" + process->workingDirectory + ")");
    mWorld->say(
        process->name + ": startProcess(" + exePath + ", [" + joined(arguments, ", ") + "])");
    process->exePath = exePath;
    process->arguments = arguments;
    process->silenceOutput = mSilencesWorkers;
    process->priority = nq::nqProcess::InheritedPriority;
    process->state = process->stateAfterStart;

    if (!isRunning(*process)) {
        reportFailedLaunch("Process state is not 'running'", arguments, *process);
        return false;
    }

    mWorld->say("server: waitForNewConnection(" + std::to_string(mConnectionTimeout) + ", null)");
    auto& server = mWorld->server;
    auto outcome = scripted::Connection::arrives;
    if (!server.connections.empty()) {
        outcome = server.connections.front();
        server.connections.pop_front();
    }
    if (outcome == scripted::Connection::arrives)
        server.pending.push_back(mWorld->takePipe());
    if (outcome == scripted::Connection::timesOut) {
        reportFailedLaunch("Timeout while waiting for worker connection", arguments, *process);
        return false;
    }
    if (server.pending.empty()) {
        reportFailedLaunch("No pending connection", arguments, *process);
        return false;
    }

    if (mConfiguration.maxAllocated != 0)
        mWorld->say(
            process->name + ": setWorkingSetMaxSize(" +
            std::to_string(mConfiguration.maxAllocated) + ")");
    const auto pipe = server.pending.front();
    server.pending.pop_front();
    mWorld->say("server: takePendingConnection() gives " + pipe->name);
    mWorkers.emplace_back(*mWorld, queues, pipe, process, mConfiguration.limits);
    mWorld->tell(told::launched(process->pid));
    return true;
}

void Scheduler::reportFailedLaunch(
    const std::string& reason,
    const std::vector<std::string>& arguments,
    scripted::Process& process)
{
    ++mWorld->seen["launch: " + reason];
    mWorld->say(process.name + ": getPid()");
    mWorld->say("dirs: GetCurrentWorkingDirUtf8()");
    mWorld->log(
        3,
        true,
        "Fail to startWorker, " + reason + " (pid " + std::to_string(process.pid) +
            ") - command line was: " + mConfiguration.exePath + " \"" + joined(arguments, "\" \"") +
            "\" current working directory was " + mWorld->currentDirectory);
    model::kill(*mWorld, process);
    if (mWorld->isObserved)
        mWorld->say(process.name + ": getPid()");
    mWorld->tell(told::launchFailed(process.pid, reason));
    destroy(*mWorld, process);
}

std::string
workerLine(std::int64_t pid, nq::nqWorkerStatus::State state, std::uint64_t ram, std::uint64_t ms)
{
    return std::to_string(pid) + ": state " + std::to_string(static_cast<int>(state)) + ", " +
           std::to_string(ram) + " bytes, " + std::to_string(ms) + " ms";
}

} // namespace model
