#pragma once

#include "nqExport.h"
#include "nqNamedPipe.h"

#include <memory>
#include <string>

namespace nq {

/// The listening end of a named pipe. The name lives in the kernel's abstract socket namespace, so
/// nothing is ever on disk and nothing is left when the host is killed. Only processes of the same
/// effective user get in.
///
/// @par Threads
/// Not locked: one thread per object.
///
/// @par Blocking
/// Only waitForNewConnection() waits, as long as it is told to; listenUtf8() waits up to a second
/// for a name that this object has just given up.
///
/// @par Forked children
/// In a child of the process that made it, a server neither listens nor accepts, and destroying it
/// leaves the parent listening.
///
/// @par Errors
/// What fails is a return value. Only allocation exceptions pass through.
class NQ_API nqNamedPipeServer {
public:
    /// Idle: not listening.
    nqNamedPipeServer();

    /// Closes as closeNamedPipeServer() does.
    virtual ~nqNamedPipeServer();

    nqNamedPipeServer(const nqNamedPipeServer&) = delete;
    nqNamedPipeServer& operator=(const nqNamedPipeServer&) = delete;

    /// Listens under `name`, 1 to 107 bytes. True when listening; when it already listens under
    /// that very name, true and nothing changes; under another name, the old one is closed first.
    /// False, and not listening, when the name is refused or taken. A name that this object gave up
    /// a moment ago may still be held by a child of another thread on its way to exec; that is
    /// waited for, up to a second.
    bool listenUtf8(const std::string& name);

    /// Does what a server has to do between connections, for at most `timeoutMs` milliseconds;
    /// never blocks when that is 0. Only waitForNewConnection() accepts connections, so this costs
    /// nothing.
    void processPipeServerEvents(int timeoutMs);

    /// Waits up to `timeoutMs` milliseconds for a connection, 0 or less meaning not at all, and
    /// puts it at the end of the pending list. False when none came, when not listening, or when
    /// the process has no descriptor left. `*timedOut`, if given, says whether the time ran out.
    ///
    /// A process that an nqProcess has started with the name among its arguments belongs to this
    /// server. The wait ends early, within a second, when the latest of these has ended by a signal
    /// or with a status other than 0 before it connected, and nothing of its process group is left.
    /// After status 0 it goes on, as after a program that puts itself into the background, and so
    /// it does in a host that ignores SIGCHLD or reaps its children itself, which takes the status
    /// away. How the process has ended is logged, as far as that is known.
    ///
    /// Never accepted: a process of another user; a peer that has hung up without sending anything;
    /// a member of the group of a process of this server that has ended or has connected already; a
    /// straggler, forked after the first process of this server and before the latest. Start times
    /// have a resolution of 10 ms, and whoever forks anew looks younger: this guards against
    /// accidents, and against no attack. Where /proc is not there, stragglers are not told apart.
    bool waitForNewConnection(int timeoutMs, bool* timedOut);

    /// Whether accepted connections wait to be taken.
    bool hasPendingConnections() const;

    /// Takes the oldest pending connection; null when there is none. The caller owns it.
    std::unique_ptr<nqNamedPipe> takePendingConnection();

    /// Stops listening and closes the connections that were not taken. Those that were taken stay.
    void closeNamedPipeServer();

private:
    struct Private;
    std::unique_ptr<Private> mPrivate;
};

} // namespace nq
