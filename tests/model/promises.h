#pragma once

#include "include/nqSchedulerObserver.h"
#include "tests/common/failure.h"
#include "tests/common/frame.h"
#include "tests/model/world.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <ostream>
#include <set>
#include <string>
#include <vector>

namespace model {

/// An observer that holds a scheduler to what it promises about its events, and keeps them as lines
/// for the model. A broken promise is a line of the report.
class Promises : public nq::nqSchedulerObserver {
public:
    explicit Promises(std::ostream& report);

    void onEvent(const nq::nqSchedulerEvent& event) noexcept override;

    /// What the host does.
    void onPush(const common::Bytes& job);
    void onClearPendingJobs();
    void onPop(const common::Bytes& result);
    void onPopFail(const common::Failure& failure);
    /// An operation of the host has returned.
    void onReturn();

    /// What was told since the last call.
    std::vector<std::string> takeLines();

private:
    struct Failed {
        std::size_t bytes;
        nq::nqScheduler::FailReason reason;
        std::string message;
    };

    void expect(bool holds, const char* promise);
    void onHandedOut(const nq::nqSchedulerEvent& event);
    void onOutcome(const nq::nqSchedulerEvent& event);

    std::ostream& mReport;
    std::vector<std::string> mLines;
    std::deque<std::size_t> mPushed; // sizes of what was not handed out yet
    std::deque<std::size_t> mResults;
    std::deque<Failed> mFailures;
    std::set<std::int64_t> mBusy;      // pids
    std::set<std::int64_t> mCondemned; // whose job has failed, and whose end is still to be told
};

} // namespace model
