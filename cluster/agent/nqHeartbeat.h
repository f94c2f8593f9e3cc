#pragma once

#include "cluster/nqClusterKeys.h"
#include "cluster/nqClusterWait.h"
#include "cluster/nqDescriptor.h"
#include "cluster/nqRedisLink.h"
#include "cluster/nqSignsOfLife.h"

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace nq {

/// Keeps an agent's lease on a thread of its own, whatever its jobs do, for as long as the agent
/// itself comes round or launches a worker: a hung or stopped one loses its lease. Looks whether
/// the other agents live, and hears what they are told.
class nqHeartbeat final : private nqRedisLinkOwner {
public:
    using TimePoint = nqClusterClock::time_point;
    using Description = std::vector<std::pair<std::string, std::string>>;

    struct Settings {
        nqRedisLink::Settings redis;
        std::string queue;
        std::string name; ///< of the agent
        std::chrono::milliseconds lease;
    };

    /// What an agent has to know.
    struct News {
        std::string name;                   ///< as which it may take jobs; empty: it may not
        bool isLost = false;                ///< others have taken its jobs; told once
        bool isFull = false;                ///< Redis has no room for more results
        std::string problem;                ///< why there is no connection
        std::vector<std::string> cancelled; ///< entries of jobs; each told once
    };

    /// Starts the thread.
    explicit nqHeartbeat(const Settings& settings);

    /// Ends the thread, and with it the lease in the end.
    ~nqHeartbeat();
    nqHeartbeat(const nqHeartbeat&) = delete;
    nqHeartbeat& operator=(const nqHeartbeat&) = delete;

    /// The agent comes round. Any text of `description` is for people.
    void comeRound(Description&& description);

    /// The agent comes round no more until a worker is launched, and that takes `longest` at most.
    /// Keeps the lease for that long besides.
    void launch(std::chrono::milliseconds longest);

    /// Readable when there is news.
    int descriptor() const
    {
        return mNewsDescriptor.get();
    }

    News takeNews();

private:
    struct Waker final : nqWaitOwner {
        void onDescriptor() override {}
    };

    void onReady(nqRedisLink& link) override;
    void onDown(nqRedisLink& link) override;

    void run();
    void join();
    void beat(TimePoint now);
    void onBeaten(const nqRedisReply& reply, TimePoint asked);
    void onMemory(const nqRedisReply& reply);
    void readOrders();
    void tell();
    std::string value() const;
    bool isHung(TimePoint now);

    const Settings mSettings;
    const nqClusterKeys mKeys;
    nqDescriptor mNewsDescriptor;
    nqDescriptor mEndDescriptor;

    // Of the thread.
    nqClusterWait mWait;
    Waker mWaker;
    nqRedisLink mCommands;
    nqRedisLink mOrders;
    std::string mName;
    const std::string mWord; ///< tells it from another one of its name
    std::string mLastOrder = "0";
    unsigned mLives = 1; ///< with each, the name is another
    bool mIsJoined = false;
    std::uint64_t mBeats = 0;
    TimePoint mNextBeat;
    nqSignsOfLife mSigns;

    std::mutex mMutex; // guards what follows
    News mNews;
    Description mDescription;
    TimePoint mCameRound;
    std::chrono::milliseconds mLaunch{0}; ///< how long the launch since then may take
    bool mIsEnding = false;

    std::thread mThread; // the last, so that all is there when it starts
};

} // namespace nq
