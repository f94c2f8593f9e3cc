#include "pool/include/nqPoolTimeline.h"

#include "pool/nqShownFile.h"
#include "pool/nqTimelineDrawing.h"
#include "pool/nqTimelineRecord.h"

namespace nq {

struct nqPoolTimeline::Private {
    std::string mTitle;
    nqTimelineRecord mRecord;
};

nqPoolTimeline::nqPoolTimeline(std::size_t workers, const std::string& title)
    : mPrivate(std::make_unique<Private>(Private{title, nqTimelineRecord(workers)}))
{
}

nqPoolTimeline::~nqPoolTimeline() = default;
nqPoolTimeline::nqPoolTimeline(nqPoolTimeline&& other) noexcept = default;
nqPoolTimeline& nqPoolTimeline::operator=(nqPoolTimeline&& other) noexcept = default;

void nqPoolTimeline::addAttempt(const Attempt& attempt)
{
    mPrivate->mRecord.addAttempt(attempt);
}

void nqPoolTimeline::addRestart(std::size_t worker, Time at, std::string_view cause)
{
    mPrivate->mRecord.addRestart(worker, at, cause);
}

void nqPoolTimeline::addQueued(Time at, std::size_t jobs)
{
    mPrivate->mRecord.addQueued(at, jobs);
}

std::string nqPoolTimeline::svg() const
{
    return drawTimeline(mPrivate->mRecord, mPrivate->mTitle);
}

void nqPoolTimeline::write(const std::string& file) const
{
    nqShownFile("The timeline", file).require(svg());
}

} // namespace nq
