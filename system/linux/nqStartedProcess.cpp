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

// The dynamic loader's, after it has said on standard error what is missing.
constexpr int loaderFailedExitStatus = 127;

pid_t groupOf(pid_t pid)
{
    // For a process that is gone: it may have led its group.
    const pid_t group = ::getpgid(pid);
    return group > 0 ? group : pid;
}

bool contains(const std::vector<std::string>& texts, const std::string& text)
{
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

} // namespace

/// All processes in the order of their start, and the names that servers listen under.
struct nqStartedProcess::Roster {
    std::vector<nqStartedProcess*> mProcesses;
    std::vector<std::string> mListening;

    nqStartedProcess* withPid(pid_t pid) const;
    nqStartedProcess* latestOf(const std::string& server) const;
    nqStartedProcess* leaderOf(pid_t group, const std::string& server) const;
    bool isListenedFor(const nqStartedProcess& process) const;

    void resetInChild()
    {
        mProcesses.clear();
        mListening.clear();
    }

private:
    template <typename Predicate>
    nqStartedProcess* latest(Predicate isWanted) const
    {
        const auto found = std::find_if(mProcesses.rbegin(), mProcesses.rend(), isWanted);
        return found == mProcesses.rend() ? nullptr : *found;
    }
};

// The latest: the pid of one that has ended may have been recycled. Likewise in leaderOf.
nqStartedProcess* nqStartedProcess::Roster::withPid(pid_t pid) const
{
    return latest([&](const nqStartedProcess* process) { return process->mPid == pid; });
}

nqStartedProcess* nqStartedProcess::Roster::latestOf(const std::string& server) const
{
    return latest([&](const nqStartedProcess* process) { return process->belongsTo(server); });
}

nqStartedProcess* nqStartedProcess::Roster::leaderOf(pid_t group, const std::string& server) const
{
    return latest([&](const nqStartedProcess* process) {
        return process->mPid == group && process->belongsTo(server);
    });
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
    bool wasAwaited = false;
    {
        const auto roster = nqForkSafe<Roster>::access();
        mHasEnded = true;
        wasAwaited = mConnectedTo.empty() && roster->isListenedFor(*this);
    }
    if (wasAwaited && end)
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
        process = roster->leaderOf(groupOf(peer.pid()), server);
    if (process != nullptr && !process->mayConnectTo(server))
        return false;
    if (process == nullptr) {
        process = roster->latestOf(server);
        if (process == nullptr)
            return true;
        if (process->probeStraggler(peer, firstStart))
            return false;
    }
    if (process->mayConnectTo(server))
        process->noteConnection(server, peer);
    return true;
}

std::optional<pid_t> nqStartedProcess::awaitedPid(const std::string& server)
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
            nqStartedProcess* const process = roster->withPid(pid);
            if (process == nullptr || std::exchange(process->mEndIsTold, true))
                return;
            text = process->describe(end);
        }
        logError(text); // outside the lock: a logger may start processes itself
    } catch (const std::bad_alloc&) {
        // Out of memory, the line is lost.
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

// Whether the peer was left behind by an earlier process than this, the latest one.
bool nqStartedProcess::probeStraggler(nqPeer& peer, const std::optional<nqStart>& firstStart) const
{
    if (!firstStart || peer.pid() <= 0)
        return false;
    const std::optional<nqStart> latestStart = nqProcFile::startOf(mPid);
    if (!latestStart)
        return false;
    const std::optional<nqStart> peerStart = peer.readStart();
    // A dead peer's age can no longer be read: refused; a living one is let in.
    if (!peerStart)
        return peer.isKnownDead();
    return *firstStart < *peerStart && *peerStart < *latestStart;
}

// A signal to the group does not reach a peer in another session, or the init of a PID namespace,
// so its pidfd is kept. A peer older than the process connects on its behalf and is never killed.
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
