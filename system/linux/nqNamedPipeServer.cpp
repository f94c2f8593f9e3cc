#include "system/nqNamedPipeServer.h"

#include "system/linux/nqDeadline.h"
#include "system/linux/nqDescriptor.h"
#include "system/linux/nqLaunchWatch.h"
#include "system/linux/nqNamedPipePrivate.h"
#include "system/linux/nqPeer.h"
#include "system/linux/nqPipeSocket.h"
#include "system/linux/nqStartedProcess.h"
#include "system/linux/nqSystemCall.h"
#include "system/nqOwnerProcess.h"

#include <cerrno>
#include <chrono>
#include <deque>
#include <memory>
#include <optional>
#include <poll.h>
#include <set>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace nq {

namespace {

// A forked child drops its copies of descriptors at its exec, within milliseconds.
constexpr int formerNameTimeoutMs = 1'000;
constexpr std::chrono::milliseconds formerNameRetryInterval{1};

// Connections refused after the time is up: enough that a stray one does not hide the good one
// behind it, and bounded, so that a flood of them does not hold up the caller forever.
constexpr int maxLateRefusals = 64;

// The peer is probed first: whatever it sent before it died is in the socket by then.
bool probeSilentHangUp(const nqDescriptor& socket, nqPeer& peer)
{
    const bool died = peer.probeDeath();
    char byte = 0;
    const ssize_t waiting =
        retryOnSignal([&] { return ::recv(socket.get(), &byte, sizeof byte, MSG_PEEK); });
    if (waiting > 0)
        return false;
    const bool mayStillSend = waiting < 0 && errno == EAGAIN;
    return died || !mayStillSend;
}

enum class Acceptance {
    accepted,
    refused, // a connection was closed that must not get in
    nobody,  // no connection is queued
    failed,  // out of descriptors or memory, or no longer a listening socket
};

enum class WaitOutcome {
    connected,
    failed,       // as Acceptance::failed
    launchFailed, // the process that was to connect has ended, and its group with it
    timedOut,
};

Acceptance outcomeOfFailedAccept()
{
    switch (errno) {
    case EAGAIN:
        return Acceptance::nobody;
    case ECONNABORTED:
        return Acceptance::refused;
    default:
        return Acceptance::failed;
    }
}

} // namespace

struct nqNamedPipeServer::Private {
    nqOwnerProcess mOwner;                             // a forked child's copy does nothing
    nqDescriptor mListener;                            // open while listening
    std::string mName;                                 // of mListener, or the last one's
    std::set<std::string> mUsedNames;                  // every name that it ever listened under
    std::deque<std::unique_ptr<nqNamedPipe>> mPending; // accepted and not taken, oldest first
    std::optional<nqStart> mFirstStart; // of the first process ever started for mName

    bool bindTo(int socket, const nqPipeAddress& address, const std::string& name) const;
    bool admit(const nqDescriptor& socket, nqPeer& peer) const;
    Acceptance acceptOne();
    WaitOutcome awaitConnection(nqLaunchWatch& launch, const nqDeadline& deadline);
};

// A name that is taken is refused at once, unless this server gave it up itself: a child that
// another thread has just forked may hold the old listening socket until its exec. Nothing reports
// that exec, so the name is tried again at short intervals.
bool nqNamedPipeServer::Private::bindTo(
    int socket, const nqPipeAddress& address, const std::string& name) const
{
    const bool mayBecomeFree = mUsedNames.count(name) != 0;
    const nqDeadline deadline(mayBecomeFree ? formerNameTimeoutMs : 0);
    for (;;) {
        if (retryOnSignal([&] { return ::bind(socket, address.get(), address.mSize); }) == 0)
            return true;
        if (errno != EADDRINUSE || deadline.hasPassed())
            return false;
        std::this_thread::sleep_for(formerNameRetryInterval);
    }
}

bool nqNamedPipeServer::Private::admit(const nqDescriptor& socket, nqPeer& peer) const
{
    return peer.belongsToThisUser() && !probeSilentHangUp(socket, peer) &&
           nqStartedProcess::admit(mName, peer, mFirstStart);
}

Acceptance nqNamedPipeServer::Private::acceptOne()
{
    const int accepted = retryOnSignal(
        [&] { return ::accept4(mListener.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC); });
    if (accepted < 0)
        return outcomeOfFailedAccept();
    nqDescriptor socket(accepted);
    if (!socket.isOpen())
        return Acceptance::failed;
    nqPeer peer(socket.get());
    if (!admit(socket, peer)) {
        shutDownAndClose(socket);
        return Acceptance::refused;
    }
    auto pipe = std::make_unique<nqNamedPipe>();
    pipe->mPrivate->adopt(std::move(socket), std::move(peer));
    mPending.push_back(std::move(pipe));
    return Acceptance::accepted;
}

WaitOutcome
nqNamedPipeServer::Private::awaitConnection(nqLaunchWatch& launch, const nqDeadline& deadline)
{
    for (int lateRefusals = 0;;) {
        // Probed before the accept, so that a connection made before the end is not missed.
        const bool launchHasFailed = launch.probeFailure();
        switch (acceptOne()) {
        case Acceptance::accepted:
            return WaitOutcome::connected;
        case Acceptance::failed:
            return WaitOutcome::failed;
        case Acceptance::refused:
            if (deadline.hasPassed() && ++lateRefusals > maxLateRefusals)
                return WaitOutcome::timedOut;
            break;
        case Acceptance::nobody:
            if (launchHasFailed)
                return WaitOutcome::launchFailed;
            if (!launch.wait(mListener.get(), deadline))
                return WaitOutcome::timedOut;
            break;
        }
    }
}

nqNamedPipeServer::nqNamedPipeServer()
    : mPrivate(std::make_unique<Private>())
{
}

nqNamedPipeServer::~nqNamedPipeServer()
{
    closeNamedPipeServer();
}

bool nqNamedPipeServer::listenUtf8(const std::string& name)
{
    if (!mPrivate->mOwner.isThisProcess())
        return false;
    if (mPrivate->mListener.isOpen() && mPrivate->mName == name)
        return true;
    closeNamedPipeServer();
    const auto address = makePipeAddress(name);
    if (!address)
        return false;
    nqDescriptor listener = openPipeSocket();
    if (!listener.isOpen() || !mPrivate->bindTo(listener.get(), *address, name))
        return false;
    if (::listen(listener.get(), SOMAXCONN) != 0)
        return false;
    mPrivate->mUsedNames.insert(name);
    nqStartedProcess::noteListening(name);
    if (mPrivate->mName != name)
        mPrivate->mFirstStart.reset();
    mPrivate->mName = name;
    listener.moveOutOfRangeOfSelect();
    mPrivate->mListener = std::move(listener);
    return true;
}

void nqNamedPipeServer::processPipeServerEvents(int)
{
    // Connections are accepted only by waitForNewConnection(), and there is nothing else to do.
}

bool nqNamedPipeServer::waitForNewConnection(int timeoutMs, bool* timedOut)
{
    if (timedOut)
        *timedOut = false;
    if (!mPrivate->mListener.isOpen() || !mPrivate->mOwner.isThisProcess())
        return false;
    if (!mPrivate->mFirstStart)
        mPrivate->mFirstStart = nqStartedProcess::firstStart(mPrivate->mName);
    const nqDeadline deadline(timeoutMs);
    nqLaunchWatch launch(mPrivate->mName);
    const WaitOutcome outcome = mPrivate->awaitConnection(launch, deadline);
    if (outcome == WaitOutcome::launchFailed || outcome == WaitOutcome::timedOut)
        launch.report();
    if (timedOut)
        *timedOut = outcome == WaitOutcome::timedOut;
    return outcome == WaitOutcome::connected;
}

bool nqNamedPipeServer::hasPendingConnections() const
{
    return !mPrivate->mPending.empty();
}

std::unique_ptr<nqNamedPipe> nqNamedPipeServer::takePendingConnection()
{
    if (mPrivate->mPending.empty())
        return nullptr;
    auto oldest = std::move(mPrivate->mPending.front());
    mPrivate->mPending.pop_front();
    return oldest;
}

void nqNamedPipeServer::closeNamedPipeServer()
{
    if (mPrivate->mListener.isOpen() && mPrivate->mOwner.isThisProcess()) {
        nqStartedProcess::noteClosed(mPrivate->mName);
        shutDownAndClose(mPrivate->mListener);
    }
    mPrivate->mListener.close();
    mPrivate->mPending.clear();
}

} // namespace nq
