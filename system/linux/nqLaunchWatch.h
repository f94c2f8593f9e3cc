#pragma once

#include "system/linux/nqChild.h"
#include "system/linux/nqDeadline.h"
#include "system/linux/nqDescriptor.h"

#include <optional>
#include <string>
#include <sys/types.h>

namespace nq {

/// Follows the process whose connection a server waits for, so that nobody waits for one that
/// cannot come any more: that of a worker which crashed, or left with an error, before it
/// connected.
///
/// Only looks. The process is not reaped, since what it has forked would be killed over that.
class nqLaunchWatch {
public:
    /// Follows the latest process of `server`, if that has not connected yet.
    explicit nqLaunchWatch(const std::string& server);

    /// Looks. True when the process has ended by a signal or with a status other than 0, and
    /// nothing of its group is left. A status of 0 is how programs leave that go on in the
    /// background.
    bool findsFailure();

    /// Waits until `listener` has something to accept, or it is worth looking again. False when the
    /// deadline came first.
    bool wait(int listener, const nqDeadline& deadline);

    /// Says in the log how the process has ended, if it has.
    void report();

private:
    enum class Phase {
        running,   // or there is none: nothing is known against a connection
        endedWell, // somebody else may connect in its place, or nobody knows how it has ended
        endedBadly // what it has forked may still connect
    };

    void look();

    Phase mPhase = Phase::running;
    std::optional<pid_t> mPid;      // none: nobody to follow
    nqDescriptor mEndIsReadable;    // a pidfd; none where those are refused
    std::optional<nqChildEnd> mEnd; // how it has ended, if that is known
};

} // namespace nq
