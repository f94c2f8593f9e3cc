#include "cluster/agent/nqAgent.h"

#include "cluster/nqClusterNames.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <sys/eventfd.h>
#include <unistd.h>

// Redis gives a job to this agent's name. From then on it is held here until Redis has its outcome
// or has it back, or until others have taken over what this agent held. An audit compares, once in
// a lease and after every new connection, what Redis says that this agent has with what it holds: a
// reply that was lost on its way is found so.

namespace nq {

namespace {

using Reason = nqAttempt::Reason;
using State = nqOutcome::State;

constexpr std::size_t outcomesOfOneBatch = 128; // what a script does at once, others wait for
constexpr std::size_t bytesOfOneBatch = std::size_t{512} << 10;
constexpr std::size_t bytesInFlight = std::size_t{8} << 20;
constexpr std::size_t batchesInFlight = 16;
constexpr std::size_t mostPrefetched = 1000;
constexpr std::size_t bytesPrefetched = std::size_t{16} << 20; // and of one read
constexpr std::size_t auditedAtOnce = 200'000;                 // more than an agent ever holds

constexpr std::chrono::milliseconds pauseAfterRefusal{250};
constexpr std::chrono::milliseconds longestGathering{1};
constexpr std::chrono::milliseconds pauseForOthers{1'000}; // with a job of a newer version
constexpr std::chrono::milliseconds lookInterval{100};
constexpr std::chrono::milliseconds longestLaunchPause{30'000};
constexpr std::chrono::milliseconds longestGoodbye{2'000};
constexpr std::chrono::milliseconds killOfAWorker{1'000}; // that has not connected in time

nqRedisLink::Settings settingsOf(const nqAgentOptions& options)
{
    nqRedisLink::Settings settings;
    settings.address = nqRedisAddress::parse(options.redis, options.passwordFile);
    ::unsetenv("NQ_REDIS_PASSWORD"); // workers get the environment
    // A connection that has stalled must not cost the lease.
    settings.stallTimeout = std::min(settings.stallTimeout, options.lease / 2);
    settings.connectTimeout = std::min(settings.connectTimeout, options.lease / 2);
    return settings;
}

std::string nameOfHost()
{
    std::array<char, 65> name{};
    ::gethostname(name.data(), name.size() - 1);
    return name.data();
}

} // namespace

nqAgent::nqAgent(const nqAgentOptions& options, int signals)
    : mOptions(options),
      mRedis(settingsOf(options)),
      mKeys(requireName(options.queue, "queue")),
      mSignals(signals),
      mPool(options.pool),
      mCommands(mRedis, mWait, *this),
      mReader(mRedis, mWait, *this),
      mMetrics(options.metrics, options.queue, options.name.empty() ? nameOfHost() : options.name)
{
    mPrefetch = options.prefetch.value_or(0);
    mWait.watch(mPool.waitDescriptor(), mPoolWatcher, false);
    mWait.watch(mSignals, mSignalWatcher, false);
    mPool.onLaunch([this] {
        if (mHeartbeat != nullptr)
            mHeartbeat->launch(mOptions.pool.connectionTimeout + killOfAWorker);
    });
}

nqAgent::~nqAgent() = default;

int nqAgent::run()
{
    if (!startWorkers())
        return mStatus;
    mHeartbeat = std::make_unique<nqHeartbeat>(nqHeartbeat::Settings{
        mRedis,
        mOptions.queue,
        mOptions.name.empty() ? uniqueName() : requireName(mOptions.name, "agent"),
        mOptions.lease});
    mWait.watch(mHeartbeat->descriptor(), mNewsWatcher, false);
    say("takes jobs from queue " + mOptions.queue + " for " +
        std::to_string(mOptions.pool.workers) + " workers");
    while (mPhase != Phase::Gone) {
        step();
        const TimePoint now = nqClusterClock::now();
        mWait.sleep(std::chrono::ceil<Milliseconds>(std::max(nextDue(now), now) - now));
    }
    say("leaves");
    return mStatus;
}

/// Nobody knows of this agent meanwhile, so that it may leave at any time.
bool nqAgent::startWorkers()
{
    beginToLaunch();
    while (mPool.isStarting() && mPhase == Phase::Working) {
        mWait.sleep(Milliseconds(-1));
        if (std::exchange(mSignalWatcher.hasNews, false))
            hearRequests();
        else
            runPool();
    }
    if (mPhase != Phase::Working) {
        say("leaves");
        return false;
    }
    if (hasLaunchFailed()) {
        say(mPool.problem());
        mStatus = 1;
        return false;
    }
    return true;
}

void nqAgent::step()
{
    const TimePoint now = nqClusterClock::now();
    if (std::exchange(mSignalWatcher.hasNews, false))
        hearRequests();
    if (std::exchange(mNewsWatcher.hasNews, false))
        hearNews();
    mCommands.step();
    mReader.step();
    runPool();
    launchAgain(now);
    handBackDue(now);
    sendFinished();
    sendHandedBack();
    read();
    goOn();
    mCommands.flush();
    mReader.flush();
    describe(now);
}

void nqAgent::hearRequests()
{
    eventfd_t requests = 0;
    if (::eventfd_read(mSignals, &requests) != 0)
        return;
    if (mPhase == Phase::Working && requests == 1)
        beginToFinish();
    else if (mPhase == Phase::Working || mPhase == Phase::Finishing)
        endAll();
}

void nqAgent::hearNews()
{
    const nqHeartbeat::News news = mHeartbeat->takeNews();
    sayOnChange(mSaidProblem, news.problem);
    if (std::exchange(mIsFull, news.isFull) != news.isFull)
        say(news.isFull ? "waits until results are taken: Redis is full"
                        : "goes on: Redis has room");
    if (news.isLost)
        becomeLost();
    if (mName != news.name) {
        mName = news.name;
        mIsAuditDue = true;
    }
    for (const std::string& entry : news.cancelled) {
        const auto found = mHeld.find(entry);
        if (found == mHeld.end() || found->second.hasEnded)
            continue;
        const nqJobId local = found->second.local;
        mHeld.erase(found);
        mPool.cancel(local);
    }
}

/// Others have these jobs now. What runs is ended, so that it does not run twice for longer than it
/// has to.
void nqAgent::becomeLost()
{
    say("was cut off for longer than its lease, or another agent has come with its name, so that "
        "others have its jobs now");
    ++mCounts.leasesLost;
    mCounts.dropped += mFinished.size();
    mFinished.clear();
    mToHandBack.clear();
    mReader.restart(); // or it would take one more in the old name
    for (auto& [entry, held] : std::exchange(mHeld, {})) {
        if (held.local != 0)
            mPool.cancel(held.local);
    }
}

/// Short jobs that wait for workers end faster than Redis has anything to say: then nothing but the
/// pool is looked at after each.
void nqAgent::runPool()
{
    mPool.pump(Milliseconds(0));
    const TimePoint end = nqClusterClock::now() + longestGathering;
    while (mPool.unfinishedCount() > mOptions.pool.workers && !mIsReading &&
           mCommands.unsentBytes() == 0 && nqClusterClock::now() < end)
        mPool.pump(longestGathering);
}

/// Redis can be asked for a number of jobs only, so that is what the bound in bytes comes to.
std::size_t nqAgent::fitting() const
{
    return bytesPrefetched / mLikelySize;
}

/// Few when they were large a moment ago, more with each read that brings small ones.
void nqAgent::noteSizes(std::size_t largest)
{
    mLikelySize = std::max<std::size_t>({largest, mLikelySize / 2, 1});
}

std::size_t nqAgent::room() const
{
    const std::size_t most = mOptions.pool.workers + std::min(mPrefetch, fitting());
    return most > mHeld.size() ? most - mHeld.size() : 0;
}

void nqAgent::read()
{
    if (mPhase != Phase::Working || mName.empty() || !mReader.isReady() || mIsReading)
        return;
    if (std::exchange(mIsAuditDue, false))
        audit();
    // Not one at a time, where many end in a moment; but no worker waits for a second one's end.
    const std::size_t enough = std::max<std::size_t>(std::min(mPrefetch, fitting()) / 4, 1);
    if (mIsFull || mIsWithoutWorkers || room() < enough)
        return;
    mIsReading = true;
    nqRedisCommand command{"XREADGROUP", "GROUP", "agents", mName, "COUNT"};
    command.add(std::uint64_t{std::min(room(), std::max<std::size_t>(fitting(), 1))}).add("BLOCK");
    command.add(static_cast<std::uint64_t>(mRedis.stallTimeout.count() / 2));
    command.add("STREAMS").add(mKeys.jobs).add(">");
    mReader.send(std::move(command), [this, name = mName](const nqRedisReply& reply) {
        mIsReading = false;
        if (reply.isError("UNBLOCKED"))
            return;
        if (reply.isError("NOGROUP"))
            restoreQueue();
        else if (reply.isError())
            mReader.drop("Redis answers: " + std::string(reply.text()));
        else if (name == mName) // otherwise others have these jobs
            onJobs(reply);
    });
}

/// Hosts send again what has no outcome, once they notice.
void nqAgent::restoreQueue()
{
    say("finds that the queue was deleted, and makes it anew");
    mIsAuditDue = true; // which ends what runs for nobody
    nqRedisCommand command = mReader.script(nqScript::Restore, {mKeys.jobs, mKeys.runs});
    mReader.send(std::move(command.add(uniqueToken())), [this](const nqRedisReply& reply) {
        if (reply.isError())
            mReader.drop("Redis answers: " + std::string(reply.text()));
    });
}

void nqAgent::onJobs(const nqRedisReply& reply)
{
    const nqRedisReply entries = reply[0][1];
    std::size_t largest = 0;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        nqJobMessage job = nqJobMessage::of(entries[i]);
        largest = std::max(largest, job.bytes.size());
        takeJob(std::move(job));
    }
    if (entries.size() != 0)
        noteSizes(largest);
}

void nqAgent::takeJob(nqJobMessage&& job)
{
    Held& held = mHeld[job.entry];
    held = {job.client, job.id, job.attempt, 0, false};
    if (mPhase != Phase::Working) {
        mToHandBack.push_back(job.entry);
        return;
    }
    if (job.version > nqMessageVersion) {
        sayOnChange(
            mSaidVersion,
            "leaves jobs of a newer version (" + std::to_string(job.version) +
                ") to others; update this agent");
        mToHandBackLater.emplace_back(nqClusterClock::now() + pauseForOthers, job.entry);
        return;
    }
    const std::string entry = job.entry;
    if (!job.isReadable) {
        say("found something in the queue that is no job, and takes it out: " + entry);
        mHeld.erase(entry);
        if (!mCommands.isReady())
            return; // it is found by the next audit, and comes again
        mCommands.send({"XACK", mKeys.jobs, "agents", entry}, {});
        mCommands.send({"XDEL", mKeys.jobs, entry}, {});
        return;
    }
    nqJobOptions options;
    if (job.timeout.count() != 0)
        options.timeout = job.timeout;
    try {
        held.local = mPool.submit(job.bytes, options, [this, entry](nqOutcome&& outcome) {
            onOutcome(entry, std::move(outcome));
        });
    } catch (const nqPoolError& error) { // an empty job to plain workers
        nqOutcome outcome;
        outcome.state = State::Failed;
        outcome.reason = Reason::Exception;
        outcome.message = error.what();
        finish(entry, std::move(outcome));
    }
}

void nqAgent::onOutcome(const std::string& entry, nqOutcome&& outcome)
{
    const auto found = mHeld.find(entry);
    if (found == mHeld.end() || found->second.local != outcome.id)
        return; // it was cancelled, or others have it
    if (outcome.reason == Reason::NoWorker) {
        mIsWithoutWorkers = true;
        mNextLaunch = nqClusterClock::now() + mLaunchPause;
        mToHandBack.push_back(entry);
    } else if (outcome.state == State::Cancelled) {
        mToHandBack.push_back(entry);
    } else {
        finish(entry, std::move(outcome));
    }
}

void nqAgent::finish(const std::string& entry, nqOutcome&& outcome)
{
    Held& held = mHeld.at(entry);
    held.hasEnded = true;
    if (outcome.state == State::Done && outcome.bytes.size() > nqLargestPayload) {
        outcome.state = State::Failed;
        outcome.reason = Reason::ResultLost;
        outcome.message = "its " + std::to_string(outcome.bytes.size()) +
                          " bytes are more than the " + std::to_string(nqLargestPayload >> 20) +
                          " MB that a queue carries";
    }
    ++(outcome.state == State::Done ? mCounts.done : mCounts.failed);
    const std::uint64_t sinceLook = mCounts.done + mCounts.failed - mEndedAtLastLook;
    if (!mOptions.prefetch && sinceLook > mPrefetch) // no need to wait for the look with that
        mPrefetch = std::min<std::size_t>(sinceLook, mostPrefetched);
    mLikelySize = std::max(mLikelySize, outcome.bytes.size()); // kept here until Redis has them
    Finished finished{entry, held.client, fieldsOf(outcome, held.id, held.attempt), nullptr};
    if (outcome.state == State::Done)
        finished.result = std::make_shared<std::vector<char>>(std::move(outcome.bytes));
    if (mFinished.empty())
        mFinishedSince = nqClusterClock::now();
    mFinished.push_back(std::move(finished));
}

/// While other jobs run, outcomes gather for a moment: a script for each would cost Redis, and
/// whoever waits for them, more than all else.
bool nqAgent::isSendingDue(TimePoint now) const
{
    return canSendFinished() && now >= mNextTry &&
           (mFinished.size() >= outcomesOfOneBatch || mFinished.size() == mHeld.size() ||
            now >= mFinishedSince + longestGathering);
}

/// Otherwise a reply has to come first.
bool nqAgent::canSendFinished() const
{
    return !mFinished.empty() && mCommands.isReady() && !mName.empty() &&
           mInFlightBytes < bytesInFlight && mInFlight.size() < batchesInFlight;
}

void nqAgent::sendFinished()
{
    while (isSendingDue(nqClusterClock::now())) {
        std::vector<Finished> batch;
        std::size_t bytes = 0;
        while (!mFinished.empty() && batch.size() < outcomesOfOneBatch && bytes < bytesOfOneBatch) {
            bytes += mFinished.front().result != nullptr ? mFinished.front().result->size() : 0;
            batch.push_back(std::move(mFinished.front()));
            mFinished.pop_front();
        }
        std::vector<nqRedisCommand> commands = commandsToFinish(batch);
        const bool isAlone = commands.size() == 1;
        mInFlightBytes += bytes;
        mInFlight.push_back(std::move(batch));
        auto onReply = [this, bytes, isAlone, name = mName](const nqRedisReply& reply) {
            mInFlightBytes -= bytes;
            std::vector<Finished> answered = std::move(mInFlight.front());
            mInFlight.pop_front();
            if (name == mName)
                onFinished(std::move(answered), reply, isAlone);
        };
        if (isAlone)
            mCommands.send(std::move(commands.front()), std::move(onReply));
        else
            mCommands.sendTogether(std::move(commands), std::move(onReply));
    }
}

/// Results are added by commands of their own, which cost Redis a third of what the arguments of a
/// script do. A full server takes nothing but the script alone.
std::vector<nqRedisCommand> nqAgent::commandsToFinish(const std::vector<Finished>& batch) const
{
    std::vector<nqRedisCommand> commands;
    commands.reserve(batch.size() + 2);
    const std::string description = mKeys.agent(mName);
    nqRedisCommand finish =
        mCommands.script(nqScript::Finish, {mKeys.jobs, mKeys.agents, description});
    finish.add(mKeys.prefix).add(mName).add(std::uint64_t{batch.size()});
    for (const Finished& finished : batch)
        finish.add(finished.entry);
    const auto addOutcome = [](nqRedisCommand& command, const Finished& finished) {
        for (const auto& [field, value] : finished.fields)
            command.add(field).add(value);
        if (finished.result != nullptr)
            command.add("bytes").add(finished.result);
    };
    for (const Finished& finished : batch) {
        finish.add(finished.client);
        const bool hasResult = finished.result != nullptr;
        if (hasResult && !mIsFinishingByScript) {
            if (commands.empty())
                commands.push_back({"HSET", description, "batch", batch.front().entry});
            commands.push_back({"XADD", mKeys.outcomes(finished.client), "*"});
            addOutcome(commands.back(), finished);
            finish.add("added").add(std::uint64_t{0});
        } else {
            finish.add(hasResult ? "given" : "failed");
            finish.add(std::uint64_t{2 * (finished.fields.size() + (hasResult ? 1 : 0))});
            addOutcome(finish, finished);
        }
    }
    commands.push_back(std::move(finish));
    return commands;
}

void nqAgent::onFinished(std::vector<Finished>&& batch, const nqRedisReply& reply, bool wasAlone)
{
    const nqRedisReply verdict = reply.isError() || wasAlone ? reply : reply[reply.size() - 1];
    if (verdict.isError()) { // NQLOST is heard of from the heartbeat too; anything else passes
        for (Finished& finished : batch)
            mFinished.push_back(std::move(finished));
        if (reply.isError() && !wasAlone) {
            mIsFinishingByScript = true;
            return;
        }
        mNextTry = nqClusterClock::now() + pauseAfterRefusal;
        if (verdict.isError("NOSCRIPT")) // results that were added have arrived, and will twice
            mCommands.restart();
        else if (!verdict.isError("NQLOST"))
            sayOnChange(mSaidProblem, "Redis refuses outcomes: " + std::string(verdict.text()));
        return;
    }
    if (wasAlone)
        mIsFinishingByScript = false;
    for (std::size_t i = 0; i < batch.size(); ++i) {
        mHeld.erase(batch[i].entry);
        if (verdict.size() != 0 && verdict[i].number() == 0)
            ++mCounts.dropped;
    }
}

/// On the connection that reads, behind every job that was given to this agent.
void nqAgent::audit()
{
    mNextAudit = nqClusterClock::now() + mOptions.lease;
    nqRedisCommand command{"XPENDING", mKeys.jobs, "agents", "-", "+"};
    command.add(std::uint64_t{auditedAtOnce}).add(mName);
    mReader.send(std::move(command), [this, name = mName](const nqRedisReply& reply) {
        if (!reply.isError() && name == mName)
            onAudit(reply);
    });
}

void nqAgent::onAudit(const nqRedisReply& reply)
{
    std::unordered_set<std::string> given;
    for (std::size_t i = 0; i < reply.size(); ++i) {
        std::string entry(reply[i][0].text());
        if (mHeld.find(entry) == mHeld.end())
            mToHandBack.push_back(entry);
        given.insert(std::move(entry));
    }
    for (auto each = mHeld.begin(); each != mHeld.end();) {
        const Held& held = each->second;
        if (held.hasEnded || given.count(each->first) != 0) {
            ++each;
            continue;
        }
        const nqJobId local = held.local;
        each = mHeld.erase(each);
        mPool.cancel(local);
    }
}

void nqAgent::handBackDue(TimePoint now)
{
    while (!mToHandBackLater.empty() && now >= mToHandBackLater.front().first) {
        if (mHeld.count(mToHandBackLater.front().second) != 0) // others may have it by now
            mToHandBack.push_back(std::move(mToHandBackLater.front().second));
        mToHandBackLater.pop_front();
    }
}

void nqAgent::sendHandedBack()
{
    if (mToHandBack.empty() || !mCommands.isReady() || mName.empty())
        return;
    std::vector<std::string> entries = std::exchange(mToHandBack, {});
    nqRedisCommand command = mCommands.script(nqScript::HandBack, {mKeys.jobs, mKeys.agents});
    command.add(mName);
    for (const std::string& entry : entries) {
        command.add(entry);
        mHeld.erase(entry);
    }
    ++mHandingBack;
    mCommands.send(std::move(command), [this](const nqRedisReply& reply) {
        --mHandingBack; // what Redis has not heard of is found by the next audit
        if (reply.isError())
            mIsAuditDue = true;
        else
            mCounts.handedBack += reply.number();
    });
}

/// An agent whose workers cannot be started takes no jobs: it would fail all that there are.
void nqAgent::launchAgain(TimePoint now)
{
    if (!mIsWithoutWorkers || mPhase != Phase::Working || mPool.isStarting())
        return;
    if (std::exchange(mIsLaunching, false)) {
        if (!hasLaunchFailed()) {
            mIsWithoutWorkers = false;
            mLaunchPause = Milliseconds(1'000);
            sayOnChange(mSaidLaunch, {});
            return;
        }
        mLaunchPause = std::min(2 * mLaunchPause, longestLaunchPause);
        mNextLaunch = now + mLaunchPause;
    }
    if (now < mNextLaunch)
        return;
    sayOnChange(mSaidLaunch, "takes no jobs: " + mPool.problem());
    beginToLaunch();
    mIsLaunching = true;
}

void nqAgent::beginToLaunch()
{
    mFailedLaunches = mPool.statistics().launchesFailed;
    mPool.beginStart();
}

bool nqAgent::hasLaunchFailed() const
{
    return mPool.statistics().launchesFailed != mFailedLaunches;
}

void nqAgent::onReady(nqRedisLink& link)
{
    if (&link != &mReader)
        return;
    mIsAuditDue = true;
    mReader.send(
        {"CLIENT", "ID"}, [this](const nqRedisReply& reply) { mReaderId = reply.number(); });
}

void nqAgent::onDown(nqRedisLink& link)
{
    if (&link == &mReader) {
        mIsReading = false;
        mReaderId = 0;
        return;
    }
    while (!mInFlight.empty()) { // once more: a second time does nothing
        for (Finished& finished : mInFlight.back())
            mFinished.push_front(std::move(finished));
        mInFlight.pop_back();
    }
    mInFlightBytes = 0;
    mHandingBack = 0;
    mIsAuditDue = true;
}

/// What waits here goes to others at once; what runs is finished.
void nqAgent::beginToFinish()
{
    mPhase = Phase::Finishing;
    std::unordered_set<nqJobId> running;
    for (const nqPoolWorkerStatus& worker : mPool.workers())
        running.insert(worker.job);
    std::vector<nqJobId> waiting;
    for (const auto& [entry, held] : mHeld) {
        if (held.hasEnded || running.count(held.local) != 0)
            continue;
        waiting.push_back(held.local);
        mToHandBack.push_back(entry);
    }
    say("finishes " + std::to_string(mHeld.size() - waiting.size()) + " jobs and hands back " +
        std::to_string(waiting.size()));
    sendHandedBack();
    for (const nqJobId local : waiting)
        mPool.cancel(local);
    if (mIsReading && mCommands.isReady() && mReaderId != 0)
        mCommands.send(std::move(nqRedisCommand{"CLIENT", "UNBLOCK"}.add(mReaderId)), {});
}

void nqAgent::endAll()
{
    say("ends at once and hands back its jobs");
    mPhase = Phase::Finishing;
    mStatus = 1;
    for (auto each = mHeld.begin(); each != mHeld.end();)
        each = each->second.hasEnded ? std::next(each) : mHeld.erase(each);
    mToHandBack.clear(); // all of them go back when the agent leaves
    mLeaveBy = nqClusterClock::now() + longestGoodbye;
    mPool.stop();
    if (mIsReading && mCommands.isReady() && mReaderId != 0)
        mCommands.send(std::move(nqRedisCommand{"CLIENT", "UNBLOCK"}.add(mReaderId)), {});
}

/// From phase to phase on the way out.
void nqAgent::goOn()
{
    const bool isLate = mLeaveBy != TimePoint() && nqClusterClock::now() >= mLeaveBy;
    if (mPhase == Phase::Finishing) {
        const bool hasReturnedAll = mToHandBack.empty() && mHandingBack == 0;
        if ((mHeld.empty() && !mIsReading && hasReturnedAll) || isLate)
            leave();
    } else if (mPhase == Phase::Leaving && isLate) {
        mPhase = Phase::Gone;
    }
}

void nqAgent::leave()
{
    mPhase = Phase::Leaving;
    mLeaveBy = nqClusterClock::now() + longestGoodbye;
    if (!mCommands.isReady() || mName.empty())
        return;
    nqRedisCommand command = mCommands.script(
        nqScript::Leave, {mKeys.jobs, mKeys.agents, mKeys.agent(mName), mKeys.orders(mName)});
    mCommands.send(std::move(command.add(mName)), [this](const nqRedisReply& reply) {
        mCounts.handedBack += reply.number();
        mPhase = Phase::Gone;
    });
}

void nqAgent::describe(TimePoint now)
{
    if (now < mNextLook) {
        return;
    }
    const std::uint64_t ended = mCounts.done + mCounts.failed;
    const auto elapsed = std::chrono::duration<double>(now - mNextLook + lookInterval).count();
    const auto fresh = static_cast<double>(ended - std::exchange(mEndedAtLastLook, ended));
    if (mNextLook != TimePoint())
        mCounts.perSecond += (fresh / elapsed - mCounts.perSecond) / 10;
    mNextLook = now + lookInterval;
    if (now >= mNextAudit)
        mIsAuditDue = true;
    // What ends in two looks, so that workers with short jobs do not wait for Redis, and long jobs
    // not for workers while another machine has idle ones.
    if (!mOptions.prefetch)
        mPrefetch = std::min(static_cast<std::size_t>(2 * fresh), mostPrefetched);
    const nqPoolStatistics statistics = mPool.statistics();
    mCounts.held = mHeld.size();
    mCounts.running = statistics.running;
    mCounts.workers = mOptions.pool.workers;
    mCounts.connectionsLost = mCommands.lossCount() + mReader.lossCount();
    if (!mMetrics.write(mCounts, now) && !std::exchange(mHasSaidMetrics, true))
        say("cannot write its counts into " + mOptions.metrics);
    mHeartbeat->comeRound(
        {{"host", nameOfHost()},
         {"pid", std::to_string(::getpid())},
         {"workers", std::to_string(mCounts.workers)},
         {"running", std::to_string(mCounts.running)},
         {"held", std::to_string(mCounts.held)},
         {"done", std::to_string(mCounts.done)},
         {"failed", std::to_string(mCounts.failed)},
         {"rate", std::to_string(std::lround(mCounts.perSecond))},
         {"problem", refusalToTake()}});
}

std::string nqAgent::refusalToTake() const
{
    if (mPhase != Phase::Working)
        return "leaves";
    if (mIsWithoutWorkers)
        return mSaidLaunch;
    if (mIsFull)
        return "Redis is full";
    return {};
}

nqAgent::TimePoint nqAgent::nextDue(TimePoint now) const
{
    TimePoint due = std::max(mNextLook, now);
    if (canSendFinished())
        due = std::min(due, std::max(mNextTry, mFinishedSince + longestGathering));
    for (const nqRedisLink* link : {&mCommands, &mReader})
        due = std::min(due, link->nextDue().value_or(due));
    return due;
}

void nqAgent::say(const std::string& text)
{
    std::cerr << "nq-agent: " + text + '\n';
}

void nqAgent::sayOnChange(std::string& said, const std::string& text)
{
    if (said == text)
        return;
    say(text.empty() ? "goes on" : text);
    said = text;
}

} // namespace nq
