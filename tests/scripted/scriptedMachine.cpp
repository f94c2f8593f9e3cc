#include "tests/scripted/scriptedMachine.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <tuple>
#include <utility>

namespace scripted {

namespace {

Machine* current = nullptr;

[[noreturn]] void fail(const char* reason)
{
    std::cerr << "scripted platform: " << reason << std::endl;
    std::abort();
}

} // namespace

void Pipe::lose()
{
    isConnected = false;
    isReadChannelClosed = true;
    isWriteChannelClosed = true;
    socket = -1;
    isCongested = false;
    reportsTo = nullptr;
    incoming.clear();
    dropUnsent();
    rangeSize = 0;
    filled = 0;
}

bool Pipe::isAtItsEnd() const
{
    return endsWhenDrained && untakenBytes() == 0;
}

std::size_t Pipe::unsentBytes() const
{
    return outgoing.size() + lentSize;
}

std::vector<char> Pipe::unsent() const
{
    std::vector<char> bytes = outgoing;
    bytes.insert(bytes.end(), lent, lent + lentSize);
    return bytes;
}

std::vector<char> Pipe::untaken() const
{
    std::vector<char> bytes(range, range + filled);
    bytes.insert(bytes.end(), incoming.begin(), incoming.end());
    return bytes;
}

void Pipe::dropUnsent()
{
    outgoing.clear();
    lentSize = 0;
}

std::size_t Pipe::untakenBytes() const
{
    return filled + incoming.size();
}

bool operator==(const Select& left, const Select& right)
{
    const auto fields = [](const Select& select) {
        return std::tie(
            select.count,
            select.readSet,
            select.hasWriteSet,
            select.exceptionSet,
            select.seconds,
            select.microseconds);
    };
    return fields(left) == fields(right);
}

Machine::Machine()
{
    if (current != nullptr)
        fail("a second machine");
    current = this;
}

Machine::~Machine()
{
    current = nullptr;
}

Process& Machine::planProcess()
{
    auto process = std::make_shared<Process>();
    process->pid = mNextPid++;
    process->name = "process " + std::to_string(process->pid);
    mPlannedProcesses.push_back(process);
    return *process;
}

Pipe& Machine::planPipe()
{
    auto pipe = std::make_shared<Pipe>();
    pipe->name = "pipe " + std::to_string(++mPipeCount);
    pipe->socket = mNextSocket++;
    mPlannedPipes.push_back(pipe);
    return *pipe;
}

void Machine::advance(std::chrono::nanoseconds time)
{
    steadyTime += time;
}

std::vector<std::string> Machine::takeCalls()
{
    return std::exchange(calls, {});
}

std::ptrdiff_t Machine::count(const std::string& line) const
{
    return std::count(trace.begin(), trace.end(), line);
}

std::vector<std::string> Machine::messages() const
{
    std::vector<std::string> messages;
    messages.reserve(logged.size());
    for (const Logged& one : logged)
        messages.push_back(one.entry.mMessage);
    return messages;
}

void Machine::call(const std::string& line)
{
    calls.push_back(line);
    trace.push_back(line);
    if (cancellable && isCancellable)
        cancellable->push_back(line);
}

void Machine::query(const std::string& line)
{
    trace.push_back(line);
    if (onQuery)
        onQuery(line);
}

std::shared_ptr<Process> Machine::takeProcess()
{
    if (mPlannedProcesses.empty())
        planProcess();
    processes.push_back(mPlannedProcesses.front());
    mPlannedProcesses.pop_front();
    return processes.back();
}

std::shared_ptr<Pipe> Machine::takePipe()
{
    if (mPlannedPipes.empty())
        planPipe();
    pipes.push_back(mPlannedPipes.front());
    mPlannedPipes.pop_front();
    return pipes.back();
}

void Machine::adoptPipe(std::shared_ptr<Pipe> pipe)
{
    mAdoptedPipe = std::move(pipe);
}

std::shared_ptr<Pipe> Machine::pipeForNewObject()
{
    if (mAdoptedPipe != nullptr)
        return std::exchange(mAdoptedPipe, nullptr);

    const bool isPlanned = !mPlannedPipes.empty();
    auto pipe = takePipe();
    if (!isPlanned)
        pipe->lose(); // a pipe object starts out not connected
    return pipe;
}

Machine& machine()
{
    if (current == nullptr)
        fail("no machine");
    return *current;
}

} // namespace scripted
