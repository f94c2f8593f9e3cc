#pragma once

#include "system/linux/nqDescriptor.h"
#include "system/linux/nqProcFile.h"
#include "system/linux/nqWatchedDescriptor.h"

#include <optional>
#include <sys/socket.h>
#include <sys/types.h>

namespace nq {

/// The process at the other end of a connected Unix-domain socket, as the kernel recorded it when
/// the connection was made, and a watch on its death: the stream does not end while a process that
/// it forked holds the socket open.
class nqPeer {
public:
    /// Nobody: belongs to no user and never dies.
    nqPeer() = default;

    /// The peer of `socket`, which is connected.
    explicit nqPeer(int socket);

    /// Tries again to watch the peer of `socket`, if no descriptor was free for it before.
    void watchWith(int socket);

    /// Whether its effective user was ours when it connected or, as a server, began to listen.
    bool belongsToThisUser() const;

    /// 0 when it lives outside our PID namespace.
    pid_t pid() const
    {
        return mCredentials.pid;
    }

    /// Whether probeDeath() has found it dead.
    bool isKnownDead() const
    {
        return mDead;
    }

    /// Checks whether the process has died, remembers it, and closes the watch if so. One system
    /// call while it lives. A peer in this very process, or one that the kernel does not let us
    /// watch, is never found dead.
    bool probeDeath();

    /// Reads when it was forked; nothing once it has died, or where /proc does not tell.
    std::optional<nqStart> readStart();

    /// A copy of the watch, to signal the process by; none when it is not watched, or when the
    /// watch may have been opened on another process that got its pid.
    nqDescriptor duplicateWatch() const;

    /// Moves the watch below FD_SETSIZE while it `isSelectedOn`, if a number is free, and out of
    /// the way afterwards. Costs nothing when it is in place.
    void keepInRangeOfSelect(bool isSelectedOn);

    /// Makes `set` report the death as well; null ends that.
    void reportTo(nqEpoll* set);
    bool isInSet() const
    {
        return mWatch.isWatched();
    }

    /// Becomes readable when the process dies; -1 when it is not watched.
    int watch() const
    {
        return mWatch.get();
    }

private:
    ucred mCredentials{0, static_cast<uid_t>(-1), static_cast<gid_t>(-1)};
    nqWatchedDescriptor mWatch;  // a pidfd; closed once mDead
    bool mMayBeRecycled = false; // opened by pid on a kernel that could name the very peer
    bool mWasMovedDown = false;  // by keepInRangeOfSelect(), to be undone by it
    bool mDead = false;
};

} // namespace nq
