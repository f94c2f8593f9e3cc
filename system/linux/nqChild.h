#pragma once

#include "system/linux/nqDescriptor.h"

#include <csignal>
#include <cstdint>
#include <optional>
#include <sys/types.h>

namespace nq {

/// How a process ended.
struct nqChildEnd {
    int mExitStatus = 0; // when no signal ended it
    int mSignal = 0;     // 0: none
    bool mDumpedCore = false;

    /// What waitid() has filled in.
    static nqChildEnd of(const siginfo_t& ended);

    bool isSuccess() const
    {
        return mExitStatus == 0 && mSignal == 0;
    }
};

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

    /// Looks without waiting or reaping. True when it has ended by a signal or with a status other
    /// than 0, or somebody else has taken the status away.
    bool hasFailed() const;

    /// Looks without waiting and reaps. Once true, only end() may be called any more.
    bool reapIfEnded();

    /// Waits without limit for the end and reaps.
    void waitForEnd();

    /// Waits at most `timeoutMs` milliseconds; 0 looks once. True when it has ended and is reaped.
    bool waitForEnd(std::int64_t timeoutMs);

    /// How it ended, once it was reaped; nothing when somebody else has taken that away.
    const std::optional<nqChildEnd>& end() const
    {
        return mEnd;
    }

    /// Sends SIGKILL to this one process, and returns at once.
    void kill();

private:
    bool reap(int options);
    bool look(siginfo_t& ended, int options) const;

    pid_t mPid;
    nqDescriptor mPidfd; // none where pidfds are refused
    std::optional<nqChildEnd> mEnd;
};

} // namespace nq
