#pragma once

#include "include/nqScheduler.h"

#include <string>
#include <vector>

namespace nq {

/// A failure waiting for popFail.
struct nqFailedJob {
    std::vector<char> mJob; // exactly as the host pushed it
    nqScheduler::FailReason mReason = nqScheduler::NoFailure;
    std::string mMessage;
};

} // namespace nq
