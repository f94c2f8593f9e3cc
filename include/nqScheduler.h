#pragma once

#include "nqExport.h"
#include "nqVersion.h"
#include "nqWorkerStatus.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace nq {

class nqSchedulerObserver;
class nqSchedulerPrivate;

/// Spreads jobs over a pool of worker processes on this machine. A job is an opaque buffer of
/// bytes; it comes back as a result, or as a failure that carries the job's bytes, a reason and a
/// message. A worker that crashes, hangs or eats memory costs the one job it holds and is replaced.
///
/// @par Threads
/// There is no thread and no lock: everything happens inside processScheduler(), which the host
/// calls again and again, and inside the three operations that pump by themselves:
/// waitForFinished(), stopScheduler() and the destructor. Time-outs and memory caps act only while
/// the host pumps. All operations of one object belong to one thread; different objects may live
/// on different threads.
///
/// A thread that pumps may be cancelled (pthread_cancel): it ends at the beginning of a pump or
/// where one waits, no job is lost, and the object can be used or destroyed on another thread
/// afterwards. A start that is cancelled is a start that failed. A stop that is cancelled can be
/// called again; once its jobs are drained, the object does nothing but stop. The destructor holds
/// a cancellation off until it is over.
///
/// @par Forked children
/// In a child that the host forks, its parent's schedulers start, stop and pump nothing, as is said
/// of calls from a logger below, and destroying one only frees the child's memory. Queues are
/// copies. A child may make schedulers of its own.
///
/// @par Blocking
/// The operations that pump may block, and so may startScheduler(), startWorker() and
/// healWorkers(), which wait for workers to connect. All others return at once.
///
/// @par Calls from a logger
/// The log is written from inside the operations, so a logger that lets an event loop run may call
/// back into the scheduler that is writing. The queues are open to it. startScheduler(),
/// startWorker(), stopScheduler(), waitForFinished(), processScheduler(), killWorker() and
/// healWorkers() do nothing there and return at once, false where they return something, without a
/// line in the log. Destroying the scheduler there ends the process with a message on standard
/// error.
///
/// @par Errors
/// Failures of jobs and workers are never exceptions. Only allocation and stream exceptions pass
/// through, and from the constructors the one that they name. None leaves the destructor. A failed
/// job whose failure cannot be stored is not lost: it is no longer counted by jobCount(), and every
/// later pump, waitForFinished() and stopScheduler() tries again to bring it to popFail(). A result
/// that cannot be stored is lost, and its job is no longer counted.
///
/// @par Ownership
/// What is passed in is copied, but for a job that is moved. Texts that are returned by reference
/// belong to the scheduler and live until they are set anew.
class NQ_API nqScheduler {
public:
    /// Why a job failed; killWorker() may give any but the first.
    enum FailReason : std::int32_t {
        NoFailure = 0,       ///< there was no failure to pop
        UnexpectedCrash = 1, ///< the worker died, or its pipe closed, before the result was whole
        TooMuchRam = 2,      ///< the worker passed the cap of setMaxCapMemory and was killed
        Timeout = 3          ///< the job passed the limit of setJobProcessTimeout; worker killed
    };

    /// No executable, no arguments, all limits off. Starts nothing. Like the other constructor,
    /// throws std::system_error when the kernel has no random bytes for the pipe's name.
    nqScheduler();

    /// The worker's executable and its arguments, in UTF-8. With `startProcessFlag` the workers'
    /// standard output and error go to the null device, without it to the host's; their standard
    /// input is the null device either way. The pipe's name is one more argument: the first with
    /// `prependChannelId`, else the last. Starts nothing and checks nothing.
    nqScheduler(
        const std::string& exePathUtf8,
        bool startProcessFlag,
        const std::vector<std::string>& argumentsUtf8,
        bool prependChannelId);

    /// Stops as stopScheduler() does, which may take long: every pending job is processed first.
    /// Results and failures that were not popped are dropped. Workers left over from a start that
    /// failed see their pipes close and are waited for without limit, but see
    /// setCaptureStandardError(). An exception in here ends the process.
    virtual ~nqScheduler();

    nqScheduler(const nqScheduler&) = delete;
    nqScheduler& operator=(const nqScheduler&) = delete;

    /// @name Configuration
    /// Frozen while the scheduler is started: a limit is then refused with false, the path and the
    /// arguments are left alone in silence. A limit of 0 is off. No range is checked.
    /// @{

    /// Bytes of resident memory; a worker seen above it at any pump pass is killed, idle or not.
    bool setMaxCapMemory(unsigned long bytes);

    /// Whole seconds a job may take; its worker is killed once a full second more has passed. The
    /// time runs from the moment a worker is given the job.
    bool setJobProcessTimeout(unsigned long seconds);

    /// Bytes of resident memory; a worker above it right after a job is replaced. No job is lost.
    bool setMaxCapMemoryAfterProcessingAJob(unsigned long bytes);

    /// Bytes of private writable memory that a worker may allocate (its soft RLIMIT_DATA, set once
    /// it has connected). Beyond it the worker's own allocations fail; a worker that ends over this
    /// loses its job to UnexpectedCrash. Thread stacks and private writable mappings of files
    /// count; the main thread's stack, shared memory and mappings that are only read do not. A
    /// kernel that refuses the limit leaves the worker without it, in silence.
    bool setMaxPhysicalMemory(unsigned long bytes);

    /// Whether each launch gives its worker a pipe of its own as standard error, in place of what
    /// the constructor's `startProcessFlag` says; off unless told otherwise. The host gets the
    /// reading ends from takeStandardError() and reads them: the kernel holds what is not read, 64
    /// KiB by default, and a worker that prints more than that blocks until somebody reads. The
    /// host does not read while the scheduler waits: a worker that prints so much before it has
    /// connected fails its launch. And one that was told to leave or has closed its pipe, whether
    /// it prints or not, is killed after 30 seconds, in a pump and in the destructor as well. A
    /// launch without a descriptor for the pipe fails. False while the scheduler is started.
    bool setCaptureStandardError(bool isCaptured);

    /// The worker's executable. A relative path counts from the host's current directory at each
    /// launch; PATH is not searched. Workers run in the executable's folder.
    void setExePathUtf8(const std::string& exePathUtf8);

    /// The worker's arguments, without its path and without the pipe's name, which comes first
    /// with `prependChannelId`, else last.
    void setArgumentsUtf8(const std::vector<std::string>& argumentsUtf8, bool prependChannelId);

    /// Who is told what happens to jobs and workers, see nqSchedulerObserver.h; null for nobody, as
    /// from the beginning. Borrowed until another one is set, or the destructor begins. False, and
    /// nothing changes, while the scheduler is started or starting, and in a forked child.
    bool setObserver(nqSchedulerObserver* observer);

    /// The executable as it was given.
    const std::string& exeUtf8Path() const;

    /// The arguments as they were given.
    const std::vector<std::string>& argumentsUtf8() const;

    /// Whether the pipe's name is the first argument; true unless told otherwise.
    bool prependChannelId() const;

    /// @}
    /// @name Start, stop, pump
    /// @{

    /// Listens, then launches `nbWorkers` workers one after the other, giving each
    /// `workerConnectionTimeout` milliseconds to connect (0 or less: no wait at all). Replacements
    /// are given the same time.
    ///
    /// False when already started, when the pipe cannot be listened on, when `nbWorkers` is above
    /// the limit (twice the hardware threads, at least 4; nothing is launched then), or when a
    /// launch failed. In the last two cases it goes on listening without being started: the
    /// configuration is open, and pump and stop do nothing. Workers that did launch stay alive
    /// until this object is destroyed, or until a later start, which launches `nbWorkers` more
    /// beside them, succeeds and is stopped. Each refusal is logged, but not one from a logger or
    /// in a forked child.
    bool startScheduler(unsigned long nbWorkers, int workerConnectionTimeout);

    /// Pumps until every job is resolved, then ends the workers one after the other: each has 30
    /// seconds to leave before it is killed. False when not started. Results and failures stay for
    /// pop and popFail, and the scheduler may be started again. When an exception leaves, nothing
    /// has been closed, and the scheduler is still started.
    bool stopScheduler();

    /// Pumps until no job is pending or in progress. There is no time limit: one hanging job
    /// without a job time-out, one empty job ever pushed, or one pending job when no worker is left
    /// keeps it waiting forever. It does not sleep while a result waits to be popped or no worker
    /// is left. Returns at once when not started.
    void waitForFinished();

    /// One pass over all workers, then a wait of at most `timeoutMs` milliseconds (0 or less: none)
    /// for a worker to say something. Does not wait when work is known to be ready: bytes to write,
    /// a result to pop, or a pending job and a worker to take it. Ended workers are replaced before
    /// it returns; launching a replacement blocks until its predecessor has ended and the new
    /// worker has connected. One that cannot be launched is logged and not tried again. Returns at
    /// once when not started. An allocation exception leaves only when every worker has had its
    /// turn.
    void processScheduler(int timeoutMs);

    /// One descriptor to add, once, to a loop of the host's own: poll(), select(), epoll, a GUI
    /// toolkit's notifier. Readable while processScheduler(0) has something to do, of which a
    /// result or failure that waits to be popped is no part: bytes or the end from a worker, a
    /// worker's death, room for the rest of a job, hasImmediateWork(). Level-triggered, and quiet
    /// otherwise: an idle pool wakes nobody up, nor does a worker that sends without a job or does
    /// not read. Limits need a tick besides, of some hundred milliseconds, in which the host calls
    /// processScheduler(0) as well. Not readable while the scheduler is not started.
    ///
    /// The number is below FD_SETSIZE and stays the same from the first call to the end of this
    /// object, over every stop and start. It is borrowed: never close or read it. -1, and a line in
    /// the log, when the kernel has no such number to give; the next call tries again. -1 in a
    /// forked child, and from a logger that asks first. A host that never calls this pays nothing.
    int waitDescriptor();

    /// Whether processScheduler(0) has something to do now by what the scheduler knows already: a
    /// pending job and a worker to take it, bytes to send that the kernel has not refused, bytes
    /// received for the job in flight, a worker known to be lost. After a pump that took in a
    /// result and handed out the next job, one more pump sends that job without another wait. False
    /// where processScheduler() does nothing.
    bool hasImmediateWork() const;

    /// Launches one more worker and waits for it to connect. For the library's own use. False, with
    /// a line in the log, when that failed.
    bool startWorker();

    /// @}
    /// @name Queues, first in, first out, open at any time
    /// @{

    /// Appends a copy; without memory for it, throws and appends nothing. Never push an empty job:
    /// it is accepted and counted, but never sent, and waitForFinished and stopScheduler then wait
    /// for it forever. Jobs of 2^31 bytes or more are not supported.
    void push(const std::vector<char>& job);

    /// The same without a copy: takes the job's memory and leaves `job` empty. Without memory for
    /// the entry, throws and leaves `job` as it was.
    void push(std::vector<char>&& job);

    /// Moves the oldest result into `result`. False, and `result` untouched, when there is none.
    /// The memory of a few large payloads is kept for the next ones until pop() finds neither a job
    /// nor a result, or until many payloads in a row had no use for them. What `result` held is
    /// among them, unless it is more than twice as large as the popped result; it is then freed at
    /// once.
    /// Results come in the order of their completion, and nothing ties them to their jobs but what
    /// the host put into the bytes.
    bool pop(std::vector<char>& result);

    /// Moves the oldest failure into the three arguments: the job's bytes as they were pushed, why
    /// it failed, and the text for people. False when there is none; the arguments are then empty,
    /// NoFailure and empty.
    bool popFail(std::vector<char>& job, FailReason& reason, std::string& message);

    /// Hands over the reading end of the standard error of the oldest launch that was not asked for
    /// yet, and the worker's process id. False, and nothing changes, when there is none. Call it
    /// after each start and pump until it says so.
    ///
    /// The descriptor belongs to the host, which closes it: non-blocking, close-on-exec, and often
    /// above the range of select(). It stays valid after the worker's end, so that the last words
    /// can be read, and reads as ended when nobody is left who could print there. Closed earlier,
    /// the worker gets SIGPIPE when it prints. What nobody takes is closed by the first pump or
    /// start after the one in which the worker has ended, or its launch has failed;
    /// waitForFinished() and stopScheduler() pump many times. An observer may call this too.
    bool takeStandardError(std::int64_t& pid, int& descriptor);

    /// Jobs that are neither a result nor a failure yet, pending or in a worker's hands.
    unsigned long jobCount() const;

    /// Results that wait for pop().
    unsigned long resultCount() const;

    /// Failures that wait for popFail().
    unsigned long failCount() const;

    /// Jobs that no worker has taken yet; jobCount() counts them as well.
    unsigned long pendingJobCount() const;

    /// Drops the jobs that no worker has taken yet. They are reported nowhere.
    void clearPendingJobs();

    /// Takes back the oldest of them instead: moves it into `job`. False, and `job` untouched, when
    /// there is none.
    bool takePendingJob(std::vector<char>& job);

    /// @}
    /// @name Workers, as far as the last pump has seen
    /// @{

    /// Workers that have not been found to have ended: a worker that is idle when it dies counts
    /// until the next pump. Fewer than were started: a replacement could not be launched. 0 while
    /// jobs are pending: nobody will take them.
    unsigned long workerCount() const;

    /// Those of them that hold a job.
    unsigned long busyWorkerCount() const;

    /// Each of them, oldest launch first. Reads each one's memory from the kernel.
    std::vector<nqWorkerStatus> workers() const;

    /// Kills one worker at once, as a limit does, and returns without waiting for its end; a later
    /// pump finds it gone and replaces it. The job that it holds fails with `reason` and `message`,
    /// unless the worker has already sent the result, which wins. If it holds none, they go
    /// nowhere.
    ///
    /// False, and nothing changes, when no worker of that pid is listed, when it is leaving
    /// already, and when `reason` is none of those that a job fails with. A worker that has died
    /// since the last pump is not known to be dead: true, and its job fails with this reason.
    bool killWorker(std::int64_t pid, FailReason reason, const std::string& message);

    /// Launches what the pool lacks of the number that was started, one after the other, waiting
    /// for each to connect. A launch that fails is logged and ends the attempt. Does nothing while
    /// nothing lacks. True when the pool is whole; false otherwise and when not started.
    ///
    /// The pump tries each replacement once, and without a worker it has nothing to wait for. A
    /// host whose workerCount() is 0 while jobs are pending heals, or gives up: pumping on would
    /// only take a processor's whole time.
    bool healWorkers();

    /// @}

private:
    std::unique_ptr<nqSchedulerPrivate> mPrivate;
};

} // namespace nq
