#include "pool/nqPoolLog.h"

#include "system/nqLog.h"

#include <map>
#include <mutex>

namespace nq {

namespace {

using Log = nqPoolOptions::Log;

/// Writes to each place that somebody wants, or nothing.
class PoolLogger : public nqLog {
public:
    void Write(LogEntry& entry, bool flush) override
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        for (auto& [path, place] : mPlaces) {
            LogEntry copy = entry; // a logger may change it
            place.mLog->Write(copy, flush);
        }
    }

    void addPlace(const std::string& path)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        Place& place = mPlaces[path];
        if (place.mWanted++ == 0)
            place.mLog = path.empty() ? std::make_unique<nqLog>() : std::make_unique<nqLog>(path);
    }

    void removePlace(const std::string& path)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (--mPlaces[path].mWanted == 0)
            mPlaces.erase(path);
    }

private:
    struct Place {
        std::unique_ptr<nqLog> mLog;
        int mWanted = 0; // guards
    };

    std::mutex mMutex;
    std::map<std::string, Place> mPlaces; // by path; empty: standard error
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

nqPoolLog::nqPoolLog(const nqPoolOptions& options)
    : mLog(options.log),
      mPath(mLog == Log::File ? options.logFile : std::string())
{
    Shared& all = shared();
    const std::lock_guard<std::mutex> lock(all.mMutex);
    if (mLog != Log::Nowhere)
        all.mLogger.addPlace(mPath);
    ++all.mGuards;
    if (nqLog::msInstance == nullptr)
        nqLog::msInstance = &all.mLogger;
}

nqPoolLog::~nqPoolLog()
{
    Shared& all = shared();
    const std::lock_guard<std::mutex> lock(all.mMutex);
    if (mLog != Log::Nowhere)
        all.mLogger.removePlace(mPath);
    if (--all.mGuards == 0 && nqLog::msInstance == &all.mLogger)
        nqLog::msInstance = nullptr;
}

} // namespace nq
