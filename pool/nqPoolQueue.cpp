#include "pool/nqPoolQueue.h"

#include <algorithm>

namespace nq {

namespace {

const std::optional<nqPoolClock::TimePoint> noDeadline;

const std::optional<nqPoolClock::TimePoint>& deadlineOf(const nqPoolJob& job)
{
    return job.details != nullptr ? job.details->options.deadline : noDeadline;
}

} // namespace

// Whoever throws for lack of memory leaves the job with the caller.
void nqPoolQueue::push(nqPoolJob&& job)
{
    noteDeadline(job);
    try {
        mNew.push_back(std::move(job));
    } catch (...) {
        forgetDeadline(job);
        throw;
    }
}

void nqPoolQueue::pushAgain(nqPoolJob&& job, TimePoint time)
{
    const nqJobId id = job.id;
    mAgainAt.emplace(id, time);
    try {
        noteDeadline(job);
        mAgain.emplace(TimedId(time, id), std::move(job));
    } catch (...) {
        forgetDeadline(job);
        mAgainAt.erase(id);
        throw;
    }
}

bool nqPoolQueue::hasDue(TimePoint now) const
{
    return !mNew.empty() || (!mAgain.empty() && mAgain.begin()->first.first <= now);
}

std::optional<nqPoolJob> nqPoolQueue::pop(TimePoint now)
{
    if (!mAgain.empty() && mAgain.begin()->first.first <= now)
        return remove(mAgain.begin()->first.second);
    if (mNew.empty())
        return std::nullopt;
    std::optional<nqPoolJob> job(std::move(mNew.front()));
    mNew.pop_front();
    dropGone();
    forgetDeadline(*job);
    return job;
}

std::optional<nqPoolJob> nqPoolQueue::remove(nqJobId id)
{
    const auto again = mAgainAt.find(id);
    if (again == mAgainAt.end())
        return removeNew(id);
    auto node = mAgain.extract(TimedId(again->second, id));
    mAgainAt.erase(again);
    forgetDeadline(node.mapped());
    return std::move(node.mapped());
}

std::optional<nqPoolJob> nqPoolQueue::removeNew(nqJobId id)
{
    const auto isBefore = [](const nqPoolJob& job, nqJobId wanted) { return job.id < wanted; };
    const auto found = std::lower_bound(mNew.begin(), mNew.end(), id, isBefore);
    if (found == mNew.end() || found->id != id || found->isGone != 0)
        return std::nullopt;
    std::optional<nqPoolJob> job(std::move(*found));
    found->callback = nullptr;
    found->isGone = 1;
    ++mGone;
    dropGone();
    forgetDeadline(*job);
    return job;
}

std::optional<nqPoolJob> nqPoolQueue::removeExpired(TimePoint now)
{
    if (mDeadlines.empty() || mDeadlines.begin()->first > now)
        return std::nullopt;
    return remove(mDeadlines.begin()->second);
}

// What was tried before is older than what is new.
std::optional<nqPoolJob> nqPoolQueue::removeUpTo(nqJobId last)
{
    const auto isMeant = [&](const auto& again) { return again.second.id <= last; };
    const auto again = std::find_if(mAgain.begin(), mAgain.end(), isMeant);
    if (again != mAgain.end())
        return remove(again->first.second);
    if (!mNew.empty() && mNew.front().id <= last)
        return removeNew(mNew.front().id);
    return std::nullopt;
}

std::optional<nqPoolQueue::TimePoint> nqPoolQueue::nextDue(TimePoint now) const
{
    std::optional<TimePoint> due;
    if (!mDeadlines.empty())
        due = mDeadlines.begin()->first;
    if (mAgain.empty() || mAgain.begin()->first.first <= now)
        return due;
    const TimePoint again = mAgain.begin()->first.first;
    return due ? std::min(*due, again) : again;
}

std::size_t nqPoolQueue::size() const
{
    return mNew.size() - mGone + mAgain.size();
}

void nqPoolQueue::noteDeadline(const nqPoolJob& job)
{
    if (const auto& deadline = deadlineOf(job))
        mDeadlines.emplace(*deadline, job.id);
}

void nqPoolQueue::forgetDeadline(const nqPoolJob& job)
{
    if (const auto& deadline = deadlineOf(job))
        mDeadlines.erase(TimedId(*deadline, job.id));
}

void nqPoolQueue::dropGone()
{
    while (!mNew.empty() && mNew.front().isGone != 0) {
        mNew.pop_front();
        --mGone;
    }
}

} // namespace nq
