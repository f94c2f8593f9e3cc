// Submitting threads put jobs into the inbox, with all the memory that they need. The pool's thread
// takes the inbox in whole and pumps. It sleeps inside the pump, which an eventfd ends that is
// written only while the thread may be asleep. A job is in exactly one place: the inbox, or, with
// its promise, the list of the unfinished until the pool's callback takes it out. The pool itself
// belongs to the thread, from its first instruction to its last.
#include "pool/include/nqPoolThread.h"

#include "pool/nqPoolDescriptor.h"
#include "pool/nqPoolPrivate.h"
#include "pool/nqPoolRefusals.h"

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <exception>
#include <map>
#include <mutex>
#include <poll.h>
#include <string>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace nq {

namespace {

/// How old statistics may become that nobody has waited for: a look costs more than a round.
constexpr std::chrono::milliseconds lookInterval{100};

/// Before the next try when there was no memory: others may give some back.
constexpr int memoryPauseMs = 10;

constexpr std::chrono::milliseconds noLimit{-1};

using TimePoint = std::chrono::steady_clock::time_point;

struct Job {
    std::promise<nqOutcome> promise;
    std::vector<char> bytes;               // until the pool has them
    std::unique_ptr<nqJobOptions> options; // null: those of the pool
    nqJobId idInPool = 0;
    TimePoint submitted = std::chrono::steady_clock::now();
    TimePoint::duration inInbox{};
};

/// By the id that submit() returns.
using Jobs = std::map<nqJobId, Job>;

/// The pool has no bound: the inbox, which it does not know of, counts as well.
nqPoolOptions optionsOfThePool(nqPoolOptions options)
{
    options.maxPendingJobs = 0;
    options.order = nqPoolOptions::Order::Completion;
    return options;
}

bool isDefault(const nqJobOptions& options)
{
    return !options.timeout && !options.deadline && !options.retry && options.label.empty();
}

nqOutcome outcomeWithoutThePool(nqOutcome::State state, nqAttempt::Reason reason)
{
    nqOutcome outcome;
    outcome.state = state;
    outcome.reason = reason;
    return outcome;
}

/// Blocks all signals in this thread and in those that it makes meanwhile.
class AllSignalsBlocked {
public:
    AllSignalsBlocked()
    {
        sigset_t all;
        sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &mBefore);
    }
    ~AllSignalsBlocked()
    {
        ::pthread_sigmask(SIG_SETMASK, &mBefore, nullptr);
    }
    AllSignalsBlocked(const AllSignalsBlocked&) = delete;
    AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

private:
    sigset_t mBefore{};
};

} // namespace

struct nqPoolThread::Private {
    explicit Private(const nqPoolOptions& options);
    ~Private();
    Private(const Private&) = delete;
    Private& operator=(const Private&) = delete;

    /// Not in a forked child.
    bool isOwner() const
    {
        return mOwner == ::getpid();
    }

    // Of any thread.
    std::future<nqOutcome> submit(nqJobBytes& bytes, const nqJobOptions& options, nqJobId* id);
    bool waitForRoom(std::unique_lock<std::mutex>& lock);
    void cancel(nqJobId id);
    void drain();
    void stop();
    void wakeUp(std::unique_lock<std::mutex>& lock);

    // Of the pool's thread.
    void run();
    bool takeInbox();
    void accept(Jobs& jobs);
    void cancelAsked();
    void finish(Jobs::iterator job, nqOutcome&& outcome);
    void endAll();
    std::chrono::milliseconds publish();

    const nqPoolOptions mOptions; // of the host
    const pid_t mOwner = ::getpid();
    nqPoolPrivate mPool;
    const nqPoolDescriptor mNews; // an eventfd

    mutable std::mutex mMutex; // guards what follows, up to mHasStopped
    std::condition_variable mRoom;
    std::condition_variable mProgress;
    Jobs mInbox;
    std::vector<nqJobId> mAskedToCancel;
    nqJobId mLastId = 0;
    nqJobId mOldest = 1;         // every job before this one has its outcome
    std::size_t mUnfinished = 0; // jobs
    std::size_t mWaitForRoom = 0;
    std::uint64_t mLooksAsked = 0;
    std::uint64_t mLooksTaken = 0; // of those
    bool mIsAsleep = false;        // the thread, or nearly so, until somebody has woken it
    std::uint64_t mWrites = 0;     // of the eventfd that the thread does not know of
    bool mIsStopping = false;
    nqPoolStatistics mStatistics;
    std::string mProblem;
    bool mHasStopped = false;

    // Of the pool's thread.
    Jobs mJobs; // that the pool has
    std::vector<nqJobId> mToCancel;
    nqJobId mLastTaken = 0;
    std::uint64_t mLookToTake = 0;
    std::uint64_t mWritesToRead = 0;
    TimePoint mLastLook;

    std::thread mThread; // the last one: it uses the others
};

nqPoolThread::Private::Private(const nqPoolOptions& options)
    : mOptions(options),
      mPool(optionsOfThePool(options)),
      mNews(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    mPool.wakeUpFor(mNews.get());
    const AllSignalsBlocked whileItBegins;
    mThread = std::thread([this] { run(); });
}

nqPoolThread::Private::~Private()
{
    stop();
    mThread.join();
}

std::future<nqOutcome>
nqPoolThread::Private::submit(nqJobBytes& bytes, const nqJobOptions& options, nqJobId* id)
{
    refuseEmptyJob(bytes.size(), mOptions);
    Jobs alone;
    Job& job = alone[0];
    std::future<nqOutcome> outcome = job.promise.get_future();
    if (!isDefault(options))
        job.options = std::make_unique<nqJobOptions>(options);

    std::unique_lock<std::mutex> lock(mMutex);
    if (!waitForRoom(lock))
        return {};
    job.bytes = bytes.take();
    Jobs::node_type node = alone.extract(alone.begin());
    node.key() = ++mLastId;
    if (id != nullptr)
        *id = mLastId;
    mInbox.insert(mInbox.end(), std::move(node));
    ++mUnfinished;
    wakeUp(lock);
    return outcome;
}

/// False when there is none, and the caller is not to wait.
bool nqPoolThread::Private::waitForRoom(std::unique_lock<std::mutex>& lock)
{
    const std::size_t bound = mOptions.maxPendingJobs;
    const auto isFull = [&] { return bound != 0 && mUnfinished >= bound && !mIsStopping; };
    if (isFull()) {
        if (mOptions.whenFull == nqPoolOptions::WhenFull::Refuse)
            return false;
        ++mWaitForRoom;
        mRoom.wait(lock, [&] { return !isFull(); });
        --mWaitForRoom;
    }
    if (mIsStopping)
        throw nqPoolError("nqPoolThread::submit() was called after stop()");
    return true;
}

void nqPoolThread::Private::cancel(nqJobId id)
{
    std::unique_lock<std::mutex> lock(mMutex);
    if (id < mOldest || id > mLastId || mIsStopping)
        return;
    mAskedToCancel.push_back(id);
    wakeUp(lock);
}

void nqPoolThread::Private::drain()
{
    std::unique_lock<std::mutex> lock(mMutex);
    const nqJobId last = mLastId;
    mProgress.wait(lock, [&] { return mOldest > last || mHasStopped; });
    const std::uint64_t look = ++mLooksAsked;
    wakeUp(lock);
    lock.lock();
    mProgress.wait(lock, [&] { return mLooksTaken >= look || mHasStopped; });
}

void nqPoolThread::Private::stop()
{
    std::unique_lock<std::mutex> lock(mMutex);
    mIsStopping = true;
    mRoom.notify_all();
    wakeUp(lock);
    lock.lock();
    mProgress.wait(lock, [&] { return mHasStopped; });
}

/// Unlocks, and sees to it that the thread takes the inbox.
void nqPoolThread::Private::wakeUp(std::unique_lock<std::mutex>& lock)
{
    const bool isAsleep = std::exchange(mIsAsleep, false);
    if (isAsleep)
        ++mWrites;
    lock.unlock();
    if (isAsleep)
        ::eventfd_write(mNews.get(), 1); // cannot fail: it is far from its largest number
}

void nqPoolThread::Private::run()
{
    while (takeInbox()) {
        try {
            cancelAsked();
            mPool.pump(publish());
        } catch (const std::exception&) { // no memory: each step can be taken again
            ::poll(nullptr, 0, memoryPauseMs);
        }
    }
    endAll();
}

/// Hands its jobs to the pool. False once the work is to end.
bool nqPoolThread::Private::takeInbox()
{
    Jobs jobs;
    bool isStopping = false;
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mIsAsleep = false;
        mWritesToRead += std::exchange(mWrites, 0);
        jobs.swap(mInbox);
        if (mToCancel.empty())
            mToCancel.swap(mAskedToCancel);
        isStopping = mIsStopping;
        mLookToTake = mLooksAsked;
    }
    // One that has not come yet, its thread being on the way to it, is read in a later round.
    eventfd_t writes = 0;
    if (mWritesToRead != 0 && ::eventfd_read(mNews.get(), &writes) == 0)
        mWritesToRead -= writes;
    accept(jobs);
    return !isStopping;
}

void nqPoolThread::Private::accept(Jobs& jobs)
{
    const TimePoint now = jobs.empty() ? TimePoint() : std::chrono::steady_clock::now();
    while (!jobs.empty()) {
        const auto job = mJobs.insert(mJobs.end(), jobs.extract(jobs.begin()));
        mLastTaken = job->first;
        Job& its = job->second;
        its.inInbox = now - its.submitted;
        nqJobBytes bytes(std::move(its.bytes));
        try {
            its.idInPool = mPool.submit(bytes, its.options.get(), [this, job](nqOutcome&& outcome) {
                finish(job, std::move(outcome));
            });
            its.options.reset();
        } catch (const std::exception&) { // no memory for its entry
            finish(
                job,
                outcomeWithoutThePool(nqOutcome::State::Failed, nqAttempt::Reason::ResultLost));
        }
    }
}

void nqPoolThread::Private::cancelAsked()
{
    while (!mToCancel.empty()) {
        const auto job = mJobs.find(mToCancel.back());
        if (job != mJobs.end())
            mPool.cancel(job->second.idInPool);
        mToCancel.pop_back();
    }
}

// There is room for another job before its host hears of it.
void nqPoolThread::Private::finish(Jobs::iterator job, nqOutcome&& outcome)
{
    Jobs::node_type ended = mJobs.extract(job);
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mIsAsleep = false;
        --mUnfinished;
        if (mWaitForRoom != 0)
            mRoom.notify_one();
    }
    outcome.id = ended.key();
    outcome.queued += std::chrono::duration_cast<std::chrono::microseconds>(ended.mapped().inInbox);
    ended.mapped().promise.set_value(std::move(outcome));
}

/// Whatever cannot be told in the usual way for lack of memory is told without bytes.
void nqPoolThread::Private::endAll()
{
    try {
        mPool.stop();
        mLastLook = TimePoint(); // the last one is due
        publish();
    } catch (const std::exception&) {
    }
    while (!mJobs.empty())
        finish(
            mJobs.begin(),
            outcomeWithoutThePool(nqOutcome::State::Cancelled, nqAttempt::Reason::Stopped));
    const std::lock_guard<std::mutex> lock(mMutex);
    mHasStopped = true;
    mProgress.notify_all();
}

/// What other threads may know. Returns for how long the thread may sleep.
std::chrono::milliseconds nqPoolThread::Private::publish()
{
    const TimePoint now = std::chrono::steady_clock::now();
    const bool isLookDue = mLookToTake != mLooksTaken || now >= mLastLook + lookInterval;
    nqPoolStatistics statistics;
    std::string problem;
    if (isLookDue) {
        mLastLook = now;
        statistics = mPool.statistics();
        problem = mPool.problem();
    }
    const std::lock_guard<std::mutex> lock(mMutex);
    if (isLookDue) {
        mStatistics = statistics;
        mProblem.swap(problem);
        mLooksTaken = mLookToTake;
    }
    mOldest = mJobs.empty() ? mLastTaken + 1 : mJobs.begin()->first;
    mProgress.notify_all();
    mIsAsleep =
        mInbox.empty() && mAskedToCancel.empty() && mLooksAsked == mLookToTake && !mIsStopping;
    if (!mIsAsleep)
        return std::chrono::milliseconds(0);
    return isLookDue && mJobs.empty() ? noLimit : lookInterval;
}

nqPoolThread::nqPoolThread(const nqPoolOptions& options)
    : mPrivate(std::make_unique<Private>(options))
{
}

// A forked child has neither the thread nor, perhaps, a mutex that anybody will unlock.
nqPoolThread::~nqPoolThread()
{
    if (!mPrivate->isOwner())
        static_cast<void>(mPrivate.release());
}

std::future<nqOutcome>
nqPoolThread::submit(nqJobBytes job, const nqJobOptions& options, nqJobId* id)
{
    return mPrivate->submit(job, options, id);
}

void nqPoolThread::cancel(nqJobId id)
{
    mPrivate->cancel(id);
}

void nqPoolThread::drain()
{
    mPrivate->drain();
}

void nqPoolThread::stop()
{
    mPrivate->stop();
}

nqPoolStatistics nqPoolThread::statistics() const
{
    const std::lock_guard<std::mutex> lock(mPrivate->mMutex);
    return mPrivate->mStatistics;
}

std::string nqPoolThread::problem() const
{
    const std::lock_guard<std::mutex> lock(mPrivate->mMutex);
    return mPrivate->mProblem;
}

} // namespace nq
