#pragma once

#include "cluster/include/nqClusterPool.h"
#include "cluster/nqClusterDelivery.h"
#include "cluster/nqClusterKeys.h"
#include "cluster/nqClusterMessages.h"
#include "cluster/nqClusterWait.h"
#include "cluster/nqRedisLink.h"
#include "cluster/nqSignsOfLife.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unistd.h>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace nq {

/// A submitter's state. A job is in the ledger from submit() to its outcome, whatever Redis knows
/// of it.
class nqClusterPoolPrivate final : private nqRedisLinkOwner {
public:
    using TimePoint = nqClusterClock::time_point;
    using Milliseconds = std::chrono::milliseconds;
    using Reason = nqAttempt::Reason;
    using State = nqOutcome::State;

    nqClusterPoolPrivate(
        const std::string& url,
        const std::string& queue,
        const nqPoolOptions& options,
        const nqClusterOptions& cluster);
    ~nqClusterPoolPrivate();
    nqClusterPoolPrivate(const nqClusterPoolPrivate&) = delete;
    nqClusterPoolPrivate& operator=(const nqClusterPoolPrivate&) = delete;

    nqJobId submit(nqJobBytes& bytes, const nqJobOptions* options, nqPool::Callback&& callback);
    bool cancel(nqJobId id, bool onlyIfWaiting);
    std::size_t pump(Milliseconds timeout);
    int waitDescriptor();
    std::optional<nqOutcome> next(Milliseconds timeout);
    bool drain(const nqPool::Progress& progress);
    void stop();

    std::size_t unfinishedCount() const;
    std::string problem() const;
    nqClusterStatistics statistics() const;

private:
    /// What only some jobs have.
    struct Details {
        nqJobOptions options;
        std::vector<nqAttempt> earlierAttempts;
        std::chrono::microseconds queued{}; ///< before the first of them
        std::string earlierOutcome;         ///< its entry, kept until Redis has the next attempt
    };

    struct Job {
        enum class Phase {
            Waiting,  // in mOutbox
            Sent,     // in mInFlight, or its answer was lost
            Accepted, // Redis has it
            Pausing,  // before another attempt, in mPauses
        };

        Details& ownDetails();

        nqSharedBytes bytes;
        nqPool::Callback callback;
        TimePoint submitted;
        std::unique_ptr<Details> details; ///< null for an ordinary job
        std::string entry;                ///< in the stream of jobs, where that is known
        std::uint64_t number = 0;         ///< what Redis has counted it as; 0: never sent
        unsigned attempt = 1;
        Phase phase = Phase::Waiting;
        bool isCancelled = false;
        bool onlyIfWaiting = false; ///< it is cancelled, unless an agent has it
    };

    using Ledger = std::unordered_map<nqJobId, Job>;

    /// Jobs that went in one step.
    struct Batch {
        std::vector<nqJobId> ids;
        std::size_t bytes = 0;
    };

    void onReady(nqRedisLink& link) override;
    void onDown(nqRedisLink& link) override;

    // The session with Redis.
    void connect();
    void open();
    void onOpened(const nqRedisReply& reply);
    void settle(std::uint64_t last);
    void onRefusal(const nqRedisReply& reply);

    // What is due, in the order in which a step does it.
    void step();
    void dropExpired(TimePoint now);
    void endPauses(TimePoint now);
    void sendJobs();
    void sendBatch();
    void onAccepted(const Batch& batch, const nqRedisReply& reply);
    void accept(nqJobId id, std::uint64_t number, std::string_view entry);
    void sendWithdrawals();
    void withdraw(
        nqJobId id,
        const std::string& entry,
        unsigned attempt,
        bool isOutcomeWanted,
        const std::string& from,
        bool onlyIfWaiting = false);
    void sendTaken();
    void watch(TimePoint now);
    void onWatched(const nqRedisReply& reply, TimePoint asked);
    void flush();

    // Outcomes.
    void readOutcomes();
    void onOutcomes(const nqRedisReply& reply);
    bool mustWait(const nqOutcomeMessage& message) const;
    void onOutcome(nqOutcomeMessage&& message);
    bool readNewer(nqOutcomeMessage& message);
    void onLeftOutcome(nqOutcomeMessage&& message);
    void dropOutcome(const std::string& entry);
    bool tryAgain(nqJobId id, Job& job, nqOutcomeMessage& message);
    void finish(Ledger::iterator found, nqOutcome&& outcome, std::string&& entry);
    void finishHere(Ledger::iterator found, Reason reason);
    void forgetDeadline(nqJobId id, const nqJobOptions& options);
    void countOutcome(const nqOutcome& outcome);

    bool canSend() const;
    bool isFull(std::size_t more) const;
    bool isBusy() const;
    std::optional<TimePoint> nextDue(TimePoint now) const;
    void updateWakeUp();
    void requireUsable(const char* operation) const;
    std::size_t deliver();

    nqPoolOptions mOptions;
    nqClusterOptions mCluster;
    nqClusterKeys mKeys;
    std::string mClient;
    std::string mClientKey;
    std::string mOutcomesKey;
    nqClusterWait mWait;
    nqRedisLink mCommands;
    nqRedisLink mReader; ///< waits for outcomes

    std::string mSession;
    bool mIsOpen = false;
    bool mWasOpen = false;     ///< at some time
    bool mIsTakenOver = false; ///< by another program with the client's name
    bool mIsReading = false;

    Ledger mJobs;
    nqJobId mLastId = 0;
    nqJobId mBaseId = 0; ///< ids up to it are those of the client before
    std::size_t mPendingBytes = 0;
    std::deque<nqJobId> mOutbox; ///< in the order in which they go; some have ended meanwhile
    std::deque<Batch> mInFlight;
    std::size_t mInFlightBytes = 0;
    std::vector<nqJobId>
        mReturned;               ///< refused, or without an answer; in the order of their numbers
    std::uint64_t mNumber = 0;   ///< of the last job that was sent
    std::uint64_t mAccepted = 0; ///< of the last job that Redis has
    TimePoint mNextTry;          ///< after a refusal
    std::string mRefusal;

    std::unordered_set<nqJobId> mCancelled; ///< until their outcomes come
    std::vector<nqJobId> mToWithdraw;
    std::multimap<TimePoint, nqJobId> mPauses;
    std::multimap<TimePoint, nqJobId> mDeadlines;

    std::string mLastOutcome = "0";
    std::string mWaitingAfter; ///< the entry before the first that waits in Redis; empty: none
    std::size_t mLikelySize = std::size_t{256} << 10; ///< bytes of an outcome; at first with care
    std::unordered_set<std::string> mHeld; ///< entries that were read and are not deleted yet
    std::vector<std::string> mToDelete;
    std::deque<std::vector<std::string>> mDeleting; ///< without an answer
    TimePoint mNextDeletion;                        ///< after a refusal
    nqClusterDelivery mDelivery;
    std::size_t mLeft = 0; ///< outcomes of the client before that have not come
    std::unordered_set<nqJobId> mLeftSeen;
    std::string mNewerVersion; ///< what to say of outcomes that cannot be read

    nqSignsOfLife mSigns;
    TimePoint mNextWatch;
    bool mHasWatched = false; ///< so that the number of agents is known

    const pid_t mOwner = ::getpid();
    bool mIsStopped = false;
    bool mIsInCallback = false;
    bool mIsDraining = false;
    bool mIsAllDone = true;    ///< since the last drain
    bool mIsWaitedFor = false; ///< outside of pump()
    nqClusterStatistics mCounts;
    const TimePoint mMade = nqClusterClock::now();
};

} // namespace nq
