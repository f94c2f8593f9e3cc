#pragma once

#include "system/nqWaitSet.h"
#include "tests/scripted/scriptedMachine.h"

#include <memory>

namespace nq {

/// Binds a set to its record.
struct nqWaitSet::Private {
    std::shared_ptr<scripted::WaitSet> set;
};

} // namespace nq
