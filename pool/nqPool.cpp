#include "pool/include/nqPool.h"

#include "pool/nqPoolPrivate.h"

#include <utility>

namespace nq {

nqJobBytes::nqJobBytes(std::vector<char>&& bytes)
    : mMoved(&bytes)
{
}

nqJobBytes::nqJobBytes(const std::vector<char>& bytes)
    : mView(bytes.data(), bytes.size())
{
}

std::size_t nqJobBytes::size() const
{
    return mMoved != nullptr ? mMoved->size() : mView.size();
}

std::vector<char> nqJobBytes::take()
{
    return mMoved != nullptr ? std::move(*mMoved) : std::vector<char>(mView.begin(), mView.end());
}

void nqJobBytes::putBack(std::vector<char>&& bytes)
{
    if (mMoved != nullptr)
        *mMoved = std::move(bytes);
}

nqPool::nqPool(const nqPoolOptions& options)
    : mPrivate(std::make_unique<nqPoolPrivate>(options))
{
}

nqPool::~nqPool() = default;

nqJobId nqPool::submit(nqJobBytes job, Callback callback)
{
    return mPrivate->submit(job, nullptr, std::move(callback));
}

nqJobId nqPool::submit(nqJobBytes job, const nqJobOptions& options, Callback callback)
{
    return mPrivate->submit(job, &options, std::move(callback));
}

bool nqPool::cancel(nqJobId id)
{
    return mPrivate->cancel(id);
}

std::size_t nqPool::pump(std::chrono::milliseconds timeout)
{
    return mPrivate->pump(timeout);
}

int nqPool::waitDescriptor()
{
    return mPrivate->waitDescriptor();
}

std::optional<nqOutcome> nqPool::next(std::chrono::milliseconds timeout)
{
    return mPrivate->next(timeout);
}

bool nqPool::drain(const Progress& progress)
{
    return mPrivate->drain(progress);
}

bool nqPool::start()
{
    return mPrivate->start();
}

void nqPool::beginStart()
{
    mPrivate->beginStart();
}

bool nqPool::isStarting() const
{
    return mPrivate->isStarting();
}

void nqPool::onLaunch(std::function<void()> callback)
{
    mPrivate->onLaunch(std::move(callback));
}

void nqPool::stop()
{
    mPrivate->stop();
}

void nqPool::expectJobs(std::uint64_t jobs)
{
    mPrivate->expectJobs(jobs);
}

std::size_t nqPool::unfinishedCount() const
{
    return mPrivate->unfinishedCount();
}

std::size_t nqPool::queuedCount() const
{
    return mPrivate->queuedCount();
}

std::string nqPool::problem() const
{
    return mPrivate->problem();
}

nqPoolStatistics nqPool::statistics() const
{
    return mPrivate->statistics();
}

std::vector<nqPoolWorkerStatus> nqPool::workers() const
{
    return mPrivate->workers();
}

} // namespace nq
