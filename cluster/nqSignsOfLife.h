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

    /// The hash, or a part of it, as it was between `asked` and now. Those that are lost; they are
    /// told again until they are gone.
    std::vector<Lost> look(const nqRedisReply& agents, TimePoint asked, TimePoint now);

    /// Those that are to be looked at again: their values have not been seen to change. The others
    /// may be left out of the next look.
    std::vector<std::string> suspects() const;

    /// Whether one of them is late, so that it is time to look at all: many may have been lost in
    /// the same moment.
    bool isAnyoneLate() const
    {
        return mIsAnyoneLate;
    }

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

    /// How many there were in the last look.
    std::size_t count() const
    {
        return mSeen.size();
    }

private:
    struct Seen {
        std::string value;
        TimePoint since;               ///< it has been there then, or earlier
        TimePoint::duration counted{}; ///< of the time since then
        bool isThere = false;
        bool isAlive = false; ///< the value has changed with the last look
    };

    std::unordered_map<std::string, Seen> mSeen;
    std::chrono::milliseconds mInterval{1'000};
    TimePoint mLastAsked;
    bool mIsAnyoneLate = false;
};

} // namespace nq
