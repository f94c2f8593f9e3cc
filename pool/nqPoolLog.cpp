#include "pool/nqPoolLog.h"

#include "system/nqLog.h"

#include <atomic>
#include <mutex>

namespace nq {

namespace {

/// Writes to standard error, or nothing.
class PoolLogger : public nqLog {
public:
    void Write(LogEntry& entry, bool flush) override
    {
        if (mShowing > 0)
            nqLog::Write(entry, flush);
    }

    std::atomic<int> mShowing{0}; // the guards that want to see the lines
};

struct Shared {
    std::mutex mMutex;
    int mGuards = 0;
    PoolLogger mLogger; // at the end of the program it takes itself out
};

/// Made with the first guard, so that it outlives a pool with static storage duration.
Shared& shared()
{
    static Shared instance;
    return instance;
}

} // namespace

nqPoolLog::nqPoolLog(nqPoolOptions::Log log)
    : mIsShown(log == nqPoolOptions::Log::StandardError)
{
    Shared& all = shared();
    const std::lock_guard<std::mutex> lock(all.mMutex);
    ++all.mGuards;
    if (mIsShown)
        ++all.mLogger.mShowing;
    if (nqLog::msInstance == nullptr)
        nqLog::msInstance = &all.mLogger;
}

nqPoolLog::~nqPoolLog()
{
    Shared& all = shared();
    const std::lock_guard<std::mutex> lock(all.mMutex);
    if (mIsShown)
        --all.mLogger.mShowing;
    if (--all.mGuards == 0 && nqLog::msInstance == &all.mLogger)
        nqLog::msInstance = nullptr;
}

} // namespace nq
