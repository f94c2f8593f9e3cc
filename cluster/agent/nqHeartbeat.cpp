#include "cluster/agent/nqHeartbeat.h"

#include "cluster/nqClusterNames.h"

#include <csignal>
#include <cstdlib>
#include <random>
#include <sys/eventfd.h>
#include <utility>

namespace nq {

namespace {

constexpr std::int64_t beatsInALease = 5;
constexpr std::chrono::milliseconds descriptionKept{60'000}; // for people; a wall clock decides

void makeReadable(int descriptor)
{
    ::eventfd_write(descriptor, 1);
}

std::uint64_t numberAfter(std::string_view text, std::string_view name)
{
    const std::size_t at = text.find(name);
    if (at == text.npos)
        return 0;
    return std::strtoull(std::string(text.substr(at + name.size(), 24)).c_str(), nullptr, 10);
}

/// Signals are for the agent's own thread.
class WithoutSignals {
public:
    WithoutSignals()
    {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &mBefore);
    }
    ~WithoutSignals()
    {
        ::pthread_sigmask(SIG_SETMASK, &mBefore, nullptr);
    }
    WithoutSignals(const WithoutSignals&) = delete;
    WithoutSignals& operator=(const WithoutSignals&) = delete;

private:
    sigset_t mBefore{};
};

} // namespace

nqHeartbeat::nqHeartbeat(const Settings& settings)
    : mSettings(settings),
      mKeys(settings.queue),
      mNewsDescriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      mEndDescriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      mCommands(settings.redis, mWait, *this),
      mOrders(settings.redis, mWait, *this),
      mName(settings.name),
      mWord(uniqueToken()),
      mCameRound(nqClusterClock::now())
{
    mWait.watch(mEndDescriptor.get(), mWaker, false);
    const WithoutSignals blocked; // the thread inherits it
    mThread = std::thread([this] { run(); });
}

nqHeartbeat::~nqHeartbeat()
{
    {
        const std::lock_guard lock(mMutex);
        mIsEnding = true;
    }
    makeReadable(mEndDescriptor.get());
    mThread.join();
}

void nqHeartbeat::comeRound(Description&& description)
{
    const std::lock_guard lock(mMutex);
    mCameRound = nqClusterClock::now();
    mLaunch = std::chrono::milliseconds(0);
    mDescription = std::move(description);
}

void nqHeartbeat::launch(std::chrono::milliseconds longest)
{
    const std::lock_guard lock(mMutex);
    mCameRound = nqClusterClock::now();
    mLaunch = longest;
}

nqHeartbeat::News nqHeartbeat::takeNews()
{
    eventfd_t count = 0;
    ::eventfd_read(mNewsDescriptor.get(), &count);
    const std::lock_guard lock(mMutex);
    News news = mNews;
    mNews.isLost = false;
    mNews.cancelled.clear();
    return news;
}

void nqHeartbeat::run()
{
    for (;;) {
        mCommands.step();
        mOrders.step();
        const TimePoint now = nqClusterClock::now();
        if (mIsJoined && mCommands.isReady() && now >= mNextBeat)
            beat(now);
        mCommands.flush();
        mOrders.flush();
        {
            const std::lock_guard lock(mMutex);
            if (mIsEnding)
                return;
        }
        TimePoint due = now + mSettings.lease;
        for (const nqRedisLink* link : {&mCommands, &mOrders})
            due = std::min(due, link->nextDue().value_or(due));
        if (mIsJoined && mCommands.isReady())
            due = std::min(due, mNextBeat);
        mWait.sleep(std::chrono::ceil<std::chrono::milliseconds>(std::max(due, now) - now));
    }
}

void nqHeartbeat::onReady(nqRedisLink& link)
{
    if (&link == &mOrders) {
        readOrders();
        return;
    }
    mSigns.forget();
    if (mIsJoined)
        mNextBeat = nqClusterClock::now(); // tells whether the others have given it up meanwhile
    else
        join();
    tell();
}

void nqHeartbeat::onDown(nqRedisLink& link)
{
    if (&link == &mCommands)
        tell();
}

void nqHeartbeat::tell()
{
    const std::lock_guard lock(mMutex);
    mNews.name = mIsJoined ? mName : std::string();
    mNews.problem = mCommands.problem();
    makeReadable(mNewsDescriptor.get());
}

void nqHeartbeat::join()
{
    nqRedisCommand command =
        mCommands.script(nqScript::Join, {mKeys.jobs, mKeys.agents, mKeys.runs});
    command.add(mKeys.prefix).add(mName);
    command.add(value()).add(uniqueToken());
    mCommands.send(std::move(command), [this](const nqRedisReply& reply) {
        if (reply.isError()) {
            mCommands.drop("Redis answers: " + std::string(reply.text()));
            return;
        }
        mIsJoined = true;
        mNextBeat = nqClusterClock::now();
        mOrders.restart(); // those of its name
        tell();
    });
}

std::string nqHeartbeat::value() const
{
    return nqSignsOfLife::valueOf(mSettings.lease, mBeats) + ' ' + mWord;
}

bool nqHeartbeat::isHung(TimePoint now)
{
    const std::lock_guard lock(mMutex);
    return now - mCameRound > mSettings.lease + mLaunch;
}

void nqHeartbeat::beat(TimePoint now)
{
    mNextBeat = now + mSettings.lease / beatsInALease;
    if (isHung(now))
        return;
    nqRedisCommand command = mCommands.script(nqScript::Beat, {mKeys.agents, mKeys.agent(mName)});
    ++mBeats;
    command.add(mName).add(value());
    command.add(static_cast<std::uint64_t>(descriptionKept.count()));
    const std::vector<std::string> suspects = mSigns.suspects();
    command.add(mSigns.isAnyoneLate() ? "1" : "0").add(std::uint64_t{suspects.size()});
    for (const std::string& agent : suspects)
        command.add(agent);
    {
        const std::lock_guard lock(mMutex);
        for (const auto& [key, value] : mDescription)
            command.add(key).add(value);
    }
    mCommands.send(
        std::move(command), [this, now](const nqRedisReply& reply) { onBeaten(reply, now); });
    mCommands.send({"INFO", "memory"}, [this](const nqRedisReply& reply) { onMemory(reply); });
}

void nqHeartbeat::onBeaten(const nqRedisReply& reply, TimePoint asked)
{
    if (reply.isError("NQLOST")) {
        mIsJoined = false;
        mName = mSettings.name + '.' + std::to_string(++mLives);
        mLastOrder = "0";
        {
            const std::lock_guard lock(mMutex);
            mNews.isLost = true;
            mNews.cancelled.clear();
        }
        join();
        tell();
        return;
    }
    if (reply.isError()) {
        mCommands.drop("Redis answers: " + std::string(reply.text()));
        return;
    }
    for (const nqSignsOfLife::Lost& lost : mSigns.look(reply[1], asked, nqClusterClock::now())) {
        if (lost.agent == mName)
            continue;
        nqRedisCommand command = mCommands.script(nqScript::Lose, {mKeys.jobs, mKeys.agents});
        command.add(mKeys.prefix).add(lost.agent).add(lost.value).add(lost.message);
        mCommands.send(std::move(command), {});
    }
    // Of a thousand agents, about one does this at a time.
    thread_local std::minstd_rand random{std::random_device()()};
    if (std::uniform_int_distribution<std::uint64_t>(0, reply[0].number())(random) == 0)
        mCommands.send(mCommands.script(nqScript::Sweep, {mKeys.jobs, mKeys.agents}), {});
}

// Results go into a full server still, or it could never become emptier; but no new ones are made.
void nqHeartbeat::onMemory(const nqRedisReply& reply)
{
    const std::uint64_t used = numberAfter(reply.text(), "\nused_memory:");
    const std::uint64_t most = numberAfter(reply.text(), "\nmaxmemory:");
    const bool isFull = most != 0 && used > most + most / 10;
    const std::lock_guard lock(mMutex);
    if (std::exchange(mNews.isFull, isFull) != isFull)
        makeReadable(mNewsDescriptor.get());
}

void nqHeartbeat::readOrders()
{
    if (!mIsJoined)
        return; // it is connected anew when it has joined
    nqRedisCommand command{"XREAD", "COUNT", "1000", "BLOCK"};
    command.add(static_cast<std::uint64_t>(mSettings.redis.stallTimeout.count() / 2));
    command.add("STREAMS").add(mKeys.orders(mName)).add(mLastOrder);
    mOrders.send(std::move(command), [this](const nqRedisReply& reply) {
        const nqRedisReply entries = reply[0][1];
        if (entries.size() != 0) {
            const std::lock_guard lock(mMutex);
            for (std::size_t i = 0; i < entries.size(); ++i) {
                mLastOrder = entries[i][0].text();
                mNews.cancelled.emplace_back(entries[i][1].find("cancel").text());
            }
            makeReadable(mNewsDescriptor.get());
        }
        if (reply.isError())
            mOrders.drop("Redis answers: " + std::string(reply.text()));
        else
            readOrders();
    });
}

} // namespace nq
