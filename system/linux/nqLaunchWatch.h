#pragma once

#include "system/linux/nqChild.h"
#include "system/linux/nqDeadline.h"
#include "system/linux/nqDescriptor.h"

#include <optional>
#include <string>
#include <sys/types.h>

namespace nq {

/// Watches the process whose connection a server waits for, so that the wait ends when the process
/// has crashed, or exited with an error, before it connected.
///
/// Never reaps it: that would kill what it has forked, which may still connect.
class nqLaunchWatch {
public:
    /// Watches the latest process of `server`, if that has not connected yet.
    explicit nqLaunchWatch(const std::string& server);

    /// Checks the process. True when it has ended by a signal or with a status other than 0, and
    /// its group is empty. After status 0 a connection may still come: that is how a program exits
    /// that puts itself into the background.
    bool probeFailure();

    /// Waits until `listener` has something to accept, or it is time to probe again. False when the
    /// deadline came first.
    bool wait(int listener, const nqDeadline& deadline);

    /// Logs how the process has ended, if it has.
    void report();

private:
    enum class Phase {
        running,   // or there is no process to watch
        succeeded, // ended with status 0, or reaped by the host, which keeps the status to itself
        failed     // ended otherwise; what it has forked may still connect
    };

    void probe();

    Phase mPhase = Phase::running;
    std::optional<pid_t> mPid;      // none: no process to watch
    nqDescriptor mPidfd;            // none where pidfds are refused
    std::optional<nqChildEnd> mEnd; // how it has ended, if that is known
};

} // namespace nq
