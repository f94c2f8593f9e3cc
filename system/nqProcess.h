#pragma once

#include "nqExport.h"
#include "nqOwnedDescriptor.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace nq {

/// One child process and, with it, the process group that it leads, in a session of its own.
///
/// The child lives at most as long as its host: when the host ends by any means, SIGKILL included,
/// the kernel kills the child's whole group. The same happens when this object is destroyed. The
/// child cannot leave its group; what it forked and moved into another one escapes both.
///
/// Without a controlling terminal, the child is out of reach of job control and of the terminal's
/// keys, and may print on a terminal that stops background output. One that opens a terminal device
/// itself should use O_NOCTTY, or it gets it as its controlling terminal.
///
/// Installs no signal handler and never waits for children that it did not start, so the host's
/// other children stay the host's. A host that ignores SIGCHLD or reaps every child itself is
/// served too.
///
/// @par Threads
/// Not locked: one thread per object; different objects may be used on different threads.
///
/// @par Forked children
/// In a child of the process that made it, an object starts, kills and waits for nothing, and says
/// that its process has ended. Destroying it leaves the parent's process alone.
///
/// @par Blocking
/// waitForFinished() waits as long as it is told to, startProcess() until the child runs its
/// program, the destructor up to a second. Nothing else waits.
///
/// @par Errors
/// What fails is a return value. Only allocation exceptions pass through.
class NQ_API nqProcess {
public:
    /// The life of the process.
    enum ProcessState : int {
        NotStarted = 0, ///< startProcess was not called or failed
        Running = 1,    ///< started, and not known to have ended
        Ended = 2       ///< ended and reaped; its pid is never used again
    };

    /// How nice the child is: as the host, or nicer if the host is not that nice already.
    enum ProcessPriority : int {
        InheritedPriority = 0, ///< as nice as the host
        LowPriority = 1,       ///< a niceness of 10
        IdlePriority = 2       ///< a niceness of 19
    };

    /// How the process has ended, and what it has used.
    struct End {
        int mExitStatus = 0;      ///< when no signal ended it
        int mSignal = 0;          ///< the signal that ended it; 0: none
        bool mDumpedCore = false; ///< by that signal

        /// Processor time, with that of those of its children that it has waited for.
        std::chrono::microseconds mUserTime{};
        std::chrono::microseconds mSystemTime{}; ///< likewise, inside the kernel

        /// The most resident memory in bytes that it, or a child that it has waited for, ever had;
        /// 0 when unknown. A process starts with the host's own peak in its books, so that nothing
        /// is known of one that stayed below.
        std::uint64_t mPeakMemory = 0;
    };

    /// For waitForFinished(), in place of a number of milliseconds.
    static constexpr unsigned int withoutLimit = 0xFFFFFFFF;

    /// No process yet.
    nqProcess();

    /// Kills whatever is left of the process's group and leaves no zombie behind. Returns as soon
    /// as the process has ended, and after a short wait in any case: a process that the kernel
    /// cannot end yet is reaped by a later operation on any nqProcess.
    virtual ~nqProcess();

    nqProcess(const nqProcess&) = delete;
    nqProcess& operator=(const nqProcess&) = delete;

    /// Directory that the child is started in; an empty text means the host's current one. UTF-8.
    void setWorkingDirectory(const std::string& directoryUtf8);

    /// Gives the child a pipe of its own as standard error, whatever silenceOutput says. To be
    /// called before it is started. What the child prints stays in the kernel until it is read; the
    /// child blocks when that has no more room, 64 KiB by default, and gets SIGPIPE once the
    /// reading end is closed.
    void captureStandardError();

    /// The reading end of that pipe: close-on-exec, non-blocking, and above the range of select()
    /// where the limit of descriptors allows it. Its end shows when nobody is left who could print
    /// there. None when it was taken before, or is not captured.
    nqOwnedDescriptor takeStandardError();

    /// Starts `exePathUtf8` with `arguments` (the path itself is not among them). True when the
    /// program is running; false when it could not be executed, and then getState() is not Running
    /// and nothing is left behind; a line of the log says why. Can be called once per object; a
    /// further call returns false.
    ///
    /// A relative path counts from the host's current directory; PATH is not searched. The child
    /// gets the host's environment, an empty signal mask, default signal dispositions, a null
    /// standard input, and no descriptor above 2. With `silenceOutput` its standard output and
    /// error go to the null device, else they are the host's; one that the host has closed or
    /// marked close-on-exec goes to the null device as well. Costs the same in a host with many
    /// threads and much memory as in a small one.
    bool startProcess(
        const std::string& exePathUtf8,
        const std::vector<std::string>& arguments,
        bool silenceOutput,
        ProcessPriority priority);

    /// The state now; reaps a process that has ended, without waiting. One that has exited with
    /// status 0 while a server waits for its connection counts as running: it may have put its
    /// program into the background.
    ProcessState getState() const;

    /// The process id; 0 when none was started. Kept after the end, for messages.
    std::int64_t getPid() const;

    /// How it has ended; nothing while it is not known to have ended, or when the host has reaped
    /// it or ignores SIGCHLD, which takes all of this away.
    std::optional<End> end() const;

    /// Why startProcess() has failed, as an errno; 0 when it has not, or when there is no number
    /// for it.
    int startError() const;

    /// Resident memory in bytes; 0 when the process has ended or was never started, or when its
    /// statistics cannot be opened, which every call tries again. Shared pages count in full.
    /// Otherwise one read of an open descriptor, cheap enough for every pass.
    std::uint64_t getCurrentRamInUse() const;

    /// Limits the private writable memory (heap, anonymous and private writable mappings) of the
    /// running child to `bytes`: its soft RLIMIT_DATA, which the kernel enforces at allocation, so
    /// that the child's allocations fail beyond it. What the child already has is not taken back.
    /// Thread stacks count; the main thread's stack, shared memory and mappings that are only read
    /// do not. A child may raise the limit again up to its hard limit. False when the child is not
    /// running or the kernel refuses.
    bool setWorkingSetMaxSize(std::uint64_t bytes);

    /// Kills the whole process group and returns at once, without waiting for the end. When a
    /// server let another process in for this one, from outside the group or from a PID namespace
    /// below, that one is killed too, unless it is older than this one. Nothing that has been
    /// reaped is signalled.
    void killProcess();

    /// Waits at most `timeoutMs` milliseconds for the end and reaps; 0 does not wait, withoutLimit
    /// waits until the end. True when the process has ended, or none was started.
    bool waitForFinished(unsigned int timeoutMs);

private:
    struct Private;
    std::unique_ptr<Private> mPrivate;
};

} // namespace nq
