#pragma once

#include "cluster/nqClusterWait.h"
#include "cluster/nqRedisReply.h"

#include <chrono>
#include <string>
#include <unordered_map>
#include <vector>

namespace nq {

/// Watches the agents of a queue: each changes its value in a hash as long as it lives. Goes by how
/// long this process has seen the same value, and so by no wall clock and no clock of another
/// machine.
class nqSignsOfLife {
public:
    using TimePoint = nqClusterClock::time_point;

    /// What an agent's value says: how long it may stay the same, and a count.
    static std::string valueOf(std::chrono::milliseconds lease, std::uint64_t count);

    struct Lost {
        std::string agent;
        std::string value;
        std::string message; ///< for people
    };

    /// The hash as it was between `asked` and now. Those that are lost; they are told again until
    /// they are gone.
    std::vector<Lost> look(const nqRedisReply& agents, TimePoint asked, TimePoint now);

    /// Redis was away, for others perhaps longer: everybody gets another lease.
    void forget()
    {
        mSeen.clear();
    }

    /// How often to look, in order to find one within twice its lease.
    std::chrono::milliseconds interval() const
    {
        return mInterval;
    }

    /// How many there are.
    std::size_t count() const
    {
        return mSeen.size();
    }

private:
    struct Seen {
        std::string value;
        TimePoint since;               ///< it has been there then, or earlier
        TimePoint::duration counted{}; ///< of the time since then
        bool isThere = true;
    };

    std::unordered_map<std::string, Seen> mSeen;
    std::chrono::milliseconds mInterval{1'000};
    TimePoint mLastAsked;
};

} // namespace nq
