#pragma once

#include "system/linux/nqChild.h"
#include "system/linux/nqDescriptor.h"
#include "system/linux/nqPeer.h"

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace nq {

/// The roster entry of one process: what servers know of it, for as long as its nqProcess exists. A
/// process belongs to a server when the server's name is among its arguments.
///
/// A launch takes the oldest connection for its worker's. A surplus connection would be taken as
/// the next worker's. That worker's own would then never be closed, and whoever waits for it to
/// exit would wait forever. So each process gets one connection, none after its end, and none for
/// stragglers, which an earlier process has left behind.
///
/// Start times have a resolution of 10 ms, within which the pid decides, and whoever forks anew
/// looks younger: this guards against accidents, not against attacks.
///
/// Any thread may call. A forked child starts with an empty roster.
class nqStartedProcess {
public:
    /// Of a process about to be started. The executable is for messages.
    nqStartedProcess(std::string executable, std::vector<std::string> arguments);
    ~nqStartedProcess();

    nqStartedProcess(const nqStartedProcess&) = delete;
    nqStartedProcess& operator=(const nqStartedProcess&) = delete;

    /// It is executing, and leads a process group of its own.
    void noteStart(pid_t pid) noexcept;

    /// Whether a server listens for it and has accepted nobody for it yet.
    bool isAwaited() const noexcept;

    /// It is about to be killed: nobody of its group may connect, and its end is not logged.
    void noteKill() noexcept;

    /// It has been reaped. Logs the end of a process that is still awaited.
    void noteEnd(const std::optional<nqChildEnd>& end) noexcept;

    /// Kills the process that connected for it, if that was another one.
    void killPeer() const noexcept;

    /// @name For a server
    /// @{

    static void noteListening(const std::string& name);
    static void noteClosed(const std::string& name) noexcept;

    /// When the server's oldest process was started; nothing while it has none.
    static std::optional<nqStart> firstStart(const std::string& server);

    /// Decides whether `peer` gets in, and notes for which process. `firstStart` is that of the
    /// first process that the server ever had.
    static bool
    admit(const std::string& server, nqPeer& peer, const std::optional<nqStart>& firstStart);

    /// The server's latest process, unless it has connected or is known to have ended.
    static std::optional<pid_t> awaitedPid(const std::string& server);

    /// Logs once how the process has ended before it connected.
    static void reportEnd(pid_t pid, const nqChildEnd& end) noexcept;

    /// @}

private:
    struct Roster;

    bool belongsTo(const std::string& server) const;
    bool mayConnectTo(const std::string& server) const;
    bool probeStraggler(nqPeer& peer, const std::optional<nqStart>& firstStart) const;
    void noteConnection(const std::string& server, nqPeer& peer);
    std::string describe(const nqChildEnd& end) const;

    const std::string mExecutable;
    const std::vector<std::string> mArguments;
    pid_t mPid = 0;                        // 0 until it is executing
    bool mHasEnded = false;                // being killed, or reaped
    bool mEndIsTold = false;               // logged, or not to be logged
    std::vector<std::string> mConnectedTo; // servers that have accepted somebody for it
    nqDescriptor mPeer; // pidfd of the one accepted, if another process, and not older
};

} // namespace nq
