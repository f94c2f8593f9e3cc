#pragma once

#include "system/linux/nqChild.h"
#include "system/linux/nqDescriptor.h"
#include "system/linux/nqPeer.h"

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace nq {

/// What servers must know about one process that an nqProcess has started, for as long as that
/// nqProcess exists. A process belongs to a server when the server's name is among its arguments.
///
/// A launch takes the oldest connection for its worker's. A connection too many would therefore be
/// taken for the next worker's, whose real one would then be left over, and whoever waits for that
/// worker to leave would wait for ever. So each process gets one connection, none after its end,
/// and none for what an earlier one has left behind.
///
/// Start times are counted in clock ticks of 10 ms, within which the number tells, and a process
/// that forks later looks younger than it is. This guards against accidents, not against anybody
/// who wants to get in.
///
/// Any thread may call. After a fork, the child knows none of its parent's processes.
class nqStartedProcess {
public:
    /// About to be started. The executable is for messages.
    nqStartedProcess(std::string executable, std::vector<std::string> arguments);
    ~nqStartedProcess();

    nqStartedProcess(const nqStartedProcess&) = delete;
    nqStartedProcess& operator=(const nqStartedProcess&) = delete;

    /// It leads a process group of its own and is executing.
    void noteStart(pid_t pid) noexcept;

    /// Whether a server listens for it and nobody has connected in its place so far.
    bool isAwaited() const noexcept;

    /// It is being killed: nobody of its group may connect any more.
    void noteKill() noexcept;

    /// It has been reaped. Says so in the log when a server that listens has waited for it in vain.
    void noteEnd(const std::optional<nqChildEnd>& end) noexcept;

    /// Kills the process that connected in its place, if that was not the process itself.
    void killPeer() const noexcept;

    /// @name For a server
    /// @{

    /// Begins and ends to listen under `name`.
    static void noteListening(const std::string& name);
    static void noteClosed(const std::string& name) noexcept;

    /// When the oldest process of the server was started; nothing while there is none.
    static std::optional<nqStart> firstStart(const std::string& server);

    /// Whether `peer` gets in, which is noted. `firstStart` is that of the first process which the
    /// server ever had.
    static bool
    admit(const std::string& server, nqPeer& peer, const std::optional<nqStart>& firstStart);

    /// The latest process of the server, unless it has connected, or is known to have ended.
    static std::optional<pid_t> awaited(const std::string& server);

    /// Says in the log how the process with this number has ended before it connected; once.
    static void reportEnd(pid_t pid, const nqChildEnd& end) noexcept;

    /// @}

private:
    struct Roster;

    bool belongsTo(const std::string& server) const;
    bool mayConnectTo(const std::string& server) const;
    bool hasStraggler(nqPeer& peer, const std::optional<nqStart>& firstStart) const;
    void noteConnection(const std::string& server, nqPeer& peer);
    std::string describe(const nqChildEnd& end) const;

    const std::string mExecutable;
    const std::vector<std::string> mArguments;
    pid_t mPid = 0;                        // 0 until it was started
    bool mHasEnded = false;                // killed or reaped
    bool mEndIsTold = false;               // in the log, or not worth a line
    std::vector<std::string> mConnectedTo; // servers that have let somebody in for it
    nqDescriptor mPeer;                    // a pidfd of who that was, unless it was the process
};

} // namespace nq
