#pragma once

#include "system/linux/nqDescriptor.h"

#include <cstdint>
#include <sys/types.h>

namespace nq {

/// One child of this process, from its start until it is reaped.
///
/// Watched through a pidfd, which means this process whatever becomes of its number. Where the
/// kernel or a sandbox refuses pidfds, the number serves, and is used only while the child is known
/// not to be reaped.
///
/// A host that ignores SIGCHLD, or that reaps every child itself, takes the exit status away. The
/// kernel then says that there is no such child, which means that it has ended.
class nqChild {
public:
    /// A child that this process has just started.
    explicit nqChild(pid_t pid);

    /// Looks without waiting and reaps. Once true, nothing may be called any more.
    bool hasEnded();

    /// Waits without limit for the end and reaps.
    void waitForEnd();

    /// Waits at most `timeoutMs` milliseconds; 0 looks once. True when it has ended and is reaped.
    bool waitForEnd(std::int64_t timeoutMs);

    /// Sends SIGKILL to this one process, and returns at once.
    void kill();

private:
    bool reap(int options);

    pid_t mPid;
    nqDescriptor mPidfd; // none where pidfds are refused
};

} // namespace nq
