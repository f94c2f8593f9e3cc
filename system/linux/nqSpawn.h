#pragma once

#include "system/linux/nqLeash.h"

#include <sys/types.h>

namespace nq {

/// What to start and how. Everything pointed to is borrowed for the call.
struct nqSpawnRequest {
    const char* mExecutable = nullptr;       // absolute path; PATH is not searched
    char* const* mArguments = nullptr;       // with the program's name first and null last
    const char* mWorkingDirectory = nullptr; // null: the host's
    bool mSilenceOutput = false;             // output and error go to the null device
    int mStandardError = -1;                 // the child's; -1: as mSilenceOutput says
    int mNiceness = 0;                       // 0: the host's; never lowers it
    const nqLeash* mLeash = nullptr;         // to be armed for the child's group
};

struct nqSpawnResult {
    enum class Step {
        preparing,          // descriptors, standard streams, session, leash
        enteringTheFolder,  // the working directory
        executingTheProgram // the executable, or what it needs to run
    };

    pid_t mPid = 0;                   // 0: not started
    Step mFailedAt = Step::preparing; // if not started
    int mError = 0;                   // errno of that
};

/// Starts a child that leads a session and a process group of its own, with an empty signal mask,
/// default dispositions, a null standard input, the host's environment and no descriptor above 2.
///
/// Returns once the program is executing; when it could not be started, no child is left behind.
/// Costs the same whatever the size of the host, and is safe in a host with many threads.
nqSpawnResult nqSpawn(const nqSpawnRequest& request);

} // namespace nq
