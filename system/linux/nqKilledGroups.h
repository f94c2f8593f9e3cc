#pragma once

#include <sys/types.h>

namespace nq {

/// The process groups that nqProcess has killed lately.
///
/// A member of such a group may have connected a moment before it died, and may take long to die
/// when it has much memory to give back. A server must not hand out that connection: it would be
/// taken for the next worker's, whose real connection would then be left over, and whoever waits
/// for that worker to leave would wait for ever. Any thread may call.
class nqKilledGroups {
public:
    /// Remembers `group`; the oldest of many groups are forgotten.
    static void add(pid_t group);

    /// Forgets `group`, whose number a new process leads now.
    static void remove(pid_t group);

    static bool contains(pid_t group);
};

} // namespace nq
