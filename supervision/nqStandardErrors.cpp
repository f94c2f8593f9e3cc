#include "supervision/nqStandardErrors.h"

#include <algorithm>
#include <utility>

namespace nq {

void nqStandardErrors::add(std::int64_t pid, nqOwnedDescriptor end)
{
    mEntries.push_back({pid, std::move(end), true});
}

void nqStandardErrors::noteListed(std::int64_t pid)
{
    for (Entry& entry : mEntries)
        entry.mHasEnded = entry.mHasEnded && entry.mPid != pid;
}

void nqStandardErrors::noteEnd(std::int64_t pid)
{
    for (Entry& entry : mEntries)
        entry.mHasEnded = entry.mHasEnded || entry.mPid == pid;
}

void nqStandardErrors::dropEnded()
{
    if (isEmpty())
        return; // in most passes; the standard algorithm is not cheap for nothing
    const auto ended = std::remove_if(
        mEntries.begin(), mEntries.end(), [](const Entry& entry) { return entry.mHasEnded; });
    mEntries.erase(ended, mEntries.end());
}

bool nqStandardErrors::take(std::int64_t& pid, int& descriptor)
{
    if (mEntries.empty())
        return false;
    pid = mEntries.front().mPid;
    descriptor = mEntries.front().mEnd.release();
    mEntries.pop_front();
    return true;
}

} // namespace nq
