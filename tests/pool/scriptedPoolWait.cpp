#include "tests/pool/scriptedPoolWait.h"

#include "pool/nqPoolWait.h"
#include "tests/scripted/scriptedMachine.h"

#include <algorithm>
#include <map>
#include <memory>

namespace scripted {

namespace {

PoolWait* youngest = nullptr;

} // namespace

PoolWait* poolWait()
{
    return youngest;
}

} // namespace scripted

namespace nq {

nqPoolClock::TimePoint nqPoolClock::now()
{
    return TimePoint(scripted::machine().steadyTime);
}

struct nqPoolWait::Private {
    scripted::PoolWait record;
    std::map<int, void*> watched;
    std::vector<void*> owners;
};

nqPoolWait::nqPoolWait()
    : mPrivate(std::make_unique<Private>())
{
    scripted::youngest = &mPrivate->record;
}

nqPoolWait::~nqPoolWait()
{
    if (scripted::youngest == &mPrivate->record)
        scripted::youngest = nullptr;
}

bool nqPoolWait::watch(int descriptor, void* owner)
{
    mPrivate->record.watched.push_back(descriptor);
    mPrivate->watched.emplace(descriptor, owner);
    return true;
}

void nqPoolWait::forget(int descriptor)
{
    auto& watched = mPrivate->record.watched;
    const auto found = std::find(watched.begin(), watched.end(), descriptor);
    if (found != watched.end())
        watched.erase(found);
    mPrivate->watched.erase(descriptor);
}

const std::vector<void*>& nqPoolWait::sleep(std::chrono::milliseconds timeout)
{
    mPrivate->record.sleeps.push_back(timeout);
    if (mPrivate->record.onSleep)
        mPrivate->record.onSleep(timeout);
    mPrivate->owners.clear();
    for (const auto& [descriptor, owner] : mPrivate->watched)
        mPrivate->owners.push_back(owner);
    return mPrivate->owners;
}

int nqPoolWait::descriptor() const
{
    return 3;
}

void nqPoolWait::wakeAt(const std::optional<TimePoint>& time)
{
    mPrivate->record.wakeAt = time;
}

} // namespace nq
