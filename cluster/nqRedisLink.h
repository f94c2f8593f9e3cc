#pragma once

#include "cluster/nqClusterScripts.h"
#include "cluster/nqClusterWait.h"
#include "cluster/nqDescriptor.h"
#include "cluster/nqRedisAddress.h"
#include "cluster/nqRedisCommand.h"
#include "cluster/nqRedisReply.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace nq {

class nqRedisLink;

/// Who uses a connection.
class nqRedisLinkOwner {
public:
    /// It is there, and commands may be sent.
    virtual void onReady(nqRedisLink& link) = 0;

    /// It is gone, and no reply that was awaited will come. Whether its command was carried out is
    /// not known.
    virtual void onDown(nqRedisLink& link) = 0;

protected:
    ~nqRedisLinkOwner() = default;
};

/// A connection with Redis that never blocks, gives up on an end that says nothing, and comes back
/// by itself. Looking up a host's name is the one thing that may take time.
class nqRedisLink final : private nqWaitOwner {
public:
    using TimePoint = nqClusterClock::time_point;
    using Milliseconds = std::chrono::milliseconds;
    using OnReply = std::function<void(const nqRedisReply& reply)>;

    struct Settings {
        nqRedisAddress address;
        Milliseconds connectTimeout{5'000};
        Milliseconds stallTimeout{5'000}; ///< without a byte, while a reply is awaited
    };

    /// Borrows both. Connects with the first step().
    nqRedisLink(const Settings& settings, nqClusterWait& wait, nqRedisLinkOwner& owner);
    ~nqRedisLink();
    nqRedisLink(const nqRedisLink&) = delete;
    nqRedisLink& operator=(const nqRedisLink&) = delete;

    /// Connects when that is due, and gives up on what takes too long.
    void step();
    std::optional<TimePoint> nextDue() const;

    bool isReady() const
    {
        return mPhase == Phase::Ready;
    }

    /// Puts a command behind the others. Only when ready; flush() sends it.
    void send(nqRedisCommand&& command, OnReply onReply);

    /// Puts commands behind the others that Redis carries out in one step, or refuses together.
    /// The reply is an array of theirs, or an error.
    void sendTogether(std::vector<nqRedisCommand>&& commands, OnReply onReply);

    /// Begins a command that runs a script; its keys and arguments follow.
    nqRedisCommand script(nqScript script, std::initializer_list<std::string_view> keys) const;

    /// The same where other commands count on it: with its text, which Redis cannot have lost.
    static nqRedisCommand
    scriptInFull(nqScript script, std::initializer_list<std::string_view> keys);

    /// Hands as much to the kernel as it takes.
    void flush();

    /// Closes the connection and makes a new one after a pause.
    void drop(const std::string& problem);

    /// Closes the connection and makes a new one soon: what was found is no trouble of Redis's.
    void restart();

    /// Bytes of commands that the kernel has not taken.
    std::size_t unsentBytes() const
    {
        return mUnsent;
    }

    /// How many commands have no reply.
    std::size_t awaitedCount() const
    {
        return mAwaited.size();
    }

    /// Why there is no connection; empty while there is one.
    const std::string& problem() const
    {
        return mProblem;
    }

    /// Whether the problem goes away by waiting, as that of a server that is still loading its
    /// data.
    bool isProblemPassing() const
    {
        return mIsProblemPassing;
    }

    /// How often a connection that was ready has been lost.
    std::uint64_t lossCount() const
    {
        return mLosses;
    }

private:
    enum class Phase {
        Down,       // no descriptor; the next try is due at mDue
        Connecting, // until mDue
        Greeting,   // connected; who is at the other end is not known; until mDue
        Ready,      // commands may be sent
    };

    struct Address {
        sockaddr_storage storage;
        socklen_t size;
    };

    void onDescriptor() override;

    void connect();
    bool lookUp();
    void connectNext();
    void onConnected();
    void greet();
    void enqueue(nqRedisCommand&& command, OnReply onReply);
    void greetWith(nqRedisCommand&& command, OnReply onReply);
    void onInformation(const nqRedisReply& reply);
    void receive();
    bool handleReplies();
    void close();
    void updateInterest();
    std::string whom() const;

    Settings mSettings;
    const pid_t mMaker = ::getpid();
    nqClusterWait& mWait;
    nqRedisLinkOwner& mOwner;

    Phase mPhase = Phase::Down;
    TimePoint mDue;
    TimePoint mProgress; ///< when the last byte moved
    std::vector<Address> mAddresses;
    std::size_t mNextAddress = 0;
    nqDescriptor mSocket;
    bool mIsWatchedToWrite = false;
    std::shared_ptr<redisReader> mReader;
    std::deque<OnReply> mAwaited;
    std::string mRefusal; ///< of the first refused command of those that go together
    std::deque<nqRedisCommand::Piece> mPieces;
    std::size_t mSentOfFirst = 0; ///< bytes of the first piece
    std::size_t mUnsent = 0;
    std::array<std::string, nqScriptCount> mScriptNames;
    unsigned mFailures = 0; ///< in a row
    std::uint64_t mLosses = 0;
    std::string mProblem;
    bool mIsProblemPassing = false;
    std::minstd_rand mRandom;
};

} // namespace nq
