#pragma once

#include "system/linux/nqDescriptor.h"
#include "system/linux/nqProcFile.h"

#include <optional>
#include <sys/socket.h>
#include <sys/types.h>

namespace nq {

/// The process at the other end of a connected Unix-domain socket, as the kernel noted it when the
/// connection was made, and a watch on its life.
///
/// The stream alone does not tell that a process has died: one that it forked may still hold the
/// socket open.
class nqPeer {
public:
    /// Nobody: of no user, and never dead.
    nqPeer() = default;

    /// The peer of `socket`, which is connected.
    explicit nqPeer(int socket);

    /// Begins to watch a peer that there was no descriptor to spare for until now.
    void watchWith(int socket);

    /// Whether its effective user was ours when it connected (or, for a server, began to listen).
    bool belongsToThisUser() const;

    /// 0 when it lives outside our pid namespace.
    pid_t pid() const
    {
        return mCredentials.pid;
    }

    /// What hasDied() has found last, without looking.
    bool isKnownDead() const
    {
        return mDead;
    }

    /// Whether the process has died, which is remembered. Costs one system call while it lives, and
    /// none for a peer in this very process or one that the kernel does not let us watch; those are
    /// never reported dead.
    bool hasDied();

    /// When it was forked; nothing once it has died, or where /proc does not tell.
    std::optional<nqStart> start();

    /// A descriptor of the caller's own for the process, to signal it by; none when there is
    /// nothing to watch, or when the kernel, which could tell, does not tell that it is the very
    /// process.
    nqDescriptor duplicateWatch() const;

    /// Brings the watch into the range of select() while it `isSelectedOn`, if a number is free,
    /// and out of it afterwards. Costs nothing where it is as it should be.
    void keepInRangeOfSelect(bool isSelectedOn);

    /// Becomes readable when the process dies; -1 when there is nothing to watch.
    int watch() const
    {
        return mWatch.get();
    }

private:
    ucred mCredentials{0, static_cast<uid_t>(-1), static_cast<gid_t>(-1)};
    nqDescriptor mWatch;             // a pidfd, which never comes to mean another process
    bool mIsWatchedByNumber = false; // which may mean another process by then
    bool mWatchIsBroughtDown = false;
    bool mDead = false; // once true, the watch is closed
};

} // namespace nq
