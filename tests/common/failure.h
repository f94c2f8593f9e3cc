#pragma once

#include "include/nqScheduler.h"

#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace common {

/// One failure as popFail gives it, with the job's bytes as text.
struct Failure {
    std::string job;
    nq::nqScheduler::FailReason reason = nq::nqScheduler::NoFailure;
    std::string message;

    friend bool operator==(const Failure& left, const Failure& right)
    {
        return left.job == right.job && left.reason == right.reason &&
               left.message == right.message;
    }
    friend std::ostream& operator<<(std::ostream& stream, const Failure& failure)
    {
        return stream << '"' << failure.job << "\" failed (" << failure.reason
                      << "): " << failure.message;
    }
};

/// The oldest failure that waits in a scheduler or in its queues.
template <typename Queues>
std::optional<Failure> popFailure(Queues& queues)
{
    std::vector<char> job;
    Failure failure;
    if (!queues.popFail(job, failure.reason, failure.message))
        return std::nullopt;
    failure.job.assign(job.begin(), job.end());
    return failure;
}

/// Every failure that waits there, the oldest first.
template <typename Queues>
std::vector<Failure> failures(Queues& queues)
{
    std::vector<Failure> all;
    while (std::optional<Failure> failure = popFailure(queues))
        all.push_back(*failure);
    return all;
}

} // namespace common
