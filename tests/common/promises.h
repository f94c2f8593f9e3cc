#pragma once

#include "nqSchedulerObserver.h"
#include "tests/common/failure.h"
#include "tests/common/frame.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <set>
#include <string>

namespace common {

/// An observer that holds a scheduler to what it promises about its events. Its host tells it what
/// it does, in the same order, from a moment when the scheduler holds nothing.
class Promises : public nq::nqSchedulerObserver {
public:
    void onEvent(const nq::nqSchedulerEvent& event) noexcept override;

    /// What the host does.
    void onPush(const Bytes& job);
    void onClearPendingJobs();
    void onPop(const Bytes& result);
    void onPopFail(const Failure& failure);
    /// An operation of the host has returned.
    void onReturn();

    /// The promises that were broken since the last call, one a line; empty when none was.
    std::string takeBroken();

private:
    struct Failed {
        std::size_t bytes;
        nq::nqScheduler::FailReason reason;
        std::string message;
    };

    void require(bool holds, const char* promise);
    void onHandedOut(const nq::nqSchedulerEvent& event);
    void onOutcome(const nq::nqSchedulerEvent& event);

    std::string mBroken;
    std::deque<std::size_t> mPushed; // sizes of what was not handed out yet
    std::deque<std::size_t> mResults;
    std::deque<Failed> mFailures;
    std::set<std::int64_t> mBusy;      // pids
    std::set<std::int64_t> mCondemned; // whose job has failed, and whose end is still to be told
};

} // namespace common
