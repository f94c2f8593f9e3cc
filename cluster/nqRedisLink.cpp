#include "cluster/nqRedisLink.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <system_error>
#include <utility>

// A connection is down, connecting, greeting or ready. Whatever goes wrong, in any phase, ends in
// drop(): it closes the socket, forgets what was to be sent and awaited, tells the owner, and sets
// the time of the next try. A reply's handler may drop the connection that it came from, so nothing
// of it is touched after a handler without a look whether it is still the same.

namespace nq {

namespace {

constexpr std::chrono::milliseconds firstPause{50};
constexpr std::chrono::milliseconds longestPause{1'000}; // well below a lease
constexpr unsigned pausesUntilLongest = 5;
constexpr std::size_t readAtOnce = std::size_t{256} << 10;
constexpr std::size_t readInOneTurn = std::size_t{4} << 20; // then the others have theirs
constexpr std::size_t piecesAtOnce = 64;
constexpr unsigned oldestMajor = 7; // scripts that say what they need came with it

std::string errorText(int error)
{
    return std::generic_category().message(error);
}

/// The value of "NAME:VALUE" in the lines of INFO.
std::string_view valueOf(std::string_view information, std::string_view name)
{
    std::size_t at = 0;
    while (at < information.size()) {
        const std::size_t end = std::min(information.find("\r\n", at), information.size());
        const std::string_view line = information.substr(at, end - at);
        if (line.size() > name.size() && line.substr(0, name.size()) == name &&
            line[name.size()] == ':')
            return line.substr(name.size() + 1);
        at = end + 2;
    }
    return {};
}

nqRedisCommand withKeys(nqRedisCommand&& command, std::initializer_list<std::string_view> keys)
{
    command.add(std::uint64_t{keys.size()});
    for (const std::string_view key : keys)
        command.add(key);
    return std::move(command);
}

} // namespace

nqRedisLink::nqRedisLink(const Settings& settings, nqClusterWait& wait, nqRedisLinkOwner& owner)
    : mSettings(settings),
      mWait(wait),
      mOwner(owner),
      mDue(nqClusterClock::now()),
      mRandom(std::random_device()())
{
}

nqRedisLink::~nqRedisLink()
{
    close();
}

void nqRedisLink::step()
{
    const TimePoint now = nqClusterClock::now();
    switch (mPhase) {
    case Phase::Down:
        if (now >= mDue)
            connect();
        return;
    case Phase::Connecting:
        if (now >= mDue)
            drop(whom() + " cannot be reached: nothing answers");
        return;
    case Phase::Greeting:
        if (now >= mDue)
            drop(whom() + " takes connections, but does not answer; is it a Redis server?");
        return;
    case Phase::Ready:
        if (!mAwaited.empty() && now >= mProgress + mSettings.stallTimeout)
            drop("The connection with " + whom() + " has stalled");
        return;
    }
}

std::optional<nqRedisLink::TimePoint> nqRedisLink::nextDue() const
{
    if (mPhase != Phase::Ready)
        return mDue;
    if (mAwaited.empty())
        return std::nullopt;
    return mProgress + mSettings.stallTimeout;
}

void nqRedisLink::connect()
{
    if (!lookUp())
        return;
    mNextAddress = 0;
    mDue = nqClusterClock::now() + mSettings.connectTimeout;
    connectNext();
}

bool nqRedisLink::lookUp()
{
    mAddresses.clear();
    const nqRedisAddress& address = mSettings.address;
    if (address.host.empty()) {
        Address found{};
        auto& unixAddress = reinterpret_cast<sockaddr_un&>(found.storage);
        unixAddress.sun_family = AF_UNIX;
        if (address.path.size() >= sizeof(unixAddress.sun_path)) {
            drop("The path of the Redis socket is too long: " + address.path);
            return false;
        }
        address.path.copy(unixAddress.sun_path, address.path.size());
        found.size = sizeof(unixAddress);
        mAddresses.push_back(found);
        return true;
    }
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    const int result =
        ::getaddrinfo(address.host.c_str(), std::to_string(address.port).c_str(), &hints, &list);
    if (result != 0) {
        drop(whom() + " cannot be found: " + ::gai_strerror(result));
        return false;
    }
    for (const addrinfo* each = list; each != nullptr; each = each->ai_next) {
        Address found{};
        std::memcpy(&found.storage, each->ai_addr, each->ai_addrlen);
        found.size = each->ai_addrlen;
        mAddresses.push_back(found);
    }
    ::freeaddrinfo(list);
    return true;
}

/// Tries the addresses of the host one after the other.
void nqRedisLink::connectNext()
{
    int error = EADDRNOTAVAIL;
    while (mNextAddress < mAddresses.size()) {
        const Address& address = mAddresses[mNextAddress++];
        close();
        mSocket = nqDescriptor(
            ::socket(address.storage.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        if (!mSocket.isOpen()) {
            error = errno;
            continue;
        }
        const int on = 1; // of no use to a Unix socket, and refused there
        ::setsockopt(mSocket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        const auto* const plain = reinterpret_cast<const sockaddr*>(&address.storage);
        const int result = ::connect(mSocket.get(), plain, address.size);
        error = result == 0 ? 0 : errno;
        if (error != 0 && error != EINPROGRESS)
            continue;
        if (!mWait.watch(mSocket.get(), *this, true)) {
            error = errno;
            continue;
        }
        mIsWatchedToWrite = true;
        mPhase = Phase::Connecting;
        return;
    }
    drop(whom() + " cannot be reached: " + errorText(error));
}

void nqRedisLink::onDescriptor()
{
    if (mPhase == Phase::Connecting) {
        onConnected();
        return;
    }
    if (mPhase != Phase::Down)
        receive();
    if (mPhase != Phase::Down)
        flush();
}

void nqRedisLink::onConnected()
{
    int error = 0;
    socklen_t size = sizeof(error);
    ::getsockopt(mSocket.get(), SOL_SOCKET, SO_ERROR, &error, &size);
    if (error == 0) {
        greet();
    } else if (mNextAddress < mAddresses.size()) {
        connectNext();
    } else {
        drop(whom() + " cannot be reached: " + errorText(error));
    }
}

void nqRedisLink::greet()
{
    mPhase = Phase::Greeting;
    mProgress = nqClusterClock::now();
    mReader = std::shared_ptr<redisReader>(::redisReaderCreate(), ::redisReaderFree);
    if (mReader == nullptr) {
        drop("There is no memory for a connection");
        return;
    }
    const nqRedisAddress& address = mSettings.address;
    if (!address.password.empty()) {
        nqRedisCommand command{"AUTH"};
        if (!address.user.empty())
            command.add(address.user);
        greetWith(std::move(command.add(address.password)), {});
    }
    if (address.database != 0)
        greetWith(std::move(nqRedisCommand{"SELECT"}.add(std::uint64_t{address.database})), {});
    greetWith({"INFO"}, [this](const nqRedisReply& reply) { onInformation(reply); });
    // Whoever may not have transactions hears so now: their commands would be carried out alone.
    greetWith({"MULTI"}, {});
    greetWith({"EXEC"}, {});
    for (std::size_t i = 0; i < nqScriptCount; ++i) {
        greetWith(
            {"SCRIPT", "LOAD", textOf(static_cast<nqScript>(i))},
            [this, i](const nqRedisReply& reply) {
                mScriptNames[i] = reply.text();
                if (i + 1 != nqScriptCount)
                    return;
                mPhase = Phase::Ready;
                mFailures = 0;
                mProblem.clear();
                mOwner.onReady(*this);
            });
    }
    flush();
}

/// Every error of the greeting is the end of it.
void nqRedisLink::greetWith(nqRedisCommand&& command, OnReply onReply)
{
    enqueue(std::move(command), [this, onReply = std::move(onReply)](const nqRedisReply& reply) {
        if (reply.isError("NOAUTH")) {
            drop(whom() + " wants a password; set NQ_REDIS_PASSWORD_FILE to a file that holds it");
        } else if (reply.isError("WRONGPASS") || reply.isError("ERR AUTH")) {
            drop(whom() + " refuses the password: " + std::string(reply.text()));
        } else if (reply.isError("LOADING")) {
            drop(whom() + " is loading its data");
            mIsProblemPassing = true;
        } else if (reply.isError()) {
            drop(whom() + " answers: " + std::string(reply.text()));
        } else if (onReply) {
            onReply(reply);
        }
    });
}

void nqRedisLink::onInformation(const nqRedisReply& reply)
{
    const std::string version(valueOf(reply.text(), "redis_version"));
    const std::string_view policy = valueOf(reply.text(), "maxmemory_policy");
    if (version.empty()) {
        drop(whom() + " does not say which version of Redis it is");
    } else if (std::strtoul(version.c_str(), nullptr, 10) < oldestMajor) {
        drop(whom() + " is Redis " + version + "; 7.0 or later is needed");
    } else if (valueOf(reply.text(), "role") == "slave") {
        drop(whom() + " is a replica; use the address of its master");
    } else if (policy != "noeviction") {
        drop(
            whom() + " throws away what it was given when its memory is full (maxmemory-policy " +
            std::string(policy) + "), jobs and results too; set maxmemory-policy noeviction");
    }
}

void nqRedisLink::send(nqRedisCommand&& command, OnReply onReply)
{
    if (mAwaited.empty())
        mProgress = nqClusterClock::now(); // nobody owed anything until now
    enqueue(std::move(command), std::move(onReply));
}

void nqRedisLink::enqueue(nqRedisCommand&& command, OnReply onReply)
{
    for (nqRedisCommand::Piece& piece : command.take()) {
        mUnsent += piece.text.size() + (piece.payload != nullptr ? piece.payload->size() : 0);
        // Small pieces become one.
        if (!mPieces.empty() && mPieces.back().payload == nullptr &&
            mPieces.back().text.size() + piece.text.size() < readAtOnce) {
            mPieces.back().text += piece.text;
            mPieces.back().payload = std::move(piece.payload);
        } else {
            mPieces.push_back(std::move(piece));
        }
    }
    mAwaited.push_back(std::move(onReply));
}

// Each of the commands has an answer of its own, that it is queued or why not. One that is not is
// the end of all.
void nqRedisLink::sendTogether(std::vector<nqRedisCommand>&& commands, OnReply onReply)
{
    send({"MULTI"}, [this](const nqRedisReply& reply) {
        if (reply.isError()) // what follows may have been carried out, each by itself
            drop("Redis answers: " + std::string(reply.text()));
    });
    for (nqRedisCommand& command : commands) {
        send(std::move(command), [this](const nqRedisReply& reply) {
            if (reply.isError() && mRefusal.empty())
                mRefusal = reply.text();
        });
    }
    send({"EXEC"}, [this, onReply = std::move(onReply)](const nqRedisReply& reply) {
        std::string refusal = std::exchange(mRefusal, {});
        redisReply why{};
        why.type = REDIS_REPLY_ERROR;
        why.str = refusal.data();
        why.len = refusal.size();
        onReply(refusal.empty() ? reply : nqRedisReply(&why));
    });
}

nqRedisCommand
nqRedisLink::script(nqScript script, std::initializer_list<std::string_view> keys) const
{
    return withKeys({"EVALSHA", mScriptNames[static_cast<std::size_t>(script)]}, keys);
}

nqRedisCommand
nqRedisLink::scriptInFull(nqScript script, std::initializer_list<std::string_view> keys)
{
    return withKeys({"EVAL", textOf(script)}, keys);
}

void nqRedisLink::flush()
{
    if (mPhase != Phase::Greeting && mPhase != Phase::Ready)
        return;
    while (mUnsent != 0) {
        std::array<iovec, 2 * piecesAtOnce> vectors{};
        std::size_t count = 0;
        std::size_t skipped = mSentOfFirst;
        const auto addVector = [&](char* data, std::size_t size) {
            const std::size_t less = std::min(skipped, size);
            skipped -= less;
            if (size != less)
                vectors[count++] = {data + less, size - less};
        };
        for (std::size_t i = 0; i < std::min(mPieces.size(), piecesAtOnce); ++i) {
            nqRedisCommand::Piece& piece = mPieces[i];
            addVector(piece.text.data(), piece.text.size());
            if (piece.payload != nullptr)
                addVector(piece.payload->data(), piece.payload->size());
        }
        msghdr message{};
        message.msg_iov = vectors.data();
        message.msg_iovlen = count;
        const ssize_t moved = ::sendmsg(mSocket.get(), &message, MSG_NOSIGNAL);
        if (moved < 0) {
            if (errno == EINTR)
                continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK)
                break;
            drop("The connection with " + whom() + " broke: " + errorText(errno));
            return;
        }
        mProgress = nqClusterClock::now();
        mUnsent -= static_cast<std::size_t>(moved);
        mSentOfFirst += static_cast<std::size_t>(moved);
        while (!mPieces.empty()) {
            const nqRedisCommand::Piece& piece = mPieces.front();
            const std::size_t size =
                piece.text.size() + (piece.payload != nullptr ? piece.payload->size() : 0);
            if (mSentOfFirst < size)
                break;
            mSentOfFirst -= size;
            mPieces.pop_front();
        }
    }
    updateInterest();
}

void nqRedisLink::updateInterest()
{
    const bool isWanted = mUnsent != 0;
    if (std::exchange(mIsWatchedToWrite, isWanted) != isWanted)
        mWait.change(mSocket.get(), *this, isWanted);
}

void nqRedisLink::receive()
{
    thread_local std::vector<char> buffer(readAtOnce);
    std::size_t total = 0;
    while (total < readInOneTurn) {
        const ssize_t got = ::recv(mSocket.get(), buffer.data(), buffer.size(), 0);
        if (got < 0) {
            if (errno == EINTR)
                continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK)
                return;
            drop("The connection with " + whom() + " broke: " + errorText(errno));
            return;
        }
        if (got == 0) {
            drop(
                mPhase == Phase::Greeting
                    ? whom() + " closes the connection at once; is it a Redis server?"
                    : whom() + " has closed the connection");
            return;
        }
        mProgress = nqClusterClock::now();
        total += static_cast<std::size_t>(got);
        if (::redisReaderFeed(mReader.get(), buffer.data(), static_cast<std::size_t>(got)) !=
            REDIS_OK) {
            drop("There is no memory for what " + whom() + " sends");
            return;
        }
        if (!handleReplies() || static_cast<std::size_t>(got) < buffer.size())
            return;
    }
}

/// False when the connection is not the same any more.
bool nqRedisLink::handleReplies()
{
    const std::shared_ptr<redisReader> reader = mReader; // may be replaced meanwhile
    for (;;) {
        void* raw = nullptr;
        if (::redisReaderGetReply(reader.get(), &raw) != REDIS_OK) {
            drop(
                whom() + (mPhase == Phase::Greeting
                              ? " answers with something that is not Redis's protocol"
                              : std::string(" sends something that is not Redis's protocol: ") +
                                    reader->errstr));
            return false;
        }
        if (raw == nullptr)
            return true;
        const std::unique_ptr<redisReply, void (*)(void*)> reply(
            static_cast<redisReply*>(raw), ::freeReplyObject);
        if (mAwaited.empty()) {
            drop(whom() + " answers what nobody has asked");
            return false;
        }
        const OnReply onReply = std::move(mAwaited.front());
        mAwaited.pop_front();
        if (onReply)
            onReply(nqRedisReply(reply.get()));
        if (mReader != reader)
            return false;
    }
}

void nqRedisLink::drop(const std::string& problem)
{
    const bool wasReady = mPhase == Phase::Ready;
    close();
    mPhase = Phase::Down;
    mProblem = problem;
    mIsProblemPassing = false;
    // Not all at the same moment, when a server with a thousand connections comes back.
    const auto grown =
        std::min(longestPause, firstPause * (1U << std::min(mFailures, pausesUntilLongest)));
    const auto half = grown.count() / 2;
    std::uniform_int_distribution<std::int64_t> more(0, half);
    mDue = nqClusterClock::now() + Milliseconds(half + more(mRandom));
    ++mFailures;
    if (wasReady)
        ++mLosses;
    mOwner.onDown(*this);
}

void nqRedisLink::restart()
{
    mFailures = 0;
    drop({});
}

void nqRedisLink::close()
{
    if (mSocket.isOpen() && ::getpid() == mMaker) // a forked child shares the set of its parent
        mWait.forget(mSocket.get());
    mSocket.close();
    mReader.reset();
    mAwaited.clear();
    mRefusal.clear();
    mPieces.clear();
    mSentOfFirst = 0;
    mUnsent = 0;
}

std::string nqRedisLink::whom() const
{
    return "Redis at " + mSettings.address.text();
}

} // namespace nq
