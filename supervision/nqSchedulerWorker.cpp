// A worker's life on the scheduler's side, from top to bottom: its record is made, stepped once in
// each pass of the pump, and destroyed.
//
// Nothing here waits but the destructor. Only condemnIfOverLimit and killFor kill here (a stop that
// takes too long kills in nqSchedulerStartStop.cpp); the death is noticed by a later step. A job
// leaves in one of two places: receiveStep delivers its result, failCurrentJob hands it back. How
// it fails is decided before its first byte is sent, so the worker may be lost at any point.
#include "supervision/nqSchedulerWorker.h"

#include "include/nqScheduler.h"
#include "scheduler/nqJobQueues.h"
#include "supervision/nqEventLog.h"
#include "support/nqLogObject.h"
#include "system/nqHighResTimer.h"
#include "system/nqStringUtils.h"
#include "system/nqThread.h"
#include "worker/nqFrame.h"

#include <algorithm>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace nq {

namespace {

using Event = nqSchedulerEvent;

constexpr std::uint64_t msPerSecond = 1000;
constexpr std::string_view unexpectedCrash = "Unexpected crash";

std::string memoryText(std::uint64_t bytes)
{
    return nqStringUtils::humanizeNumberGeneric<unsigned long>(bytes, 3, 1, true, true, false) +
           "B";
}

std::string timeoutMessage(std::uint64_t elapsedSeconds)
{
    return "killing scheduler worker : timeout (" +
           nqStringUtils::humanizeDuration<unsigned long>(elapsedSeconds * msPerSecond, 1, false) +
           ")";
}

} // namespace

/// What the flags say, and the functions that alone change them:
///
/// - mReadyForJob, by beginJob and completeJob: no job is in flight, and mJob is empty. While it is
///   false, mJob holds the job, and mFailReason and mFailMessage say what it becomes if it fails.
/// - mKilled, by condemn: the process has been killed; it takes no new job. Never cleared.
/// - mFinished, by endRecord: the pump destroys the record and launches another worker. Never
///   cleared.
/// - mFailureOwed, by handBackFailedJob: the job in flight has failed, which is logged, and is no
///   longer counted; its failure is not stored yet.
class nqSchedulerWorkerPrivate {
public:
    nqSchedulerWorkerPrivate(
        std::unique_ptr<nqNamedPipe> pipe, std::unique_ptr<nqProcess> process, nqJobQueues* queues)
        : mPipe(std::move(pipe)),
          mQueues(queues),
          mProcess(std::move(process)),
          mPid(static_cast<std::uint64_t>(mProcess->getPid()))
    {
    }

    void beginJob();
    void completeJob();
    void condemn(Event::EndReason reason);
    void endRecord();

    std::uint64_t jobSeconds() const;
    std::uint64_t readMemory();

    bool isObserved() const;
    Event eventOf(Event::Kind kind, std::size_t bytes) const;
    void noteHandedOut();
    void noteResult(Event::Kind kind, std::size_t bytes);
    void noteFailure(std::size_t bytes);
    void noteEnd();

    std::unique_ptr<nqNamedPipe> mPipe; // null once closed
    // Borrowed; null when detached: nothing more is delivered. The pipe is then null as well, and
    // ends every step early, so that no check for null ever decides.
    nqJobQueues* mQueues;
    std::unique_ptr<nqProcess> mProcess;
    std::uint64_t mMaxCapMemory = 0;                    // bytes; 0 = off
    std::uint64_t mJobProcessTimeout = 0;               // whole seconds; 0 = off
    std::uint64_t mMaxCapMemoryAfterProcessingAJob = 0; // bytes; 0 = off
    nqHighResTimer mJobTimer;                           // started when a job is dispatched
    std::vector<char> mJob;       // kept after it is sent, since a failure hands it back
    std::vector<char> mFormerJob; // the job before, whose last bytes may still have to leave
    std::vector<char> mResult;    // being received
    // How the job in flight fails: armed by beginJob, overwritten by condemnIfOverLimit, used by
    // failCurrentJob.
    nqScheduler::FailReason mFailReason = nqScheduler::NoFailure;
    std::string mFailMessage;
    std::uint64_t mPid;         // read once, for messages
    std::int32_t mReceived = 0; // bytes of mResult
    std::int32_t mSent = 0;     // bytes of mJob handed to the pipe
    bool mReadyForJob = true;
    bool mFinished = false;
    bool mKilled = false;
    bool mFailureOwed = false;
    bool mPrintsToTheHost = false; // its standard error is a pipe to the host

    // For the observer.
    nqEventLog* mEvents = nullptr; // borrowed
    std::optional<nqHighResTimer> mSinceLaunch;
    std::uint64_t mLargestMemory = 0; // bytes, of the readings that the caps have taken
    Event::EndReason mEndReason = Event::EndReason::Stopped; // unless something else comes first
};

void nqSchedulerWorkerPrivate::beginJob()
{
    mReadyForJob = false;
    mFailReason = nqScheduler::UnexpectedCrash;
    mFailMessage = unexpectedCrash;
    mJobTimer.start();
}

/// The job is over: its result is whole, or it has failed. A worker may answer before it has read
/// all of its job, so the bytes that are lent to the pipe stay where they are.
void nqSchedulerWorkerPrivate::completeJob()
{
    mReadyForJob = true;
    mReceived = 0;
    mFormerJob = std::exchange(mJob, {});
}

void nqSchedulerWorkerPrivate::condemn(Event::EndReason reason)
{
    mProcess->killProcess();
    mKilled = true;
    mEndReason = reason;
}

void nqSchedulerWorkerPrivate::endRecord()
{
    mFinished = true;
}

/// Truncated, so that a time-out of T seconds acts once T + 1 seconds have passed.
std::uint64_t nqSchedulerWorkerPrivate::jobSeconds() const
{
    return static_cast<std::uint64_t>(mJobTimer.getElapsedTimeInSec());
}

std::uint64_t nqSchedulerWorkerPrivate::readMemory()
{
    const std::uint64_t bytes = mProcess->getCurrentRamInUse();
    mLargestMemory = std::max(mLargestMemory, bytes);
    return bytes;
}

bool nqSchedulerWorkerPrivate::isObserved() const
{
    return mEvents != nullptr && mEvents->isObserved();
}

Event nqSchedulerWorkerPrivate::eventOf(Event::Kind kind, std::size_t bytes) const
{
    Event event;
    event.mKind = kind;
    event.mPid = static_cast<std::int64_t>(mPid);
    event.mBytes = bytes;
    return event;
}

void nqSchedulerWorkerPrivate::noteHandedOut()
{
    if (!isObserved())
        return;
    Event event = eventOf(Event::Kind::JobHandedOut, mJob.size());
    event.mUnreadBytes = mPipe->untakenBytes();
    mEvents->note(event);
}

void nqSchedulerWorkerPrivate::noteResult(Event::Kind kind, std::size_t bytes)
{
    if (isObserved())
        mEvents->note(eventOf(kind, bytes));
}

/// The queue has its own copy of the message, which nobody needs here any more.
void nqSchedulerWorkerPrivate::noteFailure(std::size_t bytes)
{
    if (!isObserved())
        return;
    Event event = eventOf(Event::Kind::JobFailed, bytes);
    event.mFailReason = mFailReason;
    mEvents->note(event, std::move(mFailMessage));
}

/// Once the process has been reaped.
void nqSchedulerWorkerPrivate::noteEnd()
{
    if (!isObserved())
        return;
    Event event = eventOf(Event::Kind::WorkerEnded, 0);
    event.mEndReason = mEndReason;
    if (mSinceLaunch)
        event.mDuration = timeOn(*mSinceLaunch);
    setProcessEnd(event, mProcess->end());
    if (mLargestMemory != 0)
        event.mLargestReading = mLargestMemory;
    mEvents->note(event);
}

nqSchedulerWorker::nqSchedulerWorker(
    std::unique_ptr<nqNamedPipe> pipe, std::unique_ptr<nqProcess> process, nqJobQueues* queues)
    : mPrivate(
          std::make_unique<nqSchedulerWorkerPrivate>(std::move(pipe), std::move(process), queues))
{
}

void nqSchedulerWorker::superviseStep()
{
    nqSchedulerWorkerPrivate& state = *mPrivate;
    if (state.mPipe == nullptr || state.mFinished) {
        state.endRecord();
        return;
    }
    if (state.mFailureOwed) {
        storeOwedFailure();
        return;
    }

    state.mPipe->processNamedPipeEvents(0, false);
    if (condemnIfOverLimit())
        return;
    const bool hasBytes = !state.mPipe->isReadChannelClosed() && state.mPipe->untakenBytes() != 0;
    const bool jobJustCompleted = hasBytes && receiveStep();
    if (isLost())
        failCurrentJob();
    else
        sendStep(jobJustCompleted);
}

/// True when the worker was killed in this step, which happens at most once. The reason is stored
/// for the job that it may hold; if both limits are exceeded, the time-out wins.
bool nqSchedulerWorker::condemnIfOverLimit()
{
    nqSchedulerWorkerPrivate& state = *mPrivate;
    std::optional<Event::EndReason> verdict;
    if (state.mMaxCapMemory != 0) {
        const std::uint64_t ramInUse = state.readMemory();
        if (ramInUse > state.mMaxCapMemory && !state.mKilled) {
            state.mFailMessage = "using too much RAM (" + memoryText(ramInUse) + ")";
            state.mFailReason = nqScheduler::TooMuchRam; // after the text: its allocation may fail
            verdict = Event::EndReason::TooMuchMemory;
        }
    }
    if (state.mJobProcessTimeout != 0 && !state.mReadyForJob) {
        const std::uint64_t seconds = state.jobSeconds();
        if (seconds > state.mJobProcessTimeout && !state.mKilled) {
            state.mFailMessage = timeoutMessage(seconds);
            state.mFailReason = nqScheduler::Timeout;
            verdict = Event::EndReason::Timeout;
        }
    }
    if (verdict)
        state.condemn(*verdict);
    return verdict.has_value();
}

// Without a job the reason is armed for none: a killed worker gets no other.
bool nqSchedulerWorker::killFor(nqScheduler::FailReason reason, const std::string& message)
{
    if (!isLive())
        return false;
    mPrivate->mFailMessage = message;
    mPrivate->mFailReason = reason; // after the text: its allocation may fail
    mPrivate->condemn(Event::EndReason::KilledByTheHost);
    return true;
}

namespace {

void deliverResult(nqSchedulerWorkerPrivate& state, std::vector<char>&& result)
{
    const std::size_t bytes = result.size();
    try {
        state.mQueues->pushResult(std::move(result));
    } catch (...) {
        state.noteResult(Event::Kind::ResultLost, bytes);
        throw;
    }
    state.noteResult(Event::Kind::ResultComplete, bytes);
}

} // namespace

/// True when a whole result was taken in now. What a worker sends without a job stays unread.
bool nqSchedulerWorker::receiveStep()
{
    nqSchedulerWorkerPrivate& state = *mPrivate;
    if (state.mReadyForJob || state.mQueues == nullptr)
        return false;
    nqSpareMemory& spares = state.mQueues->spareMemory();
    if (!nqFrame::receive(*state.mPipe, state.mResult, state.mReceived, true, spares))
        return false;

    // Complete the job first: pushResult lowers the count before it may throw, which loses the
    // result, and a job still held here would be failed and counted down again.
    std::vector<char> result = std::exchange(state.mResult, {});
    state.completeJob();
    deliverResult(state, std::move(result));
    return true;
}

/// The first test is for a pipe that can close in one direction only; in nqNamedPipe a closed read
/// channel is a lost connection. getState() may reap the process.
bool nqSchedulerWorker::isLost() const
{
    const nqNamedPipe& pipe = *mPrivate->mPipe;
    if (pipe.isReadChannelClosed() && mPrivate->mProcess->getState() != nqProcess::Running)
        return true;
    return !pipe.isConnected();
}

void nqSchedulerWorker::sendStep(bool jobJustCompleted)
{
    nqSchedulerWorkerPrivate& state = *mPrivate;
    if (state.mReadyForJob) {
        if (state.mQueues == nullptr)
            return;
        if (jobJustCompleted && restartIfTooMuchRam())
            return;
        if (!startNextJob())
            return;
    }
    nqFrame::sendPayload(*state.mPipe, state.mJob, state.mSent); // of a new or a running job
}

/// The memory check right after a job, while the worker holds none, so that no job is lost. The
/// closed pipe tells the worker to leave; the pump waits for it and launches the replacement.
bool nqSchedulerWorker::restartIfTooMuchRam()
{
    nqSchedulerWorkerPrivate& state = *mPrivate;
    if (state.mMaxCapMemoryAfterProcessingAJob == 0)
        return false;
    const std::uint64_t ramInUse = state.readMemory();
    if (ramInUse <= state.mMaxCapMemoryAfterProcessingAJob)
        return false;

    if (!state.mKilled)
        state.mEndReason = Event::EndReason::MemoryAfterJob;
    closePipe();
    state.endRecord();
    nqLogObject(nqLog::Info, false)
        << "restarting scheduler worker : using too much RAM after job processing ("
        << memoryText(ramInUse) << ") (no job lost) (PID " << std::to_string(state.mPid) << ")";
    return true;
}

/// Takes the oldest pending job and appends its header, once the buffer is empty: a header that is
/// cut short is never completed. An empty job is dropped here: it is never sent, and the queues
/// count it as in progress for good.
bool nqSchedulerWorker::startNextJob()
{
    nqSchedulerWorkerPrivate& state = *mPrivate;
    state.mSent = 0;
    if (state.mPipe->unsentBytes() != 0)
        return false;
    state.mQueues->spareMemory().keep(std::move(state.mFormerJob));
    // Allocate first: once the job is taken, its failure must be armed and its header sent.
    state.mFailMessage.reserve(unexpectedCrash.size());
    state.mPipe->outgoingBuffer().reserve(nqFrame::headerBytes);
    if (state.mKilled || !state.mQueues->takeNextJob(state.mJob) || state.mJob.empty())
        return false;
    state.beginJob();
    state.noteHandedOut();
    nqFrame::sendHeader(*state.mPipe, state.mJob);
    return true;
}

namespace {

/// Logs the failure of the job in flight. If that throws, the line is lost but the job is not: the
/// exception is returned.
std::exception_ptr logFailedJob(const nqSchedulerWorkerPrivate& state)
{
    try {
        nqLogObject(nqLog::Info, false)
            << "Job failed error (" << std::to_string(state.mFailReason) << ") "
            << state.mFailMessage << " (PID " << std::to_string(state.mPid) << ")";
        return nullptr;
    } catch (const std::exception&) {
        return std::current_exception();
    }
}

/// The pipe of a lost worker sends no more, so without memory for the copy nothing is lost.
void takeBackLentBytes(nqNamedPipe& pipe) noexcept
{
    try {
        pipe.copyLent();
    } catch (const std::exception&) {
        pipe.closeNamedPipe();
    }
}

/// Counts the job down on the first call only.
void handBackFailedJob(nqSchedulerWorkerPrivate& state)
{
    nqJobQueues& queues = *state.mQueues;
    const std::size_t jobBytes = state.mJob.size();
    if (std::exchange(state.mFailureOwed, true))
        queues.storeFailedJob(std::move(state.mJob), state.mFailReason, state.mFailMessage);
    else
        queues.pushFailedJob(std::move(state.mJob), state.mFailReason, state.mFailMessage);
    state.mFailureOwed = false;
    state.noteFailure(jobBytes);
}

} // namespace

/// Ends the record of a lost worker; the job in flight, if there is one, goes back as failed. If
/// the failure cannot be stored, the record stays as it is and is stepped again.
void nqSchedulerWorker::failCurrentJob()
{
    nqSchedulerWorkerPrivate& state = *mPrivate;
    std::exception_ptr lostLine;
    if (!state.mReadyForJob) {
        if (state.mQueues != nullptr) {
            takeBackLentBytes(*state.mPipe); // the queue gets the memory
            if (!state.mFailureOwed)
                lostLine = logFailedJob(state);
            handBackFailedJob(state);
        }
        state.completeJob();
    }
    if (!state.mKilled)
        state.mEndReason = Event::EndReason::Lost;
    state.endRecord();
    if (lostLine != nullptr)
        std::rethrow_exception(lostLine);
}

void nqSchedulerWorker::storeOwedFailure()
{
    if (mPrivate->mFailureOwed)
        failCurrentJob();
}

void nqSchedulerWorker::closePipe()
{
    mPrivate->mQueues = nullptr;
    if (mPrivate->mPipe == nullptr)
        return;
    mPrivate->mPipe->closeNamedPipe();
    mPrivate->mPipe.reset();
}

nqSchedulerWorker::~nqSchedulerWorker()
{
    const nqThread::Uncancellable held;
    closePipe();
    // The host reads what the worker prints, but not in here: a worker that waits for it never
    // ends.
    if (mPrivate->mPrintsToTheHost && !leavesInTime(*mPrivate->mProcess))
        mPrivate->mProcess->killProcess();
    mPrivate->mProcess->waitForFinished(nqProcess::withoutLimit);
    mPrivate->noteEnd();
    mPrivate->mProcess.reset();
}

bool nqSchedulerWorker::leavesInTime(nqProcess& process)
{
    if (process.getState() == nqProcess::Running)
        process.waitForFinished(leaveMs);
    return process.getState() != nqProcess::Running;
}

void nqSchedulerWorker::setPrintsToTheHost()
{
    mPrivate->mPrintsToTheHost = true;
}

void nqSchedulerWorker::setMaxCapMemory(std::uint64_t bytes)
{
    mPrivate->mMaxCapMemory = bytes;
}

void nqSchedulerWorker::setJobProcessTimeout(std::uint64_t seconds)
{
    mPrivate->mJobProcessTimeout = seconds;
}

void nqSchedulerWorker::setMaxCapMemoryAfterProcessingAJob(std::uint64_t bytes)
{
    mPrivate->mMaxCapMemoryAfterProcessingAJob = bytes;
}

void nqSchedulerWorker::setEvents(
    nqEventLog& events, const std::optional<nqHighResTimer>& sinceLaunch)
{
    mPrivate->mEvents = &events;
    mPrivate->mSinceLaunch = sinceLaunch;
}

bool nqSchedulerWorker::isReadyForJob() const
{
    return mPrivate->mReadyForJob;
}

/// A ready worker takes no job while it is being killed, or before its former job has left.
bool nqSchedulerWorker::hasImmediateWork(bool jobWaits) const
{
    const nqSchedulerWorkerPrivate& state = *mPrivate;
    if (state.mPipe == nullptr || state.mFinished || state.mFailureOwed ||
        !state.mPipe->isConnected() || state.mPipe->hasImmediateWork())
        return true;
    if (state.mReadyForJob)
        return jobWaits && !state.mKilled && state.mPipe->unsentBytes() == 0;
    return nqFrame::canReceive(*state.mPipe, state.mResult);
}

bool nqSchedulerWorker::hasFinished() const
{
    return mPrivate->mFinished;
}

bool nqSchedulerWorker::isLive() const
{
    const nqSchedulerWorkerPrivate& state = *mPrivate;
    return state.mPipe != nullptr && !state.mFinished && !state.mKilled && !state.mFailureOwed;
}

std::int64_t nqSchedulerWorker::pid() const
{
    return static_cast<std::int64_t>(mPrivate->mPid);
}

double nqSchedulerWorker::secondsInJob() const
{
    return mPrivate->mJobTimer.getElapsedTimeInSec();
}

nqProcess* nqSchedulerWorker::process() const
{
    return mPrivate->mProcess.get();
}

nqNamedPipe* nqSchedulerWorker::pipe() const
{
    return mPrivate->mPipe.get();
}

} // namespace nq
