#include "cluster/include/nqClusterPool.h"

#include "cluster/nqClusterPoolPrivate.h"

#include <utility>

namespace nq {

nqClusterPool::nqClusterPool(
    const std::string& url,
    const std::string& queue,
    const nqPoolOptions& options,
    const nqClusterOptions& cluster)
    : mPrivate(std::make_unique<nqClusterPoolPrivate>(url, queue, options, cluster))
{
}

nqClusterPool::~nqClusterPool() = default;

nqJobId nqClusterPool::submit(nqJobBytes job, Callback callback)
{
    return mPrivate->submit(job, nullptr, std::move(callback));
}

nqJobId nqClusterPool::submit(nqJobBytes job, const nqJobOptions& options, Callback callback)
{
    return mPrivate->submit(job, &options, std::move(callback));
}

bool nqClusterPool::cancel(nqJobId id)
{
    return mPrivate->cancel(id, false);
}

bool nqClusterPool::cancelWaiting(nqJobId id)
{
    return mPrivate->cancel(id, true);
}

std::size_t nqClusterPool::pump(std::chrono::milliseconds timeout)
{
    return mPrivate->pump(timeout);
}

int nqClusterPool::waitDescriptor()
{
    return mPrivate->waitDescriptor();
}

std::optional<nqOutcome> nqClusterPool::next(std::chrono::milliseconds timeout)
{
    return mPrivate->next(timeout);
}

bool nqClusterPool::drain(const Progress& progress)
{
    return mPrivate->drain(progress);
}

void nqClusterPool::stop()
{
    mPrivate->stop();
}

std::size_t nqClusterPool::unfinishedCount() const
{
    return mPrivate->unfinishedCount();
}

std::string nqClusterPool::problem() const
{
    return mPrivate->problem();
}

nqClusterStatistics nqClusterPool::statistics() const
{
    return mPrivate->statistics();
}

} // namespace nq
