#pragma once

#include "system/linux/nqEpoll.h"
#include "system/linux/nqWatchedDescriptor.h"
#include "system/nqWaitSet.h"

namespace nq {

/// What a wait set consists of. Shared by the set and the pipes that report to it.
struct nqWaitSet::Private {
    nqEpoll mEpoll;
    // Readable for ever. Whether the set is ready is whether it is watched for that: one call, and
    // none to take bytes out again.
    nqWatchedDescriptor mAlwaysReadable;
};

} // namespace nq
