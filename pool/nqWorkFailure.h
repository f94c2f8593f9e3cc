#pragma once

#include "nqOutcome.h"
#include "pool/include/nqPoolWorker.h"
#include "pool/nqExceptionText.h"

#include <optional>
#include <string>

namespace nq {

/// The reason itself, when a worker can know of it; otherwise Exception.
nqAttempt::Reason reasonToTell(nqAttempt::Reason reason);

/// What the exception says, without its text.
nqAttempt attemptOf(const nqJobFailure& failure);

/// Calls `work`, which is a host's own code. What it has to tell of its failure, if it has failed.
template <typename Work>
std::optional<nqAttempt> failureOf(Work&& work)
{
    nqAttempt told;
    told.reason = nqAttempt::Reason::Exception;
    told.toldByWorker = true;
    auto text = exceptionOf([&] {
        try {
            work();
        } catch (const nqJobFailure& failure) {
            told = attemptOf(failure);
            throw;
        }
    });
    if (!text)
        return std::nullopt;
    told.message = std::move(*text);
    return told;
}

} // namespace nq
