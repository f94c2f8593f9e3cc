#pragma once

#include "tools/nqrun/command_template.h"
#include "tools/nqrun/delivery.h"
#include "tools/nqrun/failure_script.h"
#include "tools/nqrun/finished.h"
#include "tools/nqrun/items.h"
#include "tools/nqrun/job_pool.h"
#include "tools/nqrun/joblog.h"
#include "tools/nqrun/options.h"
#include "tools/nqrun/output_slots.h"
#include "tools/nqrun/progress.h"
#include "tools/nqrun/sent_items.h"

#include <cstdint>
#include <memory>
#include <nqPool.h>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace nqrun {

/// What became of a run.
struct RunResult {
    std::uint64_t failed = 0;
    int signal = 0; ///< that has interrupted it, or SIGPIPE when nobody reads its output
};

/// Prints the command line of each item, and runs nothing.
RunResult dryRun(const Options& options);

/// Runs all items over a pool.
///
/// One loop on one thread: it starts items while there is room, sleeps until something happens, and
/// lets the pool deliver what has ended. An item that has ended is delivered, then told of, then
/// logged.
class Run {
public:
    /// Checks all that can be checked before the first item. Throws Error.
    explicit Run(const Options& options);
    ~Run();
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    /// Throws Error; no command runs any more then.
    RunResult run();

private:
    /// An item that a worker has, or soon will have.
    struct Attempt {
        Item item;
        std::uint64_t ordinal = 0;
        std::uint64_t serial = 0; ///< of this attempt
        unsigned number = 1;
        nq::nqJobId job = 0;
        OutputSlot slot; ///< of a command; of a worker's job, empty
    };

    enum class Phase {
        Going,     ///< items are started
        Finishing, ///< none is; those that run come to their end
        Ending     ///< none is, and those that run are ended
    };

    void setRoom();
    void loop();
    void sync();
    void startItems();
    bool hasRoom() const;
    bool isLogged(const Item& item);
    void start(Attempt&& attempt);
    Attempt& place(Attempt&& attempt);
    Attempt takeOut(std::uint64_t serial);
    bool takeUp(Attempt& attempt);
    bool takeUpOutcomes();
    void wait();
    void onOutcome(Attempt&& attempt, nq::nqOutcome&& outcome);
    void conclude(Attempt&& attempt, Finished&& finished, const nq::nqOutcome& outcome);
    void onDelivered(Finished&& finished);
    void keepScript(const Attempt& attempt, const Finished& finished) const;
    void obeySignals();
    void finish(const std::string& why);
    void end();
    void summarize();
    void showProgress();

    Finished describe(const Attempt& attempt, const nq::nqOutcome& outcome) const;
    void
    describeCommand(Finished& finished, const Attempt& attempt, const nq::nqOutcome& outcome) const;
    static void describeJob(Finished& finished, const nq::nqOutcome& outcome);
    std::string failureLine(const Finished& finished) const;
    std::string identityOf(const Item& item) const;
    std::string nameOf(const Item& item) const;

    const Options& mOptions;
    const std::vector<pid_t> mFormerChildren; ///< those that this process had before
    std::optional<CommandTemplate> mTemplate; ///< none with a worker
    std::string mProgram;                     ///< its path; empty when items name it
    CommandLimits mLimits;
    Items mItems;
    std::optional<FailureScripts> mScripts;
    std::optional<Joblog> mJoblog;
    OutputSlots mSlots;
    Progress mProgress;
    Delivery mDelivery;
    std::optional<SentItems> mSent; ///< for a queue and a joblog only
    std::unique_ptr<JobPool> mPool;
    std::size_t mRoom = 0;      ///< items that may be on their way at a time
    std::size_t mRoomBytes = 0; ///< likewise; 0: no bound

    Phase mPhase = Phase::Going;
    RunResult mResult;
    bool mIsToEnd = false;  ///< by --halt now
    bool mIsHalted = false; ///< by --halt
    bool mHasAllItems = false;
    bool mWaitsForItems = false;
    std::uint64_t mDone = 0;
    std::uint64_t mSkipped = 0;
    std::uint64_t mStarted = 0;
    std::uint64_t mSerial = 0;
    std::unordered_map<std::uint64_t, Attempt> mAttempts; ///< by serial
    std::size_t mAttemptBytes = 0;                        ///< of their items
    bool mAwaitsLeft = false; ///< outcomes of jobs that a run before has sent
    std::unordered_map<nq::nqJobId, Attempt> mTakenUp; ///< what they are of
};

} // namespace nqrun
