#pragma once

#include "system/linux/nqLeash.h"

#include <sys/types.h>

namespace nq {

/// What nqSpawn starts and how. Everything pointed to is borrowed for the call.
struct nqSpawnRequest {
    const char* mExecutable = nullptr;       // absolute path; execve looks nowhere else
    char* const* mArguments = nullptr;       // with the program's name first and null last
    const char* mWorkingDirectory = nullptr; // null: the host's
    bool mSilenceOutput = false;             // 1 and 2 go to the null device
    int mNiceness = 0;                       // 0: the host's, which is also the least
    const nqLeash* mLeash = nullptr;         // armed for the group that the child leads
};

/// What came of a launch.
struct nqSpawnResult {
    enum class Step {
        preparing,          // descriptors, streams, the death watch
        enteringTheFolder,  // the working directory
        executingTheProgram // the executable, or what it needs to run
    };

    pid_t mPid = 0; // 0: it failed
    Step mFailedAt = Step::preparing;
    int mError = 0; // errno of the failure
};

/// Starts a child that leads a session and a process group of its own, with an empty signal mask,
/// default dispositions, a null standard input, the host's environment and no descriptor above 2.
///
/// Returns its process id once the program is executing; when it could not be started, no child is
/// left behind. Copies no memory of the host, whatever its size, and is safe in a host with many
/// threads: between vfork and exec there are only system calls.
nqSpawnResult nqSpawn(const nqSpawnRequest& request);

} // namespace nq
