#include "system/linux/nqStartedProcess.h"

#include "system/linux/nqForkSafe.h"
#include "system/linux/nqPidfd.h"
#include "system/linux/nqPlatformLog.h"
#include "system/linux/nqProcFile.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <new>
#include <unistd.h>
#include <utility>

namespace nq {

namespace {

// What the loader leaves with, after it has said on standard error what it misses.
constexpr int loaderFailedExitStatus = 127;

pid_t groupOf(pid_t pid)
{
    // A process that is gone has no group any more; it may have led one.
    const pid_t group = ::getpgid(pid);
    return group > 0 ? group : pid;
}

bool contains(const std::vector<std::string>& texts, const std::string& text)
{
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

} // namespace

/// The processes in the order of their start, and the names that somebody listens under.
struct nqStartedProcess::Roster {
    std::vector<nqStartedProcess*> mProcesses;
    std::vector<std::string> mListening;

    nqStartedProcess* find(pid_t pid) const;
    nqStartedProcess* latestOf(const std::string& server) const;
    nqStartedProcess* inGroup(const std::string& server, pid_t group) const;
    bool isListenedFor(const nqStartedProcess& process) const;

    void inForkedChild()
    {
        mProcesses.clear();
        mListening.clear();
    }
};

nqStartedProcess* nqStartedProcess::Roster::find(pid_t pid) const
{
    const auto isThisOne = [pid](const nqStartedProcess* process) { return process->mPid == pid; };
    const auto found = std::find_if(mProcesses.rbegin(), mProcesses.rend(), isThisOne);
    return found == mProcesses.rend() ? nullptr : *found;
}

nqStartedProcess* nqStartedProcess::Roster::latestOf(const std::string& server) const
{
    const auto belongs = [&](const nqStartedProcess* process) {
        return process->belongsTo(server);
    };
    const auto found = std::find_if(mProcesses.rbegin(), mProcesses.rend(), belongs);
    return found == mProcesses.rend() ? nullptr : *found;
}

// The latest, since the number of one that has ended may be in use again.
nqStartedProcess* nqStartedProcess::Roster::inGroup(const std::string& server, pid_t group) const
{
    const auto leads = [&](const nqStartedProcess* process) {
        return process->mPid == group && process->belongsTo(server);
    };
    const auto found = std::find_if(mProcesses.rbegin(), mProcesses.rend(), leads);
    return found == mProcesses.rend() ? nullptr : *found;
}

bool nqStartedProcess::Roster::isListenedFor(const nqStartedProcess& process) const
{
    return std::any_of(mListening.begin(), mListening.end(), [&](const std::string& name) {
        return process.belongsTo(name);
    });
}

nqStartedProcess::nqStartedProcess(std::string executable, std::vector<std::string> arguments)
    : mExecutable(std::move(executable)),
      mArguments(std::move(arguments))
{
    nqForkSafe<Roster>::access()->mProcesses.push_back(this);
}

nqStartedProcess::~nqStartedProcess()
{
    const auto roster = nqForkSafe<Roster>::access();
    std::vector<nqStartedProcess*>& processes = roster->mProcesses;
    processes.erase(std::remove(processes.begin(), processes.end(), this), processes.end());
}

void nqStartedProcess::noteStart(pid_t pid) noexcept
{
    const auto roster = nqForkSafe<Roster>::access();
    mPid = pid;
}

bool nqStartedProcess::isAwaited() const noexcept
{
    const auto roster = nqForkSafe<Roster>::access();
    return !mHasEnded && mConnectedTo.empty() && roster->isListenedFor(*this);
}

void nqStartedProcess::noteKill() noexcept
{
    const auto roster = nqForkSafe<Roster>::access();
    mHasEnded = true;
    mEndIsTold = true;
}

void nqStartedProcess::noteEnd(const std::optional<nqChildEnd>& end) noexcept
{
    bool isAwaited = false;
    {
        const auto roster = nqForkSafe<Roster>::access();
        mHasEnded = true;
        isAwaited = mConnectedTo.empty() && roster->isListenedFor(*this);
    }
    if (isAwaited && end)
        reportEnd(mPid, *end);
}

void nqStartedProcess::killPeer() const noexcept
{
    const auto roster = nqForkSafe<Roster>::access();
    if (mPeer.isOpen())
        pidfdSendSignal(mPeer.get(), SIGKILL);
}

void nqStartedProcess::noteListening(const std::string& name)
{
    nqForkSafe<Roster>::access()->mListening.push_back(name);
}

void nqStartedProcess::noteClosed(const std::string& name) noexcept
{
    const auto roster = nqForkSafe<Roster>::access();
    std::vector<std::string>& names = roster->mListening;
    const auto found = std::find(names.begin(), names.end(), name);
    if (found != names.end())
        names.erase(found);
}

std::optional<nqStart> nqStartedProcess::firstStart(const std::string& server)
{
    const auto roster = nqForkSafe<Roster>::access();
    for (const nqStartedProcess* process : roster->mProcesses) {
        if (process->belongsTo(server))
            return nqProcFile::startOf(process->mPid);
    }
    return std::nullopt;
}

bool nqStartedProcess::admit(
    const std::string& server, nqPeer& peer, const std::optional<nqStart>& firstStart)
{
    const auto roster = nqForkSafe<Roster>::access();
    nqStartedProcess* process = nullptr;
    if (peer.pid() > 0)
        process = roster->inGroup(server, groupOf(peer.pid()));
    if (process != nullptr && !process->mayConnectTo(server))
        return false;
    if (process == nullptr) {
        process = roster->latestOf(server);
        if (process == nullptr)
            return true;
        if (process->hasStraggler(peer, firstStart))
            return false;
    }
    if (process->mayConnectTo(server))
        process->noteConnection(server, peer);
    return true;
}

std::optional<pid_t> nqStartedProcess::awaited(const std::string& server)
{
    const auto roster = nqForkSafe<Roster>::access();
    const nqStartedProcess* const latest = roster->latestOf(server);
    if (latest == nullptr || !latest->mayConnectTo(server))
        return std::nullopt;
    return latest->mPid;
}

void nqStartedProcess::reportEnd(pid_t pid, const nqChildEnd& end) noexcept
{
    try {
        std::string text;
        {
            const auto roster = nqForkSafe<Roster>::access();
            nqStartedProcess* const process = roster->find(pid);
            if (process == nullptr || std::exchange(process->mEndIsTold, true))
                return;
            text = process->describe(end);
        }
        logError(text); // without the lock: a logger may start processes itself
    } catch (const std::bad_alloc&) {
        // A line of the log may be lost for want of memory.
    }
}

bool nqStartedProcess::belongsTo(const std::string& server) const
{
    return mPid != 0 && contains(mArguments, server);
}

bool nqStartedProcess::mayConnectTo(const std::string& server) const
{
    return !mHasEnded && !contains(mConnectedTo, server);
}

// Whether somebody whom an earlier launch has left behind has come in place of this, the latest,
// process.
bool nqStartedProcess::hasStraggler(nqPeer& peer, const std::optional<nqStart>& firstStart) const
{
    if (!firstStart || peer.pid() <= 0)
        return false;
    const std::optional<nqStart> latestStart = nqProcFile::startOf(mPid);
    if (!latestStart)
        return false;
    const std::optional<nqStart> peerStart = peer.readStart();
    if (!peerStart) // one that is dead cannot show that it is not
        return peer.isKnownDead();
    return *firstStart < *peerStart && *peerStart < *latestStart;
}

// A peer in another session, or the init of a PID namespace, is out of the reach of signals to the
// group. One that is older than the process connects on its behalf, and is left alone.
void nqStartedProcess::noteConnection(const std::string& server, nqPeer& peer)
{
    mConnectedTo.push_back(server);
    if (peer.pid() == mPid)
        return;
    const std::optional<nqStart> ownStart = nqProcFile::startOf(mPid);
    const std::optional<nqStart> peerStart = peer.readStart();
    if (!ownStart || !peerStart || *ownStart < *peerStart)
        mPeer = peer.duplicateWatch();
}

std::string nqStartedProcess::describe(const nqChildEnd& end) const
{
    std::string text = mExecutable + " (pid " + std::to_string(mPid);
    if (end.mSignal != 0) {
        const char* const name = ::sigdescr_np(end.mSignal);
        text += ") was ended by signal " + std::to_string(end.mSignal);
        text += name != nullptr ? " (" + std::string(name) + ")" : "";
        text += end.mDumpedCore ? " with a core dump" : "";
    } else {
        text += ") left with exit status " + std::to_string(end.mExitStatus);
    }
    text += " before it connected";
    if (end.mSignal == 0 && end.mExitStatus == loaderFailedExitStatus)
        text += "; this status often means a missing shared library: run it by hand to see which";
    return text;
}

} // namespace nq
