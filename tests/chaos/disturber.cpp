#include "tests/chaos/disturber.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <limits>

namespace chaos {

namespace {

constexpr std::int64_t nanosecondsPerMs = 1'000'000;
constexpr std::int64_t lookAtStoppedEveryUs = 1'000;
constexpr std::uint32_t newestWorkers = 12; // the older ones are hardly alive

void blockEverySignal()
{
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
}

} // namespace

Disturber::Disturber(
    const BoardMapping& board,
    const std::string& tag,
    const Disturbance& disturbance,
    std::uint64_t seed)
    : mBoard(board),
      mTag(tag),
      mDisturbance(disturbance),
      mRandom(seed)
{
}

Disturber::~Disturber()
{
    calm();
}

void Disturber::begin()
{
    if (mDisturbance.intervalUs == 0 || mThread.joinable())
        return;
    mIsToEnd = false;
    mThread = std::thread([this] { run(); });
}

void Disturber::calm()
{
    if (!mThread.joinable())
        return;
    {
        const std::lock_guard guard(mMutex);
        mIsToEnd = true;
    }
    mWakeUp.notify_one();
    mThread.join();
}

std::optional<std::int64_t> Disturber::fatalSignalAt(pid_t worker)
{
    const std::lock_guard guard(mMutex);
    const auto found = mFatal.find(worker);
    if (found == mFatal.end())
        return std::nullopt;
    return found->second;
}

bool Disturber::hasStopped(pid_t worker)
{
    const std::lock_guard guard(mMutex);
    return mEverStopped.count(worker) != 0;
}

std::size_t Disturber::fatalCount()
{
    const std::lock_guard guard(mMutex);
    return mFatal.size();
}

void Disturber::addTo(Figures& figures)
{
    const std::lock_guard guard(mMutex);
    figures.add(mFigures);
    mFigures = Figures();
}

void Disturber::run()
{
    blockEverySignal();
    std::int64_t nextAt = 0;
    std::unique_lock lock(mMutex);
    while (!mIsToEnd) {
        lock.unlock();
        const std::int64_t time = now();
        continueDue(time);
        if (time >= nextAt) {
            disturbOne();
            nextAt = time + 1000 * static_cast<std::int64_t>(
                                       mRandom.below(2 * std::uint64_t{mDisturbance.intervalUs}));
        }
        lock.lock();
        const std::int64_t untilNextUs = std::max<std::int64_t>((nextAt - now()) / 1000, 0);
        const std::int64_t waitUs =
            mStopped.empty() ? untilNextUs : std::min(untilNextUs, lookAtStoppedEveryUs);
        mWakeUp.wait_for(lock, std::chrono::microseconds(waitUs), [this] { return mIsToEnd; });
    }
    lock.unlock();
    continueDue(std::numeric_limits<std::int64_t>::max());
}

void Disturber::disturbOne()
{
    const Disturbance& wanted = mDisturbance;
    const std::uint64_t choice = mRandom.below(wanted.kills + wanted.crashes + wanted.stops);
    const std::optional<pid_t> worker = chooseWorker();
    if (!worker)
        return;
    // The watch first: when the command line is then still the right one, so is the process.
    ProcessWatch watch(*worker);
    if (!watch.lives() || commandLine(*worker).find(mTag) == std::string::npos)
        return;
    if (choice >= wanted.kills + wanted.crashes)
        return stop(*worker, std::move(watch));

    const bool isKill = choice < wanted.kills;
    const std::lock_guard guard(mMutex); // a failure that follows finds the entry
    // A crash of a stopped worker would wait until it is continued.
    if (!isKill && mEverStopped.count(*worker) != 0)
        return;
    const std::int64_t time = now();
    if (!watch.kill(isKill ? SIGKILL : SIGSEGV))
        return;
    mFatal.emplace(*worker, time);
    ++(isKill ? mFigures.kills : mFigures.crashes);
}

void Disturber::stop(pid_t worker, ProcessWatch watch)
{
    const auto durationMs =
        static_cast<std::int64_t>(1 + mRandom.below(mDisturbance.longestStopMs));
    const std::lock_guard guard(mMutex);
    if (!watch.kill(SIGSTOP))
        return;
    mEverStopped.insert(worker);
    ++mFigures.stops;
    mStopped.push_back({std::move(watch), now() + durationMs * nanosecondsPerMs});
}

void Disturber::continueDue(std::int64_t time)
{
    std::vector<Stopped> still;
    for (Stopped& stopped : mStopped)
        if (stopped.until <= time)
            stopped.worker.kill(SIGCONT);
        else
            still.push_back(std::move(stopped));
    mStopped.swap(still);
}

/// One of those that entered themselves last.
std::optional<pid_t> Disturber::chooseWorker()
{
    const std::uint32_t count =
        std::min<std::uint32_t>(mBoard->workerCount, static_cast<std::uint32_t>(Board::maxWorkers));
    const std::uint64_t back = mRandom.below(newestWorkers);
    if (back >= count)
        return std::nullopt;
    const pid_t worker = mBoard->workers[count - 1 - back].pid;
    if (worker == 0)
        return std::nullopt;
    return worker;
}

} // namespace chaos
