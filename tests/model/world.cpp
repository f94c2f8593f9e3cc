#include "tests/model/world.h"

#include <algorithm>

namespace model {

void World::say(const std::string& line)
{
    calls.push_back(line);
}

void World::log(int level, bool flush, const std::string& text)
{
    if (!levelIsEnabled.at(static_cast<std::size_t>(level)))
        return;
    say("entry: computeLogPrefix(true)");
    say("log: " + text);
    logged.push_back({level, flush, text});
}

void World::tell(const std::string& line)
{
    if (isObserved)
        told.push_back(line);
}

void World::advance(std::chrono::nanoseconds time)
{
    steadyTime += time;
}

std::shared_ptr<scripted::Process> World::takeProcess()
{
    processes.push_back(plannedProcesses.at(0));
    plannedProcesses.pop_front();
    return processes.back();
}

std::shared_ptr<scripted::Pipe> World::takePipe()
{
    pipes.push_back(plannedPipes.at(0));
    plannedPipes.pop_front();
    return pipes.back();
}

std::string told::launched(std::int64_t pid)
{
    return "launched " + std::to_string(pid);
}

std::string told::launchFailed(std::int64_t pid, const std::string& reason)
{
    return "launch of " + std::to_string(pid) + " failed: " + reason;
}

std::string told::handedOut(std::int64_t pid, std::size_t bytes, std::size_t unread)
{
    return std::to_string(bytes) + " bytes handed to " + std::to_string(pid) + ", " +
           std::to_string(unread) + " unread";
}

std::string told::result(std::int64_t pid, std::size_t bytes)
{
    return "result of " + std::to_string(bytes) + " bytes from " + std::to_string(pid);
}

std::string
told::failed(std::int64_t pid, std::size_t bytes, int reason, const std::string& message)
{
    return std::to_string(bytes) + " bytes failed at " + std::to_string(pid) + ": " +
           std::to_string(reason) + " " + message;
}

std::string told::ended(std::int64_t pid, const std::string& reason, std::uint64_t largestReading)
{
    return std::to_string(pid) + " ended: " + reason + ", largest reading " +
           std::to_string(largestReading);
}

void processEvents(World& world, scripted::Pipe& pipe)
{
    world.say(pipe.name + ": processNamedPipeEvents(0, false)");
    if (pipe.isConnected && !pipe.isWriteChannelClosed) {
        const auto count = std::min<std::uint64_t>(pipe.outgoing.size(), pipe.passedOnPerCall);
        const auto end = pipe.outgoing.begin() + static_cast<std::ptrdiff_t>(count);
        pipe.passedOn.insert(pipe.passedOn.end(), pipe.outgoing.begin(), end);
        pipe.outgoing.erase(pipe.outgoing.begin(), end);
    }
    if (!pipe.arrivals.empty()) {
        const Bytes& bytes = pipe.arrivals.front();
        pipe.incoming.insert(pipe.incoming.end(), bytes.begin(), bytes.end());
        pipe.arrivals.pop_front();
    }
    if (pipe.onEvents)
        pipe.onEvents(pipe);
}

bool isConnected(const scripted::Pipe& pipe)
{
    return pipe.isConnected && !pipe.isAtItsEnd();
}

bool isReadChannelClosed(const scripted::Pipe& pipe)
{
    return pipe.isReadChannelClosed || pipe.isAtItsEnd();
}

bool hasPendingWrite(const scripted::Pipe& pipe)
{
    return pipe.isConnected && !pipe.outgoing.empty();
}

void close(World& world, scripted::Pipe& pipe)
{
    world.say(pipe.name + ": closeNamedPipe()");
    pipe.lose();
}

void closeAndDestroy(World& world, scripted::Pipe& pipe)
{
    close(world, pipe);
    world.say(pipe.name + ": destroyed");
    pipe.isDestroyed = true;
}

bool isRunning(const scripted::Process& process)
{
    return process.state == nq::nqProcess::Running;
}

void kill(World& world, scripted::Process& process)
{
    world.say(process.name + ": killProcess()");
    if (process.endsWhenKilled && process.state == nq::nqProcess::Running)
        process.state = nq::nqProcess::Ended;
}

void wait(World& world, scripted::Process& process, unsigned int timeoutMs)
{
    world.say(process.name + ": waitForFinished(" + std::to_string(timeoutMs) + ")");
    if (process.endsWhenWaitedFor && process.state == nq::nqProcess::Running)
        process.state = nq::nqProcess::Ended;
}

void destroy(World& world, scripted::Process& process)
{
    world.say(process.name + ": destroyed");
    process.isDestroyed = true;
}

} // namespace model
