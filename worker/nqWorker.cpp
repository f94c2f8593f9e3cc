#include "include/nqWorker.h"

#include "support/nqSpareMemory.h"
#include "system/nqNamedPipe.h"
#include "system/nqSystemUtils.h"
#include "worker/nqFrame.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace nq {

namespace {

constexpr std::size_t keptIdleBytes = std::size_t{1} << 20; // too little to matter to a memory cap

enum class Hook {
    returned, // or has not run yet: job and result are valid
    running,  // on the stack: job and result belong to it
    left, // by an exception or a cancelled thread: its result has no header and must never leave
};

/// Lives from before the hook until its result has a header. There is no catch: it would unwind an
/// uncaught exception away from where it was thrown. The destructor marks the escape.
class HookRun {
public:
    explicit HookRun(Hook& hook)
        : mHook(hook)
    {
        mHook = Hook::running;
    }
    ~HookRun()
    {
        if (mHook == Hook::running)
            mHook = Hook::left;
    }
    HookRun(const HookRun&) = delete;
    HookRun& operator=(const HookRun&) = delete;

    void end()
    {
        mHook = Hook::returned;
    }

private:
    Hook& mHook;
};

} // namespace

struct nqWorker::Private {
    explicit Private(const std::string& schedulerUtf8)
        : mSchedulerUtf8(schedulerUtf8)
    {
    }

    bool beginStep();
    bool isResultHandedOver() const;
    void reuseResult();
    void releaseIdleMemory();
    void blankUnreceived();

    const std::string mSchedulerUtf8;
    nqNamedPipe mNamedPipe;
    std::vector<char> mJob;     // being received, then processed
    std::vector<char> mResult;  // being sent; kept until the next hook, since the pipe borrows it
    std::int32_t mReceived = 0; // bytes of mJob
    std::int32_t mSent = 0;     // bytes of mResult handed to the pipe
    bool mFinished = false;
    Hook mHook = Hook::returned;
    nqSpareMemory mSpares{nqSpareMemory::Fit::loosely}; // for the next jobs
};

// False when nothing may be received, run or sent: inside the hook, and for good once an exception
// has left it. In that case the pipe is closed, so that the scheduler fails the job and replaces
// the worker. Not before this step: the scheduler waits for a process whose pipe is closed, and a
// main that has caught the exception may have much to do first.
bool nqWorker::Private::beginStep()
{
    switch (mHook) {
    case Hook::returned:
        return true;
    case Hook::running:
        return false;
    case Hook::left:
        break;
    }
    mNamedPipe.closeNamedPipe();
    return false;
}

// No further job is started before. A result whose size is 0 or negative for the counter never is.
bool nqWorker::Private::isResultHandedOver() const
{
    const auto sent = static_cast<std::uint32_t>(mSent);
    return mResult.empty() || (sent != 0 && sent == static_cast<std::uint32_t>(mResult.size()));
}

// For a hook that has moved the memory of its job into the result.
void nqWorker::Private::reuseResult()
{
    if (!mJob.empty() || !mSpares.isEmpty() || !isResultHandedOver() || mNamedPipe.lentBytes() != 0)
        return;
    mSpares.keep(std::exchange(mResult, {}));
    mSent = 0;
}

// The scheduler's memory caps would count it against the jobs to come.
void nqWorker::Private::releaseIdleMemory()
{
    if (!mJob.empty() || !isResultHandedOver() || mNamedPipe.lentBytes() != 0)
        return;
    if (mSpares.bytes() + mResult.capacity() <= keptIdleBytes)
        return;
    mSpares.release();
    std::vector<char>().swap(mResult);
    mSent = 0;
    nqSystemUtils::ReleaseFreeMemory();
}

// Only a derived class that calls onProcess by itself can find its job incomplete. It must not see
// bytes of an earlier job there.
void nqWorker::Private::blankUnreceived()
{
    const auto received = static_cast<std::size_t>(mReceived);
    if (received < mJob.size())
        std::fill(mJob.begin() + mReceived, mJob.end(), '\0');
}

nqWorker::nqWorker(const std::string& schedulerUtf8)
    : mPrivate(std::make_unique<Private>(schedulerUtf8))
{
    mPrivate->mNamedPipe.connectToNamedPipeServerUtf8(mPrivate->mSchedulerUtf8);
}

nqWorker::~nqWorker() = default;

const std::string& nqWorker::schedulerUtf8() const
{
    return mPrivate->mSchedulerUtf8;
}

bool nqWorker::hasFinished() const
{
    return mPrivate->mFinished;
}

void nqWorker::setFinished(bool finished)
{
    mPrivate->mFinished = finished;
}

bool nqWorker::isSending() const
{
    const Private& state = *mPrivate;
    const nqNamedPipe& pipe = state.mNamedPipe;
    if (state.mHook == Hook::left || !pipe.isConnected() || pipe.isWriteChannelClosed())
        return false;
    const bool isResultMade = state.mHook == Hook::returned;
    return pipe.hasPendingWrite() ||
           (isResultMade && nqFrame::isSendPending(state.mResult, state.mSent));
}

void nqWorker::processWorker(int timeoutMs)
{
    if (mPrivate == nullptr)
        return;
    nqNamedPipe& pipe = mPrivate->mNamedPipe;
    const bool isStepBegun = mPrivate->beginStep();
    const bool nothingToSend = !pipe.hasPendingWrite();
    pipe.processNamedPipeEvents(timeoutMs, true);
    if (isStepBegun) {
        if (pipe.untakenBytes() != 0)
            onReadyRead();
        else if (nothingToSend)
            mPrivate->releaseIdleMemory();
        onSendData();
    }
    if (!pipe.isReadChannelClosed() && pipe.isConnected())
        return;
    endOfWork();
}

void nqWorker::onReadyRead()
{
    Private& state = *mPrivate;
    if (!state.beginStep())
        return;
    state.reuseResult();
    const bool mayStart = state.isResultHandedOver();
    const bool isWhole =
        nqFrame::receive(state.mNamedPipe, state.mJob, state.mReceived, mayStart, state.mSpares);
    if (!isWhole)
        return;
    // A whole job waits for the result before it to leave the buffer.
    if (state.mNamedPipe.unsentBytes() == 0)
        onProcess();
}

void nqWorker::onProcess()
{
    Private& state = *mPrivate;
    if (!state.beginStep())
        return;
    // Neither is the case unless a derived class calls this by itself.
    state.mNamedPipe.copyLent();
    state.mNamedPipe.stopFilling();
    state.mResult.clear();
    state.blankUnreceived();
    HookRun run(state.mHook);
    processJob(state.mJob, state.mResult);
    state.mSent = 0;
    state.mSpares.keep(std::exchange(state.mJob, {}));
    state.mReceived = 0;
    nqFrame::sendHeader(state.mNamedPipe, state.mResult);
    run.end();
}

void nqWorker::onSendData()
{
    Private& state = *mPrivate;
    if (!state.beginStep() || !nqFrame::isSendPending(state.mResult, state.mSent))
        return;
    nqFrame::sendPayload(state.mNamedPipe, state.mResult, state.mSent);
    if (state.isResultHandedOver() && state.mSpares.isOutgrown())
        state.releaseIdleMemory();
}

void nqWorker::endOfWork()
{
    setFinished(true);
}

} // namespace nq
