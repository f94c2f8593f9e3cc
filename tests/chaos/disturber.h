#pragma once

#include "tests/chaos/board.h"
#include "tests/chaos/figures.h"
#include "tests/chaos/plan.h"
#include "tests/chaos/processes.h"
#include "tests/common/random.h"

#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <vector>

namespace chaos {

/// Sends signals to the workers of one pool from a thread of its own, whatever the host is doing,
/// and remembers which worker got what.
class Disturber {
public:
    Disturber(
        const BoardMapping& board,
        const std::string& tag,
        const Disturbance& disturbance,
        std::uint64_t seed);
    ~Disturber();
    Disturber(const Disturber&) = delete;
    Disturber& operator=(const Disturber&) = delete;

    void begin();

    /// Continues whatever is stopped, and leaves the workers alone from then on.
    void calm();

    /// When the worker was sent a signal that ends it; nothing when it was not.
    std::optional<std::int64_t> fatalSignalAt(pid_t worker);

    bool hasStopped(pid_t worker);

    /// How many workers got a signal that ends them.
    std::size_t fatalCount();

    void addTo(Figures& figures);

private:
    struct Stopped {
        ProcessWatch worker;
        std::int64_t until;
    };

    void run();
    void disturbOne();
    void stop(pid_t worker, ProcessWatch watch);
    void continueDue(std::int64_t time);
    std::optional<pid_t> chooseWorker();

    const BoardMapping& mBoard;
    const std::string mTag;
    const Disturbance mDisturbance;
    common::SeededRandom mRandom;
    std::vector<Stopped> mStopped; // of the thread alone

    std::mutex mMutex; // of what follows
    std::condition_variable mWakeUp;
    bool mIsToEnd = false;
    std::map<pid_t, std::int64_t> mFatal;
    std::set<pid_t> mEverStopped;
    Figures mFigures;

    std::thread mThread;
};

} // namespace chaos
