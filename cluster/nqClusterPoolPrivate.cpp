#include "cluster/nqClusterPoolPrivate.h"

#include "cluster/nqClusterNames.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iostream>
#include <unistd.h>
#include <utility>

// The ledger has every job that has no outcome. Redis counts the jobs that it accepts from a
// client, so that after any loss, of a connection or of data, its count alone says which of the
// ledger it has: those numbered up to it. What it does not have goes to the front of the outbox.

namespace nq {

namespace {

using Reason = nqAttempt::Reason;
using State = nqOutcome::State;

constexpr std::chrono::milliseconds noLimit{-1};
constexpr std::chrono::milliseconds progressInterval{100};
constexpr std::chrono::milliseconds pauseAfterRefusal{250};
constexpr std::chrono::milliseconds longestStop{2'000};
constexpr std::chrono::milliseconds longestGoodbye{1'000};
constexpr std::chrono::milliseconds idleWatch{10'000};
constexpr std::chrono::milliseconds shortestKept{1'000};
constexpr std::chrono::milliseconds longestKept{std::chrono::hours(24 * 365 * 100)}; // Redis adds

constexpr unsigned idBitsOfOneRun = 32; // above them: which program of the queue's it is

constexpr std::size_t jobsOfOneBatch = 128; // what a script does at once, others wait for
constexpr std::size_t bytesOfOneBatch = std::size_t{512} << 10;
constexpr std::size_t batchesInFlight = 16;
constexpr std::size_t bytesInFlight = std::size_t{8} << 20;

constexpr std::size_t mostOutcomesRead = 512;
constexpr std::size_t outcomeBytesAtOnce = std::size_t{4} << 20; // aimed at, by what came before
constexpr std::size_t uncollectedBytes = std::size_t{64} << 20;  // beyond it, they stay in Redis
constexpr std::uint64_t lookForRoom = 50;                        // ms
constexpr std::size_t deletedAtOnce = 1000;

State stateFor(Reason reason)
{
    return reason == Reason::Cancelled || reason == Reason::Stopped ? State::Cancelled
                                                                    : State::Failed;
}

std::chrono::microseconds inMicroseconds(nqClusterClock::duration duration)
{
    return std::chrono::duration_cast<std::chrono::microseconds>(duration);
}

std::chrono::milliseconds
untilAtLeast(nqClusterClock::time_point due, nqClusterClock::time_point now)
{
    return std::chrono::ceil<std::chrono::milliseconds>(std::max(due, now) - now);
}

/// `now` and `longer`, or the end of time: hosts say milliseconds::max() for "never".
nqClusterClock::time_point later(nqClusterClock::time_point now, std::chrono::milliseconds longer)
{
    const auto longest = std::chrono::duration_cast<std::chrono::milliseconds>(
        nqClusterClock::time_point::max() - now);
    return longer < longest ? now + longer : nqClusterClock::time_point::max();
}

/// Before the attempt after `made` of them.
std::chrono::milliseconds pauseOf(const nqRetryPolicy& policy, std::size_t made)
{
    const double grown = static_cast<double>(policy.pause.count()) *
                         std::pow(policy.growth, static_cast<double>(made - 1));
    if (policy.pause.count() == 0 || grown < static_cast<double>(policy.longestPause.count()))
        return std::chrono::milliseconds(
            policy.pause.count() == 0 ? 0 : static_cast<std::int64_t>(grown));
    return policy.longestPause;
}

nqRedisLink::Settings settingsOf(const std::string& url, const nqClusterOptions& cluster)
{
    return {
        nqRedisAddress::parse(url, cluster.passwordFile),
        cluster.connectTimeout,
        cluster.stallTimeout};
}

/// Sets a flag for as long as it lives.
class Flagged {
public:
    explicit Flagged(bool& flag)
        : mFlag(flag)
    {
        mFlag = true;
    }
    ~Flagged()
    {
        mFlag = false;
    }
    Flagged(const Flagged&) = delete;
    Flagged& operator=(const Flagged&) = delete;

private:
    bool& mFlag;
};

} // namespace

nqClusterPoolPrivate::Details& nqClusterPoolPrivate::Job::ownDetails()
{
    if (details == nullptr)
        details = std::make_unique<Details>();
    return *details;
}

nqClusterPoolPrivate::nqClusterPoolPrivate(
    const std::string& url,
    const std::string& queue,
    const nqPoolOptions& options,
    const nqClusterOptions& cluster)
    : mOptions(options),
      mCluster(cluster),
      mKeys(requireName(queue, "queue")),
      mClient(cluster.client.empty() ? uniqueName() : requireName(cluster.client, "client")),
      mClientKey(mKeys.client(mClient)),
      mOutcomesKey(mKeys.outcomes(mClient)),
      mCommands(settingsOf(url, cluster), mWait, *this),
      mReader(settingsOf(url, cluster), mWait, *this),
      mDelivery(options.order)
{
    if (mCluster.outcomesKept < shortestKept)
        throw nqPoolError("nqClusterOptions::outcomesKept is shorter than a second");
    mCluster.outcomesKept = std::min(mCluster.outcomesKept, longestKept);
    connect();
}

nqClusterPoolPrivate::~nqClusterPoolPrivate()
{
    if (mIsInCallback) {
        std::cerr << "nqClusterPool: destroyed by one of its own callbacks" << std::endl;
        std::abort(); // the operation would go on in freed memory
    }
    if (::getpid() != mOwner)
        return; // the connections are those of the process that made it
    // What the host has been told must not be told again to the next program with the client's
    // name.
    const TimePoint end = nqClusterClock::now() + longestGoodbye;
    sendTaken();
    while (!(mToDelete.empty() && mDeleting.empty()) && !mIsTakenOver &&
           nqClusterClock::now() < end) {
        mCommands.step();
        sendTaken();
        mCommands.flush();
        TimePoint due = std::min(end, mCommands.nextDue().value_or(end));
        if (mIsOpen && !mToDelete.empty())
            due = std::min(due, mNextDeletion);
        mWait.sleep(untilAtLeast(due, nqClusterClock::now()));
    }
}

void nqClusterPoolPrivate::connect()
{
    const TimePoint end = nqClusterClock::now() + mCluster.connectTimeout;
    while (!mIsOpen) {
        mCommands.step();
        const TimePoint now = nqClusterClock::now();
        const bool isLate = now >= end;
        if (!mCommands.problem().empty() && (isLate || !mCommands.isProblemPassing()))
            throw nqPoolError(mCommands.problem());
        if (isLate)
            throw nqPoolError("Redis has not answered in time");
        const TimePoint due = std::min(end, mCommands.nextDue().value_or(end));
        mWait.sleep(untilAtLeast(due, now));
        mCommands.flush();
    }
}

nqJobId nqClusterPoolPrivate::submit(
    nqJobBytes& bytes, const nqJobOptions* options, nqPool::Callback&& callback)
{
    const std::size_t size = bytes.size();
    if (size > nqLargestPayload)
        throw nqPoolError(
            "A job of " + std::to_string(size) + " bytes is larger than the " +
            std::to_string(nqLargestPayload >> 20) +
            " MB that a queue carries; put its data where all agents can read it, and submit where "
            "that is");
    while (!mIsStopped && isFull(size)) {
        if (mIsInCallback || mOptions.whenFull == nqPoolOptions::WhenFull::Refuse)
            return 0;
        pump(noLimit);
    }
    if (mIsStopped)
        return 0;
    Job job;
    if (options != nullptr)
        job.ownDetails().options = *options;
    job.callback = std::move(callback);
    job.submitted = nqClusterClock::now();
    job.bytes = std::make_shared<std::vector<char>>(bytes.take());
    const nqJobId id = mLastId + 1;
    if (options != nullptr && options->deadline)
        mDeadlines.emplace(*options->deadline, id);
    mOutbox.push_back(id);
    mJobs.emplace(id, std::move(job));
    mLastId = id;
    mPendingBytes += size;
    ++mCounts.submitted;
    mCounts.jobBytes += size;
    updateWakeUp();
    return id;
}

bool nqClusterPoolPrivate::isFull(std::size_t more) const
{
    if (mOptions.maxPendingJobs != 0 &&
        mJobs.size() + mDelivery.waitingCount() >= mOptions.maxPendingJobs)
        return true;
    return mCluster.maxPendingBytes != 0 && mPendingBytes != 0 &&
           mPendingBytes + more > mCluster.maxPendingBytes;
}

bool nqClusterPoolPrivate::cancel(nqJobId id, bool onlyIfWaiting)
{
    const auto found = mJobs.find(id);
    if (found == mJobs.end())
        return false;
    Job& job = found->second;
    if (job.isCancelled && (onlyIfWaiting || !job.onlyIfWaiting))
        return true;
    job.isCancelled = true;
    job.onlyIfWaiting = onlyIfWaiting;
    switch (job.phase) {
    case Job::Phase::Waiting:
    case Job::Phase::Pausing:
        finishHere(found, Reason::Cancelled);
        break;
    case Job::Phase::Accepted:
        mToWithdraw.push_back(id);
        mCancelled.insert(id);
        break;
    case Job::Phase::Sent: // to be withdrawn once it is known to be there
        mCancelled.insert(id);
        break;
    }
    updateWakeUp();
    return true;
}

std::size_t nqClusterPoolPrivate::pump(Milliseconds timeout)
{
    requireUsable("pump()");
    try {
        step();
        flush();
        const TimePoint now = nqClusterClock::now();
        if (const std::optional<TimePoint> due = nextDue(now)) {
            const Milliseconds left = untilAtLeast(*due, now);
            timeout = timeout.count() < 0 ? left : std::min(left, timeout);
        }
        mWait.sleep(timeout);
        step();
        const std::size_t delivered = deliver();
        sendJobs();
        sendTaken();
        flush();
        updateWakeUp();
        return delivered;
    } catch (...) { // of a callback, or for lack of memory: the rest is still due
        updateWakeUp();
        throw;
    }
}

void nqClusterPoolPrivate::flush()
{
    mCommands.flush();
    mReader.flush();
}

std::size_t nqClusterPoolPrivate::deliver()
{
    const Flagged inside(mIsInCallback);
    return mDelivery.deliver();
}

void nqClusterPoolPrivate::step()
{
    mCommands.step();
    mReader.step();
    const TimePoint now = nqClusterClock::now();
    dropExpired(now);
    endPauses(now);
    sendJobs();
    sendWithdrawals();
    sendTaken();
    watch(now);
    if (mReader.isReady() && mWasOpen && !mIsReading)
        readOutcomes();
    if (mIsTakenOver)
        throw nqPoolError(
            "Another program has taken the client name " + mClient +
            " in this queue; give each one "
            "its own");
}

/// Jobs that Redis has are taken out of it, and nobody waits for what comes of that.
void nqClusterPoolPrivate::dropExpired(TimePoint now)
{
    while (!mDeadlines.empty() && mDeadlines.begin()->first <= now) {
        const nqJobId id = mDeadlines.begin()->second;
        mDeadlines.erase(mDeadlines.begin());
        const auto found = mJobs.find(id);
        if (found == mJobs.end())
            continue;
        const Job& job = found->second;
        if (mIsOpen && job.phase == Job::Phase::Accepted)
            withdraw(id, job.entry, job.attempt, false, "-");
        finishHere(found, Reason::Deadline);
    }
}

void nqClusterPoolPrivate::endPauses(TimePoint now)
{
    while (!mPauses.empty() && mPauses.begin()->first <= now) {
        const nqJobId id = mPauses.begin()->second;
        mPauses.erase(mPauses.begin());
        const auto found = mJobs.find(id);
        if (found == mJobs.end())
            continue;
        found->second.phase = Job::Phase::Waiting;
        mOutbox.push_back(id);
    }
}

bool nqClusterPoolPrivate::canSend() const
{
    return mIsOpen && !mOutbox.empty() && mReturned.empty() && mInFlight.size() < batchesInFlight &&
           mInFlightBytes < bytesInFlight;
}

void nqClusterPoolPrivate::sendJobs()
{
    while (canSend() && nqClusterClock::now() >= mNextTry)
        sendBatch();
}

void nqClusterPoolPrivate::sendBatch()
{
    Batch batch;
    while (!mOutbox.empty() && batch.ids.size() < jobsOfOneBatch && batch.bytes < bytesOfOneBatch) {
        const nqJobId id = mOutbox.front();
        mOutbox.pop_front();
        const auto found = mJobs.find(id);
        if (found == mJobs.end() || found->second.phase != Job::Phase::Waiting)
            continue;
        batch.ids.push_back(id);
        batch.bytes += found->second.bytes->size();
    }
    if (batch.ids.empty())
        return;
    nqRedisCommand accept =
        nqRedisLink::scriptInFull(nqScript::Accept, {mKeys.jobs, mClientKey, mKeys.runs});
    accept.add(mSession).add(mNumber).add(mNumber + batch.ids.size());
    accept.add(std::uint64_t{batch.ids.size()});
    std::vector<nqRedisCommand> commands;
    commands.reserve(batch.ids.size() + 2);
    commands.push_back({"HSET", mClientKey, "batch", std::to_string(mNumber + batch.ids.size())});
    for (const nqJobId id : batch.ids) {
        Job& job = mJobs.at(id);
        job.phase = Job::Phase::Sent;
        job.number = ++mNumber;
        const bool hasOwn = job.details != nullptr && job.details->options.timeout;
        const Milliseconds limit = hasOwn ? *job.details->options.timeout : mOptions.jobTimeout;
        nqRedisCommand command{
            "XADD", mKeys.jobs, "NOMKSTREAM", "*", "v", "1", "client", mClient, "id"};
        command.add(id).add("attempt").add(std::uint64_t{job.attempt});
        command.add("timeout").add(static_cast<std::uint64_t>(limit.count()));
        commands.push_back(std::move(command.add("job").add(job.bytes)));
    }
    commands.push_back(std::move(accept));
    mInFlightBytes += batch.bytes;
    mInFlight.push_back(std::move(batch));
    mCommands.sendTogether(std::move(commands), [this](const nqRedisReply& reply) {
        const Batch answered = std::move(mInFlight.front());
        mInFlight.pop_front();
        mInFlightBytes -= answered.bytes;
        onAccepted(answered, reply);
    });
}

void nqClusterPoolPrivate::onAccepted(const Batch& batch, const nqRedisReply& reply)
{
    const nqRedisReply verdict = reply.isError() ? reply : reply[batch.ids.size() + 1];
    if (verdict.isError()) {
        mReturned.insert(mReturned.end(), batch.ids.begin(), batch.ids.end());
        onRefusal(verdict);
        if (mIsOpen && mInFlight.empty())
            settle(mAccepted);
        return;
    }
    mRefusal.clear();
    for (std::size_t i = 0; i < batch.ids.size(); ++i)
        accept(batch.ids[i], ++mAccepted, reply[i + 1].text());
}

/// An outcome may be faster than this: then the job has ended, or is at its next attempt.
void nqClusterPoolPrivate::accept(nqJobId id, std::uint64_t number, std::string_view entry)
{
    const auto found = mJobs.find(id);
    // Its deadline has passed meanwhile, or its outcome was faster: then, and where many jobs were
    // sent again, it is not there, and to look for each would keep Redis from all else.
    if (found == mJobs.end()) {
        withdraw(id, std::string(entry), 0, false, "");
        return;
    }
    Job& job = found->second;
    if (job.phase != Job::Phase::Sent || job.number != number)
        return;
    job.phase = Job::Phase::Accepted;
    job.entry = entry;
    if (job.isCancelled)
        mToWithdraw.push_back(id);
    if (job.details != nullptr && !job.details->earlierOutcome.empty())
        mToDelete.push_back(std::exchange(job.details->earlierOutcome, {}));
}

/// Any refusal but that of the session passes: memory comes free, a disk gets room again.
void nqClusterPoolPrivate::onRefusal(const nqRedisReply& reply)
{
    if (reply.isError("NQTAKEN")) {
        mIsTakenOver = true;
    } else if (reply.isError("NQGONE") || reply.isError("NOSCRIPT")) {
        mReader.restart();
        mCommands.restart();
    } else if (!reply.isError("NQGAP")) {
        mRefusal = "Redis refuses jobs at the moment: " + std::string(reply.text());
        mNextTry = nqClusterClock::now() + pauseAfterRefusal;
    }
}

void nqClusterPoolPrivate::sendWithdrawals()
{
    if (!mIsOpen)
        return;
    for (const nqJobId id : std::exchange(mToWithdraw, {})) {
        const auto found = mJobs.find(id);
        if (found == mJobs.end() || found->second.phase != Job::Phase::Accepted)
            continue;
        const Job& job = found->second;
        withdraw(id, job.entry, job.attempt, !mIsStopped, "-", job.onlyIfWaiting);
    }
}

/// An entry that is not there has ended, or waits again as another one: that one is looked for,
/// unless `from` is empty.
void nqClusterPoolPrivate::withdraw(
    nqJobId id,
    const std::string& entry,
    unsigned attempt,
    bool isOutcomeWanted,
    const std::string& from,
    bool onlyIfWaiting)
{
    nqRedisCommand command = mCommands.script(nqScript::Withdraw, {mKeys.jobs, mClientKey});
    command.add(mKeys.prefix).add(mClient).add(id).add(std::uint64_t{attempt}).add(entry).add(from);
    command.add(isOutcomeWanted ? "1" : "0");
    command.add(static_cast<std::uint64_t>(mCluster.outcomesKept.count()));
    command.add(onlyIfWaiting ? "1" : "0");
    mCommands.send(std::move(command), [=](const nqRedisReply& reply) {
        const std::string_view goOn = reply[1].text();
        if (reply.isError()) { // the next connection asks again for all that is cancelled
            mCommands.drop("Redis answers: " + std::string(reply.text()));
        } else if (reply[0].number() == 0 && !goOn.empty()) {
            withdraw(id, {}, attempt, isOutcomeWanted, std::string(goOn), onlyIfWaiting);
        } else if (reply[0].number() == 2) {
            const auto found = mJobs.find(id);
            if (found == mJobs.end() || !found->second.onlyIfWaiting)
                return; // by now it is to be cancelled in any case
            found->second.isCancelled = found->second.onlyIfWaiting = false;
            mCancelled.erase(id);
        } else if (reply[0].number() == 1 && mIsStopped) {
            if (const auto found = mJobs.find(id); found != mJobs.end())
                finishHere(found, Reason::Stopped);
        }
    });
}

void nqClusterPoolPrivate::sendTaken()
{
    for (std::string& entry : mDelivery.takeEntries())
        mToDelete.push_back(std::move(entry));
    while (mIsOpen && !mToDelete.empty() && nqClusterClock::now() >= mNextDeletion) {
        const std::size_t count = std::min(mToDelete.size(), deletedAtOnce);
        const auto first = mToDelete.end() - static_cast<std::ptrdiff_t>(count);
        std::vector<std::string> entries(
            std::make_move_iterator(first), std::make_move_iterator(mToDelete.end()));
        mToDelete.erase(first, mToDelete.end());
        nqRedisCommand command = mCommands.script(nqScript::Taken, {mClientKey, mOutcomesKey});
        command.add(mSession);
        for (const std::string& entry : entries)
            command.add(entry);
        mDeleting.push_back(std::move(entries));
        mCommands.send(std::move(command), [this](const nqRedisReply& reply) {
            const std::vector<std::string> deleted = std::move(mDeleting.front());
            mDeleting.pop_front();
            if (reply.isError()) {
                mToDelete.insert(mToDelete.end(), deleted.begin(), deleted.end());
                mNextDeletion = nqClusterClock::now() + pauseAfterRefusal;
                return;
            }
            for (const std::string& entry : deleted)
                mHeld.erase(entry);
        });
    }
}

// Only who waits for something needs to know whether agents live.
void nqClusterPoolPrivate::watch(TimePoint now)
{
    if (!mIsOpen || now < mNextWatch)
        return;
    mNextWatch =
        now + std::min(
                  isBusy() ? mSigns.interval() : idleWatch,
                  mCluster.outcomesKept / 4); // each time renews what is known of the client
    nqRedisCommand command = mCommands.script(
        nqScript::Watch, {mClientKey, mOutcomesKey, mKeys.agents, mKeys.jobs, mKeys.runs});
    command.add(mSession).add(static_cast<std::uint64_t>(mCluster.outcomesKept.count()));
    mCommands.send(std::move(command), [this, now](const nqRedisReply& reply) {
        if (reply.isError())
            onRefusal(reply);
        else
            onWatched(reply, now);
    });
}

void nqClusterPoolPrivate::onWatched(const nqRedisReply& reply, TimePoint asked)
{
    const TimePoint now = nqClusterClock::now();
    for (const nqSignsOfLife::Lost& lost : mSigns.look(reply, asked, now)) {
        nqRedisCommand command = mCommands.script(nqScript::Lose, {mKeys.jobs, mKeys.agents});
        command.add(mKeys.prefix).add(lost.agent).add(lost.value).add(lost.message);
        mCommands.send(std::move(command), {});
    }
    mCommands.send(mCommands.script(nqScript::Sweep, {mKeys.jobs, mKeys.agents}), {});
    mHasWatched = true;
    if (isBusy())
        mNextWatch = std::min(mNextWatch, asked + mSigns.interval());
}

void nqClusterPoolPrivate::onReady(nqRedisLink& link)
{
    if (&link == &mCommands)
        open();
    else if (mWasOpen)
        readOutcomes();
}

void nqClusterPoolPrivate::onDown(nqRedisLink& link)
{
    if (&link == &mReader) {
        mIsReading = false;
        mLastOutcome = "0";
        mWaitingAfter.clear();
        return;
    }
    mIsOpen = false;
    for (const std::vector<std::string>& entries : std::exchange(mDeleting, {}))
        mToDelete.insert(mToDelete.end(), entries.begin(), entries.end());
    for (const Batch& batch : mInFlight)
        mReturned.insert(mReturned.end(), batch.ids.begin(), batch.ids.end());
    mInFlight.clear();
    mInFlightBytes = 0;
}

/// A session for each connection: what an earlier one may still bring is refused.
void nqClusterPoolPrivate::open()
{
    mSession = uniqueToken();
    nqRedisCommand command =
        mCommands.script(nqScript::Open, {mKeys.jobs, mClientKey, mOutcomesKey, mKeys.runs});
    command.add(mSession).add(static_cast<std::uint64_t>(mCluster.outcomesKept.count()));
    command.add(mWasOpen ? (mBaseId >> idBitsOfOneRun) + 1 : 0);
    mCommands.send(std::move(command), [this](const nqRedisReply& reply) {
        if (reply.isError("NQTAKEN"))
            mIsTakenOver = true;
        else if (reply.isError())
            mCommands.drop("Redis answers: " + std::string(reply.text()));
        else
            onOpened(reply);
    });
}

void nqClusterPoolPrivate::onOpened(const nqRedisReply& reply)
{
    mIsOpen = true;
    mSigns.forget();
    mHasWatched = false;
    const std::uint64_t last = reply[0].number();
    if (!std::exchange(mWasOpen, true)) {
        mBaseId = mLastId = (reply[1].number() - 1) << idBitsOfOneRun;
        mLeft = reply[2].number() + reply[3].number();
        mNumber = mAccepted = last;
        mDelivery.startAfter(mBaseId);
    } else {
        mLeft = std::min<std::size_t>(mLeft, reply[2].number() + reply[3].number());
        settle(last);
        mToWithdraw.assign(mCancelled.begin(), mCancelled.end());
    }
    mNextWatch = nqClusterClock::now();
}

/// Redis has the jobs up to this number. The others go again, in their order.
void nqClusterPoolPrivate::settle(std::uint64_t last)
{
    std::vector<std::pair<std::uint64_t, nqJobId>> again;
    if (last < mAccepted) {
        for (const auto& [id, job] : mJobs) {
            if (job.phase == Job::Phase::Accepted && job.number > last)
                again.emplace_back(job.number, id);
        }
        mCounts.sentAgain += again.size();
    }
    for (const nqJobId id : std::exchange(mReturned, {})) {
        const auto found = mJobs.find(id);
        if (found == mJobs.end() || found->second.phase != Job::Phase::Sent)
            continue;
        const std::uint64_t number = found->second.number;
        if (number <= last)
            accept(id, number, {});
        else
            again.emplace_back(number, id);
    }
    mAccepted = mNumber = last;
    std::sort(again.begin(), again.end());
    // Two attempts of a job may have been on their way.
    again.erase(std::unique(again.begin(), again.end()), again.end());
    std::vector<nqJobId> ids;
    for (const auto& [number, id] : again) {
        const auto found = mJobs.find(id);
        found->second.phase = Job::Phase::Waiting;
        found->second.entry.clear();
        if (found->second.isCancelled)
            finishHere(found, mIsStopped ? Reason::Stopped : Reason::Cancelled);
        else
            ids.push_back(id);
    }
    mOutbox.insert(mOutbox.begin(), ids.begin(), ids.end());
}

void nqClusterPoolPrivate::readOutcomes()
{
    if (mDelivery.uncollectedBytes() > uncollectedBytes && mJobs.empty() && !mIsDraining)
        return; // the host fetches first what the program before has left
    mIsReading = true;
    auto block = static_cast<std::uint64_t>(mCluster.stallTimeout.count() / 2);
    if (!mWaitingAfter.empty()) {
        block = std::min(block, lookForRoom);
        if (mDelivery.uncollectedBytes() <= uncollectedBytes || mIsDraining)
            mLastOutcome = std::exchange(mWaitingAfter, {});
    }
    nqRedisCommand command{"XREAD", "COUNT"};
    command.add(std::uint64_t{
        std::clamp<std::size_t>(outcomeBytesAtOnce / mLikelySize, 1, mostOutcomesRead)});
    command.add("BLOCK").add(std::max<std::uint64_t>(block, 1));
    command.add("STREAMS").add(mOutcomesKey).add(mLastOutcome);
    mReader.send(std::move(command), [this](const nqRedisReply& reply) {
        mIsReading = false;
        if (reply.isError())
            mReader.drop("Redis answers: " + std::string(reply.text()));
        else
            onOutcomes(reply);
    });
}

// How many come with the next read goes by how large these were: few when they were large a moment
// ago, more with each read that brings small ones.
void nqClusterPoolPrivate::onOutcomes(const nqRedisReply& reply)
{
    const nqRedisReply entries = reply[0][1];
    std::size_t largest = 0;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        nqOutcomeMessage message = nqOutcomeMessage::of(entries[i]);
        largest = std::max(largest, message.outcome.bytes.size());
        const std::string before = std::exchange(mLastOutcome, message.entry);
        if (mustWait(message))
            mWaitingAfter = mWaitingAfter.empty() ? before : mWaitingAfter;
        else
            onOutcome(std::move(message));
    }
    if (entries.size() != 0)
        mLikelySize = std::max<std::size_t>({largest, mLikelySize / 2, 1});
    readOutcomes();
}

/// Outcomes that the program before has left stay in Redis while there are many here that the host
/// has not fetched. In drain(), nobody could.
bool nqClusterPoolPrivate::mustWait(const nqOutcomeMessage& message) const
{
    return message.isReadable && message.outcome.id <= mBaseId && !mIsDraining &&
           mDelivery.uncollectedBytes() > uncollectedBytes && mHeld.count(message.entry) == 0;
}

void nqClusterPoolPrivate::onOutcome(nqOutcomeMessage&& message)
{
    if (!mHeld.insert(message.entry).second)
        return; // it has been read before, by a connection that is gone
    if (message.version > nqMessageVersion && !readNewer(message))
        return;
    if (!message.isReadable && mLeft != 0)
        --mLeft; // it was counted as one that is to come
    const auto found = mJobs.find(message.outcome.id);
    const bool isKnown = found != mJobs.end();
    const bool isSecond = isKnown && (message.attempt != found->second.attempt ||
                                      found->second.phase == Job::Phase::Pausing);
    if (!message.isReadable || isSecond)
        dropOutcome(message.entry);
    else if (!isKnown)
        onLeftOutcome(std::move(message));
    else if (!tryAgain(message.outcome.id, found->second, message))
        finish(found, std::move(message.outcome), std::move(message.entry));
}

/// All versions say whose outcome it is. A job of this program fails, which has its bytes still; an
/// outcome that the program before has left stays for an updated one, and nobody waits for it here.
bool nqClusterPoolPrivate::readNewer(nqOutcomeMessage& message)
{
    mNewerVersion = "The queue has outcomes of a newer version (" +
                    std::to_string(message.version) + ") of this library; update it here";
    nqOutcome& outcome = message.outcome;
    if (outcome.id <= mBaseId) {
        if (mLeft != 0)
            --mLeft;
        return false;
    }
    const nqJobId id = outcome.id;
    outcome = {};
    outcome.id = id;
    outcome.state = State::Failed;
    outcome.reason = Reason::ResultLost;
    outcome.message = "its outcome is of a newer version (" + std::to_string(message.version) +
                      ") of this library, which this program cannot read: update it";
    return true;
}

/// Of a job of the client before, or the second one of a job.
void nqClusterPoolPrivate::onLeftOutcome(nqOutcomeMessage&& message)
{
    const nqJobId id = message.outcome.id;
    if ((id - 1) >> idBitsOfOneRun > mBaseId >> idBitsOfOneRun) {
        mIsTakenOver = true; // it is not ours to delete
        return;
    }
    if (id <= mBaseId && mLeft != 0)
        --mLeft; // one that was tried again may have left two
    if (id > mBaseId || !mLeftSeen.insert(id).second) {
        dropOutcome(message.entry);
        return;
    }
    countOutcome(message.outcome);
    mDelivery.add({std::move(message.outcome), {}, std::move(message.entry)});
}

void nqClusterPoolPrivate::dropOutcome(const std::string& entry)
{
    ++mCounts.outcomesDropped;
    mToDelete.push_back(entry);
}

/// Sends a job again if its policy says so.
bool nqClusterPoolPrivate::tryAgain(nqJobId id, Job& job, nqOutcomeMessage& message)
{
    nqOutcome& outcome = message.outcome;
    const nqRetryPolicy& policy = job.details != nullptr && job.details->options.retry
                                      ? *job.details->options.retry
                                      : mOptions.retry;
    if (mIsStopped || job.isCancelled || outcome.state != State::Failed ||
        job.attempt >= policy.attempts || outcome.reason == Reason::Deadline ||
        outcome.reason == Reason::ResultLost || outcome.reason == Reason::NoWorker ||
        std::find(policy.reasons.begin(), policy.reasons.end(), outcome.reason) ==
            policy.reasons.end())
        return false;
    const TimePoint now = nqClusterClock::now();
    Details& details = job.ownDetails();
    if (job.attempt == 1)
        details.queued = inMicroseconds(now - job.submitted) - outcome.ran;
    details.earlierAttempts.push_back(std::move(static_cast<nqAttempt&>(outcome)));
    details.earlierOutcome = std::move(message.entry);
    const Milliseconds pause = pauseOf(policy, job.attempt);
    ++job.attempt;
    ++mCounts.retried;
    job.entry.clear();
    job.phase = Job::Phase::Pausing;
    mPauses.emplace(later(now, pause), id);
    return true;
}

void nqClusterPoolPrivate::finishHere(Ledger::iterator found, Reason reason)
{
    nqOutcome outcome;
    outcome.id = found->first;
    outcome.reason = reason;
    outcome.state = stateFor(reason);
    finish(found, std::move(outcome), {});
}

void nqClusterPoolPrivate::finish(Ledger::iterator found, nqOutcome&& outcome, std::string&& entry)
{
    Job job = std::move(found->second);
    mJobs.erase(found);
    mCancelled.erase(outcome.id);
    mPendingBytes -= job.bytes->size();
    if (outcome.state != State::Done) {
        if (job.bytes.use_count() == 1)
            outcome.bytes = std::move(*job.bytes);
        else
            outcome.bytes = *job.bytes; // it is on its way to Redis still
    }
    outcome.queued = inMicroseconds(nqClusterClock::now() - job.submitted) - outcome.ran;
    if (job.details != nullptr) {
        forgetDeadline(outcome.id, job.details->options);
        if (!job.details->earlierAttempts.empty())
            outcome.queued = job.details->queued;
        outcome.earlierAttempts = std::move(job.details->earlierAttempts);
        if (!job.details->earlierOutcome.empty())
            mToDelete.push_back(std::move(job.details->earlierOutcome));
    }
    countOutcome(outcome);
    mDelivery.add({std::move(outcome), std::move(job.callback), std::move(entry)});
}

/// A host may set deadlines of hours for jobs of milliseconds.
void nqClusterPoolPrivate::forgetDeadline(nqJobId id, const nqJobOptions& options)
{
    if (!options.deadline)
        return;
    const auto range = mDeadlines.equal_range(*options.deadline);
    const auto found = std::find_if(
        range.first, range.second, [id](const auto& each) { return each.second == id; });
    if (found != range.second)
        mDeadlines.erase(found);
}

void nqClusterPoolPrivate::countOutcome(const nqOutcome& outcome)
{
    ++mCounts.byReason[static_cast<std::size_t>(outcome.reason)];
    mIsAllDone = mIsAllDone && outcome.state == State::Done;
    switch (outcome.state) {
    case State::Done:
        ++mCounts.done;
        mCounts.resultBytes += outcome.bytes.size();
        break;
    case State::Failed:
        ++mCounts.failed;
        break;
    case State::Cancelled:
        ++mCounts.cancelled;
        break;
    }
}

bool nqClusterPoolPrivate::isBusy() const
{
    return !mJobs.empty() || mLeft != 0;
}

/// When a pump has something to do by itself; `now` or earlier: at once.
std::optional<nqClusterPoolPrivate::TimePoint> nqClusterPoolPrivate::nextDue(TimePoint now) const
{
    if (mDelivery.isDue() || (canSend() && now >= mNextTry) || (mIsOpen && !mToWithdraw.empty()))
        return now;
    std::optional<TimePoint> due = mCommands.nextDue();
    const auto consider = [&due](const std::optional<TimePoint>& other) {
        if (other && (!due || *other < *due))
            due = other;
    };
    consider(mReader.nextDue());
    if (canSend())
        consider(mNextTry);
    if (!mPauses.empty())
        consider(mPauses.begin()->first);
    if (!mDeadlines.empty())
        consider(mDeadlines.begin()->first);
    if (mIsOpen)
        consider(mNextWatch);
    if (mIsOpen && !mToDelete.empty())
        consider(mNextDeletion);
    return due;
}

void nqClusterPoolPrivate::updateWakeUp()
{
    // Who has waited for long looks at once whether its agents still live.
    if (mJobs.size() == 1)
        mNextWatch = std::min(mNextWatch, nqClusterClock::now() + mSigns.interval());
    if (mIsWaitedFor && !mIsInCallback)
        mWait.wakeAt(nextDue(nqClusterClock::now()));
}

int nqClusterPoolPrivate::waitDescriptor()
{
    mIsWaitedFor = true;
    updateWakeUp();
    return mWait.descriptor();
}

std::optional<nqOutcome> nqClusterPoolPrivate::next(Milliseconds timeout)
{
    requireUsable("next()");
    const TimePoint end = later(nqClusterClock::now(), timeout);
    for (;;) {
        std::optional<nqOutcome> outcome = mDelivery.take();
        if (outcome || (!isBusy() && !mDelivery.isDue()))
            return outcome;
        const Milliseconds left =
            timeout.count() < 0 ? noLimit : untilAtLeast(end, nqClusterClock::now());
        pump(left);
        if (left.count() == 0)
            return mDelivery.take();
    }
}

bool nqClusterPoolPrivate::drain(const nqPool::Progress& progress)
{
    requireUsable("drain()");
    const auto isWanted = [&] {
        const Flagged inside(mIsInCallback);
        return !progress ||
               progress({mCounts.done, mCounts.failed, mCounts.cancelled, mJobs.size() + mLeft, 0});
    };
    TimePoint nextLook = nqClusterClock::now();
    const Flagged draining(mIsDraining);
    while (isBusy() || mDelivery.isDue()) {
        if (nqClusterClock::now() >= nextLook) {
            nextLook = nqClusterClock::now() + progressInterval;
            if (!isWanted())
                return false;
        }
        pump(progress ? progressInterval : noLimit);
    }
    isWanted();
    return std::exchange(mIsAllDone, true);
}

void nqClusterPoolPrivate::stop()
{
    requireUsable("stop()");
    mIsStopped = true;
    const TimePoint end = nqClusterClock::now() + longestStop;
    const auto finishAll = [this](bool isEvenAccepted) {
        for (auto each = mJobs.begin(); each != mJobs.end();) {
            const auto found = each++;
            Job& job = found->second;
            const bool isThere = job.phase == Job::Phase::Accepted || job.phase == Job::Phase::Sent;
            if (isThere && !isEvenAccepted) {
                job.isCancelled = true;
                job.onlyIfWaiting = false;
                mCancelled.insert(found->first);
                if (job.phase == Job::Phase::Accepted)
                    mToWithdraw.push_back(found->first);
            } else {
                finishHere(found, Reason::Stopped);
            }
        }
    };
    finishAll(false);
    while (!mJobs.empty() && nqClusterClock::now() < end)
        pump(untilAtLeast(end, nqClusterClock::now()));
    finishAll(true);
    while (mDelivery.isDue())
        pump(Milliseconds(0));
}

std::size_t nqClusterPoolPrivate::unfinishedCount() const
{
    return mJobs.size();
}

std::string nqClusterPoolPrivate::problem() const
{
    if (!mCommands.problem().empty())
        return mCommands.problem();
    if (!mReader.problem().empty())
        return mReader.problem();
    if (!mRefusal.empty())
        return mRefusal;
    if (!mNewerVersion.empty())
        return mNewerVersion;
    if (isBusy() && mHasWatched && mSigns.count() == 0)
        return "No agent takes jobs from this queue; start nq-agent on each machine that shall "
               "work";
    return {};
}

nqClusterStatistics nqClusterPoolPrivate::statistics() const
{
    nqClusterStatistics statistics = mCounts;
    statistics.queued = mJobs.size();
    statistics.age = inMicroseconds(nqClusterClock::now() - mMade);
    statistics.pendingBytes = mPendingBytes;
    statistics.connectionsLost = mCommands.lossCount() + mReader.lossCount();
    statistics.takenUp = mLeft;
    return statistics;
}

void nqClusterPoolPrivate::requireUsable(const char* operation) const
{
    if (mIsInCallback)
        throw nqPoolError(
            std::string("nqClusterPool::") + operation + " was called from a callback");
}

} // namespace nq
