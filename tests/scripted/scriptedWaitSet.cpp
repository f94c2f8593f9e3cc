#include "tests/scripted/scriptedWaitSet.h"

#include <utility>

namespace nq {

nqWaitSet::nqWaitSet()
    : mPrivate(std::make_unique<Private>(Private{std::make_shared<scripted::WaitSet>()}))
{
    scripted::Machine& machine = scripted::machine();
    machine.query("wait set: created");
    mPrivate->set->descriptor += static_cast<int>(machine.waitSets.size()); // each its own
    machine.waitSets.push_back(mPrivate->set);
    if (std::exchange(machine.waitSetFails, false))
        mPrivate->set->descriptor = -1;
}

nqWaitSet::~nqWaitSet()
{
    mPrivate->set->isDestroyed = true;
    scripted::machine().query("wait set: destroyed");
}

int nqWaitSet::descriptor() const
{
    return mPrivate->set->descriptor;
}

void nqWaitSet::setReady(bool isReady)
{
    mPrivate->set->isReady = isReady;
}

} // namespace nq
