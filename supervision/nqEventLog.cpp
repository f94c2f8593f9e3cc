#include "supervision/nqEventLog.h"

#include "system/nqThread.h"

#include <utility>

namespace nq {

namespace {

// A record's step notes at most an outcome and then either the next job or the worker's end; a
// launch notes itself, and its record's end if there is no memory to keep it.
constexpr std::size_t mostOfOneWorker = 2;

} // namespace

void nqEventLog::setObserver(nqSchedulerObserver* observer)
{
    mObserver = observer;
    mEntries.clear();
}

void nqEventLog::makeRoom(std::size_t workers)
{
    if (isObserved())
        mEntries.reserve(mEntries.size() + workers * mostOfOneWorker);
}

void nqEventLog::note(const nqSchedulerEvent& event, std::string message) noexcept
{
    mEntries.push_back({event, std::move(message)});
}

void nqEventLog::deliver() noexcept
{
    if (mEntries.empty())
        return;
    const nqThread::Uncancellable untilTold; // the observer is noexcept
    for (Entry& entry : mEntries) {
        if (!entry.mMessage.empty())
            entry.mEvent.mMessage = entry.mMessage;
        mObserver->onEvent(entry.mEvent);
    }
    mEntries.clear();
}

std::chrono::microseconds timeOn(const nqHighResTimer& timer)
{
    return std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::duration<double>(timer.getElapsedTimeInSec()));
}

void setProcessEnd(nqSchedulerEvent& event, const std::optional<nqProcess::End>& end)
{
    if (!end)
        return;
    if (end->mSignal != 0)
        event.mSignal = end->mSignal;
    else
        event.mExitStatus = end->mExitStatus;
    event.mDumpedCore = end->mDumpedCore;
    event.mUserTime = end->mUserTime;
    event.mSystemTime = end->mSystemTime;
    if (end->mPeakMemory != 0)
        event.mPeakMemory = end->mPeakMemory;
}

} // namespace nq
