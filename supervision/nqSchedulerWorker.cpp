#include "supervision/nqSchedulerWorker.h"

#include "supervision/nqSchedulerWorkerPrivate.h"
#include "system/nqStringUtils.h"
#include "system/nqThread.h"

#include <utility>

namespace nq {

namespace {

constexpr unsigned int withoutLimit = 0xFFFFFFFF;

} // namespace

nqSchedulerWorkerPrivate::nqSchedulerWorkerPrivate(
    std::unique_ptr<nqNamedPipe> pipe, std::unique_ptr<nqProcess> process, nqJobQueues* queues)
    : mPipe(std::move(pipe)),
      mQueues(queues),
      mProcess(std::move(process)),
      mPid(static_cast<std::uint64_t>(mProcess->getPid()))
{
}

std::string memoryText(std::uint64_t bytes)
{
    return nqStringUtils::humanizeNumberGeneric<unsigned long>(bytes, 3, 1, true, true, false) +
           "B";
}

nqSchedulerWorker::nqSchedulerWorker(
    std::unique_ptr<nqNamedPipe> pipe, std::unique_ptr<nqProcess> process, nqJobQueues* queues)
    : mPrivate(
          std::make_unique<nqSchedulerWorkerPrivate>(std::move(pipe), std::move(process), queues))
{
}

nqSchedulerWorker::~nqSchedulerWorker()
{
    const nqThread::Uncancellable held;
    closePipe();
    mPrivate->mProcess->waitForFinished(withoutLimit);
    mPrivate->mProcess.reset();
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

void nqSchedulerWorker::closePipe()
{
    mPrivate->mQueues = nullptr;
    if (mPrivate->mPipe == nullptr)
        return;
    mPrivate->mPipe->closeNamedPipe();
    mPrivate->mPipe.reset();
}

bool nqSchedulerWorker::isReadyForJob() const
{
    return mPrivate->mReadyForJob;
}

bool nqSchedulerWorker::hasFinished() const
{
    return mPrivate->mFinished;
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
