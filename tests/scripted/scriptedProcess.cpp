#include "tests/scripted/scriptedMachine.h"

#include "system/nqProcess.h"

#include <utility>

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
struct nqProcess::Private {
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
    : mPrivate(std::make_unique<Private>(Private{scripted::machine().takeProcess()}))
{
    mPrivate->call("created");
}

nqProcess::~nqProcess()
{
    (**mPrivate).isDestroyed = true;
    mPrivate->call("destroyed");
}

void nqProcess::setWorkingDirectory(const std::string& directoryUtf8)
{
    mPrivate->call("setWorkingDirectory(" + directoryUtf8 + ")");
    (**mPrivate).workingDirectory = directoryUtf8;
}

void nqProcess::captureStandardError()
{
    mPrivate->call("captureStandardError()");
    (**mPrivate).capturesStandardError = true;
}

nqOwnedDescriptor nqProcess::takeStandardError()
{
    scripted::Process& process = **mPrivate;
    const bool isThere = process.capturesStandardError && process.state != NotStarted;
    return nqOwnedDescriptor(isThere ? std::exchange(process.standardError, -1) : -1);
}

bool nqProcess::startProcess(
    const std::string& exePathUtf8,
    const std::vector<std::string>& arguments,
    bool silenceOutput,
    ProcessPriority priority)
{
    mPrivate->call("startProcess(" + exePathUtf8 + ", [" + joined(arguments) + "])");
    scripted::Process& process = **mPrivate;
    process.exePath = exePathUtf8;
    process.arguments = arguments;
    process.silenceOutput = silenceOutput;
    process.priority = priority;
    process.state = process.stateAfterStart;
    return process.startResult.value_or(process.state == Running);
}

nqProcess::ProcessState nqProcess::getState() const
{
    mPrivate->query("getState()");
    return (**mPrivate).state;
}

std::int64_t nqProcess::getPid() const
{
    mPrivate->query("getPid()");
    return (**mPrivate).pid;
}

std::optional<nqProcess::End> nqProcess::end() const
{
    mPrivate->query("end()");
    return (**mPrivate).state == Ended ? (**mPrivate).end : std::nullopt;
}

int nqProcess::startError() const
{
    mPrivate->query("startError()");
    return (**mPrivate).startError;
}

std::uint64_t nqProcess::getCurrentRamInUse() const
{
    mPrivate->query("getCurrentRamInUse()");
    ++(**mPrivate).ramReads;
    return (**mPrivate).ramInUse;
}

bool nqProcess::setWorkingSetMaxSize(std::uint64_t bytes)
{
    mPrivate->call("setWorkingSetMaxSize(" + std::to_string(bytes) + ")");
    return true;
}

void nqProcess::killProcess()
{
    mPrivate->call("killProcess()");
    if ((**mPrivate).endsWhenKilled && (**mPrivate).state == Running)
        (**mPrivate).state = Ended;
}

bool nqProcess::waitForFinished(unsigned int timeoutMs)
{
    mPrivate->call("waitForFinished(" + std::to_string(timeoutMs) + ")");
    if ((**mPrivate).endsWhenWaitedFor && (**mPrivate).state == Running)
        (**mPrivate).state = Ended;
    return (**mPrivate).state != Running;
}

} // namespace nq
