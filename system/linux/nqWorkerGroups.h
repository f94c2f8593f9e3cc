#pragma once

#include <sys/types.h>

namespace nq {

/// What has become of the process groups that nqProcess started, as far as a server must know
/// before it hands out a connection.
///
/// A launch takes the oldest connection for its worker's. A connection too many would therefore be
/// taken for the next worker's, whose real one would then be left over, and whoever waits for that
/// worker to leave would wait for ever. Two kinds are one too many: that of a process that has been
/// killed, which may have connected a moment before it died and may take long to die, and a second
/// one from the same group. Groups that nqProcess did not start are not judged.
///
/// Any thread may call. Nothing is allocated, locked or ever destroyed: a host's static objects may
/// own workers until the very end, and a forked child may start some of its own.
class nqWorkerGroups {
public:
    /// A new process leads `group`.
    static void started(pid_t group);

    /// `group` has been killed, or its leader is gone.
    static void ended(pid_t group);

    /// A member of `group` has connected. Whether it may: once, and not after the end.
    static bool admits(pid_t group);
};

} // namespace nq
