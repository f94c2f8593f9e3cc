#pragma once

#include "cluster/agent/nqAgentMetrics.h"
#include "cluster/agent/nqAgentOptions.h"
#include "cluster/agent/nqHeartbeat.h"
#include "cluster/nqClusterKeys.h"
#include "cluster/nqClusterMessages.h"
#include "cluster/nqClusterWait.h"
#include "cluster/nqRedisLink.h"
#include "pool/include/nqPool.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace nq {

/// Takes jobs from a queue, runs them in a pool of its own, and puts their outcomes back.
class nqAgent final : private nqRedisLinkOwner {
public:
    /// `signals` is readable for each request to leave; see run(). Borrowed. Throws nqPoolError for
    /// options that cannot work.
    nqAgent(const nqAgentOptions& options, int signals);
    ~nqAgent();
    nqAgent(const nqAgent&) = delete;
    nqAgent& operator=(const nqAgent&) = delete;

    /// Takes jobs until it is asked to leave: then it finishes what runs and hands back the rest.
    /// Asked again, it hands back all. Returns the status with which the program ends.
    int run();

private:
    using TimePoint = nqClusterClock::time_point;
    using Milliseconds = std::chrono::milliseconds;

    enum class Phase {
        Working,   // takes jobs
        Finishing, // takes none; what runs goes on
        Leaving,   // holds none; says good-bye to Redis
        Gone,      // Redis has forgotten it, or cannot be told
    };

    /// A job that Redis has given to this agent.
    struct Held {
        std::string client;
        std::string id;
        std::string attempt;
        nqJobId local = 0;     ///< in the pool; 0: none
        bool hasEnded = false; ///< its outcome is in mFinished or mInFlight
    };

    /// An outcome that Redis does not have yet. Kept until it says so.
    struct Finished {
        std::string entry;
        std::string client;
        std::vector<std::pair<std::string_view, std::string>> fields;
        nqSharedBytes result; ///< null: the job's own bytes, which Redis has
    };

    struct Watcher final : nqWaitOwner {
        void onDescriptor() override
        {
            hasNews = true;
        }

        bool hasNews = true;
    };

    void onReady(nqRedisLink& link) override;
    void onDown(nqRedisLink& link) override;

    bool startWorkers();
    void step();
    void hearRequests();
    void hearNews();
    void becomeLost();
    void runPool();
    void read();
    void restoreQueue();
    void onJobs(const nqRedisReply& reply);
    void takeJob(nqJobMessage&& job);
    void onOutcome(const std::string& entry, nqOutcome&& outcome);
    void finish(const std::string& entry, nqOutcome&& outcome);
    void audit();
    void onAudit(const nqRedisReply& reply);
    bool isSendingDue(TimePoint now) const;
    bool canSendFinished() const;
    void sendFinished();
    std::vector<nqRedisCommand> commandsToFinish(const std::vector<Finished>& batch) const;
    void onFinished(std::vector<Finished>&& batch, const nqRedisReply& reply, bool wasAlone);
    void handBackDue(TimePoint now);
    void sendHandedBack();
    void launchAgain(TimePoint now);
    void beginToLaunch();
    bool hasLaunchFailed() const;
    void beginToFinish();
    void endAll();
    void leave();
    void goOn();
    void describe(TimePoint now);
    void say(const std::string& text);
    void sayOnChange(std::string& said, const std::string& text);
    std::size_t fitting() const;
    void noteSizes(std::size_t largest);
    std::size_t room() const;
    std::string refusalToTake() const;
    TimePoint nextDue(TimePoint now) const;

    const nqAgentOptions mOptions;
    const nqRedisLink::Settings mRedis;
    const nqClusterKeys mKeys;
    const int mSignals;
    nqPool mPool;
    nqClusterWait mWait;
    Watcher mPoolWatcher; ///< looked at anyway
    Watcher mSignalWatcher;
    Watcher mNewsWatcher;
    nqRedisLink mCommands;
    nqRedisLink mReader;                     ///< waits for jobs
    std::string mName;                       ///< as Redis knows it; empty: it does not
    std::unique_ptr<nqHeartbeat> mHeartbeat; ///< once the workers are there
    nqAgentMetrics mMetrics;

    Phase mPhase = Phase::Working;
    int mStatus = 0;
    std::uint64_t mReaderId = 0; ///< Redis's name of the connection
    bool mIsReading = false;
    bool mIsAuditDue = true;
    TimePoint mNextAudit;
    TimePoint mLeaveBy;

    std::unordered_map<std::string, Held> mHeld;
    std::deque<Finished> mFinished;
    TimePoint mFinishedSince; ///< the first of them
    std::deque<std::vector<Finished>> mInFlight;
    std::size_t mInFlightBytes = 0;
    TimePoint mNextTry;                ///< to send outcomes, after a refusal
    bool mIsFinishingByScript = false; ///< once: Redis took nothing else
    std::vector<std::string> mToHandBack;
    std::deque<std::pair<TimePoint, std::string>> mToHandBackLater; ///< what this agent cannot run
    std::size_t mHandingBack = 0;                                   ///< without an answer

    bool mIsFull = false;
    bool mIsWithoutWorkers = false;
    bool mIsLaunching = false;
    std::uint64_t mFailedLaunches = 0; ///< before these
    TimePoint mNextLaunch;
    Milliseconds mLaunchPause{1'000};
    std::size_t mPrefetch = 0;
    std::size_t mLikelySize = std::size_t{4}
                              << 20; ///< bytes of a job or result; at first with care
    TimePoint mNextLook;
    std::uint64_t mEndedAtLastLook = 0;
    std::string mSaidProblem;
    std::string mSaidLaunch;
    std::string mSaidVersion;
    bool mHasSaidMetrics = false;

    nqAgentCounts mCounts;
};

} // namespace nq
