#pragma once

#include "system/linux/nqDescriptor.h"

#include <csignal>
#include <cstdint>
#include <optional>
#include <sys/resource.h>
#include <sys/types.h>

namespace nq {

/// How a process ended.
struct nqChildEnd {
    int mExitStatus = 0; // when no signal ended it
    int mSignal = 0;     // 0: none
    bool mDumpedCore = false;
    rusage mUsage{}; // known once it is reaped; with what its own reaped children have used

    /// What waitid() has filled in.
    static nqChildEnd of(const siginfo_t& ended);

    bool isSuccess() const
    {
        return mExitStatus == 0 && mSignal == 0;
    }
};

/// One child of this process, from its start until it is reaped.
///
/// Held by a pidfd, which never comes to mean another process. Where the kernel or a sandbox
/// refuses pidfds, its pid is used, but only while the child is known not to be reaped.
///
/// A host that ignores SIGCHLD, or reaps every child itself, takes the exit status away. The kernel
/// then reports no such child, which counts as ended.
class nqChild {
public:
    /// A child that this process has just started.
    explicit nqChild(pid_t pid);

    /// Whether it has ended by a signal or with a status other than 0, or the host has taken the
    /// status away. Neither waits nor reaps.
    bool hasFailed() const;

    /// Reaps it if it has ended, without waiting. Once true, only end() may be called.
    bool reapIfEnded();

    /// Waits without limit for its end and reaps it.
    void waitForEnd();

    /// Waits at most `timeoutMs` milliseconds, 0 meaning not at all. True when it is reaped.
    bool waitForEnd(std::int64_t timeoutMs);

    /// How it ended, once it is reaped; nothing when the host has taken the status away.
    const std::optional<nqChildEnd>& end() const
    {
        return mEnd;
    }

    /// Sends SIGKILL to this process alone, and returns at once.
    void kill();

private:
    bool reap(int options);
    bool wait(siginfo_t& ended, int options, rusage* usage) const;

    pid_t mPid;
    nqDescriptor mPidfd; // none where pidfds are refused
    std::optional<nqChildEnd> mEnd;
};

} // namespace nq
