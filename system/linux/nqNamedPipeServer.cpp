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

// A forked child drops its copies of descriptors when it reaches exec, which takes milliseconds.
constexpr int formerNameTimeoutMs = 1'000;
constexpr std::chrono::milliseconds formerNameRetryInterval{1};

// When the time has run out, a stray connection does not hide the good one queued behind it, and
// somebody who connects without end does not hold up the caller for ever.
constexpr int maxRefusalsOutOfTime = 64;

// The peer is asked first: what it sent before it died is in the socket by then.
bool hasHungUpInSilence(const nqDescriptor& socket, nqPeer& peer)
{
    const bool died = peer.hasDied();
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
    refused, // somebody connected who does not get in
    nobody,  // nobody waits to be accepted
    failed,  // no descriptor or memory is left, or this is no listening socket any more
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
    std::string mName;                                 // what it listens, or listened last, under
    std::set<std::string> mFormerNames;                // what it listened under before
    std::deque<std::unique_ptr<nqNamedPipe>> mPending; // accepted and not taken, oldest first

    std::optional<nqStart> mFirstStart; // of the first process that it ever had

    bool bindTo(int socket, const nqPipeAddress& address, const std::string& name) const;
    bool admit(const nqDescriptor& socket, nqPeer& peer) const;
    Acceptance acceptOne();
};

// A name in use is news at once, unless it is one that we gave up ourselves: a child that another
// thread has just forked then holds the old listening socket until its exec. The kernel reports
// nothing when it lets go, so the name is tried again at short intervals.
bool nqNamedPipeServer::Private::bindTo(
    int socket, const nqPipeAddress& address, const std::string& name) const
{
    const bool mayBecomeFree = mFormerNames.count(name) != 0;
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
    return peer.belongsToThisUser() && !hasHungUpInSilence(socket, peer) &&
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
    mPrivate->mFormerNames.insert(name);
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
    // Connections are wanted only where somebody waits for one, and nothing else needs care.
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
    int refusalsOutOfTime = 0;
    for (;;) {
        // Looked at before the listener, so that a connection made before the end is not missed.
        const bool launchHasFailed = launch.findsFailure();
        bool outOfTime = false;
        switch (mPrivate->acceptOne()) {
        case Acceptance::accepted:
            return true;
        case Acceptance::failed:
            return false;
        case Acceptance::refused:
            outOfTime = deadline.hasPassed() && ++refusalsOutOfTime > maxRefusalsOutOfTime;
            break;
        case Acceptance::nobody:
            if (launchHasFailed) {
                launch.report();
                return false;
            }
            outOfTime = !launch.wait(mPrivate->mListener.get(), deadline);
            break;
        }
        if (outOfTime) {
            launch.report();
            if (timedOut)
                *timedOut = true;
            return false;
        }
    }
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
