// Random events on the scripted platform, and after each of them what a pool promises.
#include "pool/include/nqPool.h"

#include "pool/nqEnvelope.h"
#include "pool/nqWorkerStart.h"
#include "tests/common/frame.h"
#include "tests/common/random.h"
#include "tests/model/rounds.h"
#include "tests/pool/scriptedPoolWait.h"
#include "tests/scripted/scriptedMachine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;
using common::Random;
using nq::nqJobId;
using nq::nqOutcome;
using nq::nqPoolOptions;
using std::chrono::milliseconds;
using Reason = nq::nqAttempt::Reason;
using State = nqOutcome::State;
using TimePoint = nq::nqPoolClock::TimePoint;

constexpr std::uint64_t usualRounds = 3000;
constexpr int stepsPerRound = 120;
/// A wait that takes more steps than this never ends, or does nothing again and again.
constexpr int mostStepsOfAWait = 20'000;

/// What only this test throws, out of a callback.
struct FromACallback {};

/// A worker process as it sees itself.
struct Worker {
    enum class Holds { Nothing, Job, Initialisation, Farewell };

    std::shared_ptr<scripted::Process> process;
    std::shared_ptr<scripted::Pipe> pipe;
    std::size_t read = 0; ///< bytes
    Holds holds = Holds::Nothing;
    nqJobId job = 0;
    TimePoint since;
    bool isKilled = false;

    bool isRunning() const
    {
        return process->state == nq::nqProcess::Running && pipe->isConnected;
    }
};

struct Job {
    std::string bytes;
    unsigned attemptsAllowed = 1;
    unsigned attempts = 0; ///< that workers have seen
    std::optional<TimePoint> deadline;
    milliseconds timeout{};
    bool hasCallback = false;
    bool isEnded = false; ///< the host has its outcome
    bool isCancelled = false;
    std::optional<Reason> told; // by its worker, the last time
};

class PoolRound {
public:
    PoolRound(Random& random, model::Seen& seen)
        : mRandom(random),
          mSeen(seen)
    {
        mOptions.worker = "/bin/true"; // has to be there; nobody runs it
        mOptions.plainWorker = random.percent(50);
        mOptions.workers = 1 + static_cast<unsigned>(random.below(4));
        mOptions.order = random.percent(50) ? nqPoolOptions::Order::Submission
                                            : nqPoolOptions::Order::Completion;
        mOptions.maxPendingJobs = random.pick<std::size_t>({0, 0, 1, 2, 5});
        mOptions.whenFull =
            random.percent(60) ? nqPoolOptions::WhenFull::Refuse : nqPoolOptions::WhenFull::Pump;
        mOptions.restartPause = random.pick({0ms, 10ms});
        mOptions.launchAttempts = 1 + static_cast<unsigned>(random.below(3));
        mOptions.jobTimeout = random.pick({0ms, 0ms, 30ms, 500ms});
        mOptions.recycleAfterJobs = random.pick({0U, 0U, 1U, 3U});
        mOptions.recycleAfter = random.pick({0ms, 0ms, 200ms});
        mOptions.retry.attempts = random.pick({1U, 1U, 2U, 4U});
        mOptions.retry.pause = random.pick({0ms, 5ms, 300ms});
        mOptions.retry.reasons.push_back(Reason::Exception);
        mOptions.initialisationTimeout = random.pick({100ms, 60'000ms});
        mPool = std::make_unique<nq::nqPool>(mOptions);
        if (mRandom.percent(50)) {
            mPool->waitDescriptor();
            mHasLoop = true;
        }
        mMachine.onSelect = [this] {
            passTime(20ms);
            return 0;
        };
        scripted::poolWait()->onSleep = [this](milliseconds timeout) { passTime(timeout); };
    }

    ~PoolRound()
    {
        mMachine.onSelect = nullptr;
        for (const auto& process : mMachine.processes)
            process->state = nq::nqProcess::Ended;
        for (const auto& pipe : mMachine.pipes) {
            pipe->onEvents = nullptr;
            pipe->lose();
        }
        mPool.reset();
    }

    PoolRound(const PoolRound&) = delete;
    PoolRound& operator=(const PoolRound&) = delete;

    std::string step()
    {
        mDid.str("");
        act([this] { randomOperation(); });
        look();
        check();
        return mDifference.str();
    }

    /// All workers answer from now on, unless the pool is stopped.
    std::string end()
    {
        mDid.str("");
        mMachine.server.connections.clear();
        if (mRandom.percent(25))
            stop();
        else if (mHasLoop && mRandom.percent(60))
            runALoop();
        else
            drain();
        look();
        check();
        checkEnd();
        return mDifference.str();
    }

    std::string whatItDid() const
    {
        return mDid.str();
    }

private:
    // Operations of the host.

    void randomOperation()
    {
        const std::uint64_t what = mRandom.below(100);
        if (what < 25)
            submit();
        else if (what < 32)
            cancel();
        else if (what < 52)
            pump();
        else if (what < 62)
            advance();
        else if (what < 84)
            letOneAnswer();
        else if (what < 91)
            endOne();
        else if (what < 94)
            planTrouble();
        else if (what < 98)
            takeOne();
        else
            start();
    }

    /// Exceptions of callbacks reach whoever pumps, at any time.
    template <typename Action>
    void act(const Action& action)
    {
        try {
            action();
        } catch (const FromACallback&) {
            ++mSeen["a callback threw"];
        } catch (const std::exception& exception) {
            mDifference << "\n  exception: " << exception.what();
        }
        mIsWaiting = false;
    }

    template <typename Action>
    void untilNothingIsThrown(const Action& action)
    {
        for (bool isDone = false; !isDone && mDifference.str().empty();) {
            act([&] {
                action();
                isDone = true;
            });
        }
    }

    void submit()
    {
        Job job;
        job.bytes = "job " + std::to_string(++mSerial);
        nq::nqJobOptions own;
        if (mRandom.percent(20))
            own.timeout = mRandom.pick({0ms, 20ms, 100ms});
        if (mRandom.percent(20))
            own.deadline = now() + mRandom.pick({-5ms, 0ms, 15ms, 200ms});
        if (mRandom.percent(20)) {
            own.retry = mOptions.retry;
            own.retry->attempts = static_cast<unsigned>(mRandom.below(4));
        }
        job.timeout = own.timeout.value_or(mOptions.jobTimeout);
        job.deadline = own.deadline;
        job.attemptsAllowed = std::max(1U, own.retry.value_or(mOptions.retry).attempts);
        job.hasCallback = mRandom.percent(70);
        const bool mayThrow = mRandom.percent(5);
        const bool submitsMore = mRandom.percent(10);
        const auto callback = [this, mayThrow, submitsMore](nqOutcome&& outcome) {
            receive(outcome);
            mIsInCallback = true;
            if (submitsMore && mJobs.size() < 200)
                submit();
            mIsInCallback = false;
            if (mayThrow)
                throw FromACallback();
        };
        mDid << " submit " << job.bytes;
        const nqJobId expected = mJobs.size() + 1;
        const bool isFull = mOptions.maxPendingJobs != 0 && open() >= mOptions.maxPendingJobs;
        const bool waits = !mIsInCallback && mOptions.whenFull == nqPoolOptions::WhenFull::Pump;
        mIsWaiting = mIsWaiting || (isFull && waits);
        const nqJobId id = mPool->submit(
            job.bytes, own, job.hasCallback ? nq::nqPool::Callback(callback) : nullptr);
        if (id == 0) {
            expect(mIsStopping || (isFull && !waits), "it was refused without need");
            ++mSeen["refused"];
            return;
        }
        expect(!mIsStopping, "it was accepted by a stopped pool");
        // A wait for room may have run a callback that has submitted another one.
        expect(id == mJobs.size() + 1, "the ids do not count up");
        if (id != expected)
            ++mSeen["submitted in between"];
        if (isFull)
            ++mSeen["waited for room"];
        mOriginal[id] = job.bytes;
        mJobs[id] = job;
        ++mOpen;
    }

    void cancel()
    {
        if (mJobs.empty())
            return;
        const nqJobId id = 1 + mRandom.below(mJobs.size());
        const bool isCancelled = mPool->cancel(id);
        mDid << " cancel " << id << (isCancelled ? "" : " in vain");
        if (isCancelled)
            mJobs[id].isCancelled = true;
        expect(!isCancelled || !mJobs[id].isEnded, "a job was cancelled that had its outcome");
    }

    void pump()
    {
        mDid << " pump";
        const nqJobId lastBefore = mJobs.size();
        mPool->pump(0ms);
        look();
        checkLimits(lastBefore);
    }

    void advance()
    {
        const milliseconds time = mRandom.pick({1ms, 5ms, 25ms, 200ms, 1200ms});
        mDid << " advance " << time.count();
        mMachine.advance(time);
    }

    void takeOne()
    {
        mDid << " next";
        if (const auto outcome = mPool->next(0ms))
            receive(*outcome);
    }

    void start()
    {
        mDid << " start";
        mIsWaiting = true;
        mPool->start();
    }

    void stop()
    {
        mDid << " stop";
        mIsStopping = true;
        mIsWaiting = true;
        untilNothingIsThrown([this] { mPool->stop(); });
        collect();
    }

    void drain()
    {
        mDid << " drain";
        untilNothingIsThrown([this] {
            mIsWaiting = true;
            mPool->drain();
        });
        collect();
    }

    /// A host that pumps only when the descriptor says so.
    void runALoop()
    {
        mDid << " loop";
        for (int i = 0; i < mostStepsOfAWait && mPool->unfinishedCount() + due() != 0; ++i) {
            look();
            const auto wakeAt = scripted::poolWait()->wakeAt;
            const bool isAwake = wakeAt && *wakeAt <= now();
            if (!isAwake && !letAllAct() && !(hasNews() && (!wakeAt || mRandom.percent(90)))) {
                if (!wakeAt) {
                    expect(false, "nothing would ever wake the host");
                    return;
                }
                mMachine.steadyTime = wakeAt->time_since_epoch();
            }
            act([this] { mPool->pump(0ms); });
            look();
            check();
            if (!mDifference.str().empty())
                return;
        }
        expect(mPool->unfinishedCount() == 0, "the loop goes on for ever");
        collect();
    }

    /// Outcomes that a pump would deliver.
    std::size_t due() const
    {
        const auto& wakeAt = scripted::poolWait()->wakeAt;
        return wakeAt && *wakeAt <= now() ? 1 : 0;
    }

    void collect()
    {
        untilNothingIsThrown([this] {
            while (const auto outcome = mPool->next(0ms))
                receive(*outcome);
        });
    }

    void receive(const nqOutcome& outcome)
    {
        const auto found = mJobs.find(outcome.id);
        if (found == mJobs.end()) {
            expect(false, "an outcome of no job");
            return;
        }
        Job& job = found->second;
        expect(!job.isEnded, "a second outcome of " + job.bytes);
        job.isEnded = true;
        --mOpen;
        ++mSeen["reason " + std::to_string(static_cast<int>(outcome.reason))];
        const std::string text(outcome.text());
        if (outcome.state == State::Done)
            expect(text == "done " + job.bytes, job.bytes + " has the result '" + text + "'");
        else
            expect(text == job.bytes, job.bytes + " came back as '" + text + "'");
        expect(
            outcome.earlierAttempts.size() < job.attemptsAllowed,
            job.bytes + " has too many attempts");
        if (!outcome.earlierAttempts.empty())
            ++mSeen["tried again"];
        expect(
            isPossible(outcome, job),
            job.bytes + " cannot end like this: " +
                std::to_string(static_cast<int>(outcome.reason)) + " " + outcome.failureText());
        nqJobId& last = job.hasCallback ? mLastTold : mLastTaken;
        expect(
            mOptions.order != nqPoolOptions::Order::Submission || outcome.id > last,
            job.bytes + " is out of order");
        last = outcome.id;
    }

    bool isPossible(const nqOutcome& outcome, const Job& job) const
    {
        if (outcome.toldByWorker)
            return outcome.state == State::Failed && outcome.reason == job.told;
        switch (outcome.reason) {
        case Reason::None:
            return outcome.state == State::Done;
        case Reason::Cancelled:
            return outcome.state == State::Cancelled && job.isCancelled;
        case Reason::Stopped:
            return outcome.state == State::Cancelled && mIsStopping;
        case Reason::Timeout:
            return outcome.ran >= job.timeout && job.timeout.count() != 0;
        case Reason::Deadline:
            return job.deadline && now() >= *job.deadline;
        case Reason::Crashed:
        case Reason::Exited:
            return mEnded != 0;
        case Reason::Exception:
            return false;
        case Reason::NoWorker:
            return mEnded + mTroubles != 0 || mOptions.initialisationTimeout < 1s;
        case Reason::MemoryCap:
        case Reason::ResultLost:
        case Reason::Lost:
            return false;
        }
        return false;
    }

    // Events of the machine.

    void planTrouble()
    {
        ++mTroubles;
        switch (mRandom.below(4)) {
        case 0:
            mDid << " a connection times out";
            mMachine.server.connections.push_back(scripted::Connection::timesOut);
            break;
        case 1:
            mDid << " a process does not start";
            mMachine.planProcess().stateAfterStart = nq::nqProcess::Ended;
            break;
        case 2:
            mDid << " a worker reads slowly";
            mMachine.planPipe().passedOnPerCall = 3;
            break;
        default:
            mDid << " a worker ends soon";
            mMachine.planPipe().onEvents = [left = mRandom.below(6)](scripted::Pipe& pipe) mutable {
                if (left == 0)
                    pipe.lose();
                else
                    --left;
            };
            ++mEnded;
        }
    }

    void letOneAnswer()
    {
        const auto holders = workersThat([](const Worker& one) {
            return one.isRunning() && one.holds != Worker::Holds::Nothing;
        });
        if (!holders.empty())
            answer(*holders[mRandom.index(holders.size())]);
    }

    void endOne()
    {
        const auto running = workersThat([](const Worker& one) { return one.isRunning(); });
        if (running.empty())
            return;
        Worker& worker = *running[mRandom.index(running.size())];
        nq::nqProcess::End end;
        if (mRandom.percent(50))
            end.mSignal = 11;
        else
            end.mExitStatus = 3;
        mDid << " end of " << worker.process->name;
        worker.process->end = end;
        worker.process->state = nq::nqProcess::Ended;
        ++mEnded;
        if (mRandom.percent(70))
            worker.pipe->lose();
    }

    void answer(Worker& worker)
    {
        mDid << " answer of " << worker.process->name;
        auto& arrivals = worker.pipe->arrivals;
        switch (worker.holds) {
        case Worker::Holds::Nothing:
            return;
        case Worker::Holds::Initialisation:
            arrivals.push_back(common::frame(text(envelope(worker).initialised())));
            break;
        case Worker::Holds::Farewell:
            arrivals.push_back(common::frame(text(envelope(worker).left())));
            break;
        case Worker::Holds::Job: {
            const std::string& bytes = mOriginal.at(worker.job);
            if (!mOptions.plainWorker && mRandom.percent(10)) {
                nq::nqAttempt told;
                told.reason = mRandom.pick({Reason::Exception, Reason::Timeout, Reason::Crashed});
                mJobs[worker.job].told = told.reason;
                arrivals.push_back(common::frame(text(envelope(worker).exception(told, bytes))));
            } else {
                arrivals.push_back(common::frame("done " + bytes));
            }
            break;
        }
        }
        worker.holds = Worker::Holds::Nothing;
    }

    /// Everybody answers, and the kernel closes what dead workers had open. False when nobody had
    /// anything to do.
    bool letAllAct()
    {
        bool hasActed = false;
        for (const auto& worker : mWorkers) {
            if (worker->process->state == nq::nqProcess::Ended && worker->pipe->isConnected) {
                worker->pipe->lose();
                hasActed = true;
            }
            if (worker->isRunning() && worker->holds != Worker::Holds::Nothing) {
                answer(*worker);
                hasActed = true;
            }
        }
        return hasActed;
    }

    /// Whether the kernel has something for the pool that it has not seen.
    bool hasNews() const
    {
        return std::any_of(mWorkers.begin(), mWorkers.end(), [](const auto& worker) {
            const scripted::Pipe& pipe = *worker->pipe;
            return !pipe.isDestroyed &&
                   (!pipe.arrivals.empty() || !pipe.isConnected || pipe.unsentBytes() != 0);
        });
    }

    /// While the pool waits. Only operations that wait for something let anything happen.
    void passTime(milliseconds timeout)
    {
        if (!mIsWaiting)
            return;
        look();
        if (++mStepsOfWaits > mostStepsOfAWait)
            throw std::runtime_error("it waits for ever" + whatIsThere());
        // A worker whose place has a pause is not heard meanwhile.
        if (letAllAct() || (hasNews() && (timeout.count() < 0 || mRandom.percent(90))))
            return;
        if (timeout.count() < 0)
            throw std::runtime_error("it waits for what never comes" + whatIsThere());
        mMachine.advance(timeout);
    }

    std::string whatIsThere() const
    {
        std::ostringstream text;
        text << ": plain " << mOptions.plainWorker << ", workers " << mOptions.workers
             << ", queued " << mPool->queuedCount() << ", unfinished " << mPool->unfinishedCount()
             << ", " << mPool->problem() << ", last sleep "
             << (scripted::poolWait()->sleeps.empty()
                     ? -2
                     : scripted::poolWait()->sleeps.back().count());
        for (const auto& worker : mWorkers) {
            if (worker->isRunning())
                text << "; " << worker->process->name << (hasNews() ? " news" : "") << " holds "
                     << static_cast<int>(worker->holds) << ", unread "
                     << worker->pipe->arrivals.size() << ", unsent " << worker->pipe->unsentBytes()
                     << (worker->isKilled ? ", killed" : "");
        }
        return text.str();
    }

    // What the workers see.

    /// Takes note of what the pool has done to the machine.
    void look()
    {
        for (const std::string& call : mMachine.takeCalls())
            note(call);
        mMachine.trace.clear();
        for (const auto& worker : mWorkers)
            readMessages(*worker);
    }

    void note(const std::string& call)
    {
        const auto nameEnd = call.find(':');
        const std::string name = call.substr(0, nameEnd);
        const std::string what = call.substr(nameEnd + 2);
        const auto isIt = [&](const auto& record) { return record->name == name; };
        if (name.rfind("process", 0) == 0 && what == "created")
            mYoungest = *std::find_if(mMachine.processes.begin(), mMachine.processes.end(), isIt);
        for (const auto& worker : mWorkers) {
            if (worker->process->name == name && what == "killProcess()")
                worker->isKilled = true;
        }
        const std::string accepted = "takePendingConnection() gives ";
        if (what.rfind(accepted, 0) != 0)
            return;
        const std::string pipe = what.substr(accepted.size());
        const auto isHis = [&](const auto& record) { return record->name == pipe; };
        auto worker = std::make_unique<Worker>();
        worker->process = mYoungest;
        worker->pipe = *std::find_if(mMachine.pipes.begin(), mMachine.pipes.end(), isHis);
        mWorkers.push_back(std::move(worker));
    }

    void readMessages(Worker& worker)
    {
        const auto& bytes = worker.pipe->passedOn;
        std::int32_t size = 0;
        while (bytes.size() - worker.read >= sizeof size) {
            std::memcpy(&size, bytes.data() + worker.read, sizeof size);
            const std::size_t end = worker.read + sizeof size + static_cast<std::size_t>(size);
            if (end > bytes.size())
                return;
            const std::string message(
                bytes.data() + worker.read + sizeof size, static_cast<std::size_t>(size));
            worker.read = end;
            if (worker.isRunning() && !worker.isKilled)
                take(worker, message);
        }
    }

    void take(Worker& worker, const std::string& message)
    {
        expect(
            worker.holds == Worker::Holds::Nothing,
            worker.process->name + " gets '" + message + "' although it holds something");
        worker.since = now();
        std::string_view bytes = message;
        if (!mOptions.plainWorker) {
            switch (envelope(worker).read(message, bytes)) {
            case nq::nqEnvelope::Message::Initialise:
                worker.holds = Worker::Holds::Initialisation;
                return;
            case nq::nqEnvelope::Message::Leave:
                worker.holds = Worker::Holds::Farewell;
                return;
            case nq::nqEnvelope::Message::Unknown:
                expect(false, "a message that makes no sense");
                return;
            case nq::nqEnvelope::Message::Job:
                break;
            }
        }
        takeJob(worker, std::string(bytes));
    }

    void takeJob(Worker& worker, const std::string& bytes)
    {
        const auto isIt = [&](const auto& job) { return job.second.bytes == bytes; };
        const auto found = std::find_if(mJobs.begin(), mJobs.end(), isIt);
        if (found == mJobs.end()) {
            expect(false, "a job that nobody has submitted: '" + bytes + "'");
            return;
        }
        for (const auto& other : mWorkers) {
            const bool isBusyWithIt = other->isRunning() && !other->isKilled &&
                                      other->holds == Worker::Holds::Job &&
                                      other->job == found->first;
            expect(!isBusyWithIt, bytes + " is given to two workers");
        }
        worker.holds = Worker::Holds::Job;
        worker.job = found->first;
        Job& job = found->second;
        expect(!job.isEnded, bytes + " is run although it has its outcome");
        expect(++job.attempts <= job.attemptsAllowed, bytes + " is run too often");
    }

    // Promises.

    void check()
    {
        const auto isAlive = [](const auto& process) {
            return process->state == nq::nqProcess::Running && !process->isDestroyed;
        };
        const auto& processes = mMachine.processes;
        expect(
            std::count_if(processes.begin(), processes.end(), isAlive) <=
                static_cast<std::ptrdiff_t>(mOptions.workers),
            "there are too many workers");
        const nq::nqPoolStatistics counts = mPool->statistics();
        expect(counts.submitted == mJobs.size(), "the count of jobs is wrong");
        expect(
            counts.done + counts.failed + counts.cancelled + counts.queued + counts.running ==
                counts.submitted,
            "the counts of outcomes do not add up");
        expect(
            mPool->unfinishedCount() == counts.queued + counts.running &&
                mPool->queuedCount() == counts.queued,
            "the counts of jobs do not agree");
        std::uint64_t reasons = 0;
        for (const std::uint64_t count : counts.byReason)
            reasons += count;
        expect(
            reasons == counts.done + counts.failed + counts.cancelled,
            "the counts of reasons do not add up");
        expect(
            mOptions.maxPendingJobs == 0 || mPool->unfinishedCount() <= mOptions.maxPendingJobs,
            "the bound is passed");
        expect(mPool->workers().size() <= mOptions.workers, "it lists too many workers");
    }

    /// After a pump, nothing is overdue that was there before.
    void checkLimits(nqJobId last)
    {
        for (const auto& worker : mWorkers) {
            if (!worker->isRunning() || worker->isKilled || worker->holds != Worker::Holds::Job)
                continue;
            const Job& job = mJobs.at(worker->job);
            expect(
                job.timeout.count() == 0 || now() < worker->since + job.timeout,
                job.bytes + " runs beyond its time-out");
            expect(!job.deadline || now() < *job.deadline, job.bytes + " runs beyond its deadline");
        }
        if (mOptions.order == nqPoolOptions::Order::Submission)
            return;
        const auto workers = mPool->workers();
        for (const auto& [id, job] : mJobs) {
            const auto holdsIt = [job = id](const auto& worker) { return worker.job == job; };
            const bool isLate = id <= last && job.hasCallback && !job.isEnded && job.deadline &&
                                now() >= *job.deadline &&
                                std::none_of(workers.begin(), workers.end(), holdsIt);
            expect(!isLate, job.bytes + " waits beyond its deadline");
        }
    }

    void checkEnd()
    {
        for (const auto& [id, job] : mJobs)
            expect(job.isEnded, job.bytes + " has no outcome");
        expect(mPool->unfinishedCount() == 0, "jobs are left");
        if (!mIsStopping)
            return;
        for (const auto& worker : mWorkers)
            expect(!worker->isRunning(), worker->process->name + " outlives the stop");
        expect(due() == 0, "a stopped pool wakes the host");
    }

    void expect(bool isRight, const std::string& otherwise)
    {
        if (!isRight)
            mDifference << "\n  " << otherwise;
    }

    template <typename Condition>
    std::vector<Worker*> workersThat(const Condition& condition)
    {
        std::vector<Worker*> found;
        for (const auto& worker : mWorkers) {
            if (condition(*worker))
                found.push_back(worker.get());
        }
        return found;
    }

    static std::string text(const std::vector<char>& bytes)
    {
        return {bytes.begin(), bytes.end()};
    }

    static TimePoint now()
    {
        return nq::nqPoolClock::now();
    }

    std::size_t open() const
    {
        return mPool->unfinishedCount() == 0 ? mOpen : std::max(mOpen, mPool->unfinishedCount());
    }

    /// What the pool and its workers say to each other.
    const nq::nqEnvelope& envelope(const Worker& worker)
    {
        if (!mEnvelope) {
            std::vector<std::string> texts = worker.process->arguments;
            texts.insert(texts.begin(), "worker");
            std::vector<char*> arguments;
            arguments.reserve(texts.size());
            for (std::string& each : texts)
                arguments.push_back(each.data());
            const int count = static_cast<int>(arguments.size());
            mEnvelope.emplace(nq::nqWorkerStart::read(count, arguments.data()).value().tag);
        }
        return *mEnvelope;
    }

    Random& mRandom;
    model::Seen& mSeen;
    scripted::Machine mMachine;
    nqPoolOptions mOptions;
    std::unique_ptr<nq::nqPool> mPool;
    std::optional<nq::nqEnvelope> mEnvelope;
    std::map<nqJobId, Job> mJobs;
    std::map<nqJobId, std::string> mOriginal;
    std::vector<std::unique_ptr<Worker>> mWorkers;
    std::shared_ptr<scripted::Process> mYoungest;
    nqJobId mLastTold = 0;
    nqJobId mLastTaken = 0;
    std::size_t mOpen = 0; ///< jobs whose outcome the host does not have
    int mSerial = 0;
    int mEnded = 0;
    int mTroubles = 0;
    int mStepsOfWaits = 0;
    bool mHasLoop = false;
    bool mIsWaiting = false;
    bool mIsStopping = false;
    bool mIsInCallback = false;
    std::ostringstream mDifference;
    std::ostringstream mDid;
};

TEST(PoolModel, keepsEachPromiseWhateverHappens)
{
    model::playRounds<PoolRound>(
        usualRounds,
        stepsPerRound,
        {"a callback threw",
         "refused",
         "waited for room",
         "tried again",
         "reason 0",
         "reason 1",
         "reason 2",
         "reason 4",
         "reason 5",
         "reason 6",
         "reason 8",
         "reason 9",
         "reason 10"});
}

} // namespace
