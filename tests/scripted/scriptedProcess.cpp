#include "tests/scripted/scriptedMachine.h"

#include "system/nqProcess.h"

namespace nq {

namespace {

std::string joined(const std::vector<std::string>& texts)
{
    std::string all;
    for (const std::string& text : texts)
        all += (all.empty() ? "" : ", ") + text;
    return all;
}

} // namespace

/// Binds a process object to its record.
struct nqProcess::State {
    std::shared_ptr<scripted::Process> process;

    scripted::Process& operator*() const
    {
        return *process;
    }

    void call(const std::string& text) const
    {
        scripted::machine().call(process->name + ": " + text);
    }

    void query(const std::string& text) const
    {
        scripted::machine().query(process->name + ": " + text);
    }
};

nqProcess::nqProcess()
    : mState(std::make_unique<State>(State{scripted::machine().takeProcess()}))
{
    mState->call("created");
}

nqProcess::~nqProcess()
{
    (**mState).isDestroyed = true;
    mState->call("destroyed");
}

void nqProcess::setWorkingDirectory(const std::string& directoryUtf8)
{
    mState->call("setWorkingDirectory(" + directoryUtf8 + ")");
    (**mState).workingDirectory = directoryUtf8;
}

bool nqProcess::startProcess(
    const std::string& exePathUtf8,
    const std::vector<std::string>& arguments,
    bool silenceOutput,
    ProcessPriority priority)
{
    mState->call("startProcess(" + exePathUtf8 + ", [" + joined(arguments) + "])");
    scripted::Process& process = **mState;
    process.exePath = exePathUtf8;
    process.arguments = arguments;
    process.silenceOutput = silenceOutput;
    process.priority = priority;
    process.state = process.stateAfterStart;
    return process.startResult.value_or(process.state == Running);
}

nqProcess::ProcessState nqProcess::getState() const
{
    mState->query("getState()");
    return (**mState).state;
}

std::int64_t nqProcess::getPid() const
{
    mState->query("getPid()");
    return (**mState).pid;
}

std::uint64_t nqProcess::getCurrentRamInUse() const
{
    mState->query("getCurrentRamInUse()");
    ++(**mState).ramReads;
    return (**mState).ramInUse;
}

bool nqProcess::setWorkingSetMaxSize(std::uint64_t bytes)
{
    mState->call("setWorkingSetMaxSize(" + std::to_string(bytes) + ")");
    return true;
}

void nqProcess::killProcess()
{
    mState->call("killProcess()");
    if ((**mState).endsWhenKilled && (**mState).state == Running)
        (**mState).state = Ended;
}

bool nqProcess::waitForFinished(unsigned int timeoutMs)
{
    mState->call("waitForFinished(" + std::to_string(timeoutMs) + ")");
    if ((**mState).endsWhenWaitedFor && (**mState).state == Running)
        (**mState).state = Ended;
    return (**mState).state != Running;
}

} // namespace nq
