// The library through its public interface, with default settings and the README's host loop, or
// with the loop of a host that waits in epoll.
#include "benchmarks/common/pool.h"

#include "benchmarks/common/fail.h"
#include "benchmarks/common/job_memory.h"

#include <nqScheduler.h>
#include <nqSchedulerObserver.h>

#include <optional>
#include <string>
#include <sys/epoll.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace bench {

namespace {

constexpr int pumpTimeoutMs = 100;
constexpr int connectTimeoutMs = 10'000;

class CountingObserver : public nq::nqSchedulerObserver {
public:
    void onEvent(const nq::nqSchedulerEvent& event) noexcept override
    {
        if (event.mKind == nq::nqSchedulerEvent::Kind::ResultComplete)
            ++mResults;
    }

    std::uint64_t mResults = 0;
};

/// A loop of the host's own, which waits for the scheduler's descriptor alone.
class Epoll {
public:
    explicit Epoll(int descriptor)
        : mSet(::epoll_create1(EPOLL_CLOEXEC))
    {
        epoll_event watched{};
        watched.events = EPOLLIN;
        if (::epoll_ctl(mSet, EPOLL_CTL_ADD, descriptor, &watched) != 0)
            fail("the scheduler's descriptor cannot be watched");
    }
    ~Epoll()
    {
        ::close(mSet);
    }
    Epoll(const Epoll&) = delete;
    Epoll& operator=(const Epoll&) = delete;

    void wait(int timeoutMs) const
    {
        epoll_event happened{};
        ::epoll_wait(mSet, &happened, 1, timeoutMs);
    }

private:
    int mSet;
};

class LibraryPool : public Pool {
public:
    explicit LibraryPool(const PoolOptions& options)
        : mMaxInFlight(options.workers + jobsAhead),
          mScheduler(options.workerExecutable, false, {}, true),
          mJobs(options.movesJobs)
    {
        if (options.isObserved && !mScheduler.setObserver(&mObserver))
            fail("the scheduler takes no observer");
        if (!mScheduler.startScheduler(options.workers, connectTimeoutMs))
            fail("the workers could not be started");
        if (options.waitsInEpoll)
            mEpoll.emplace(mScheduler.waitDescriptor());
    }

    void run(Ledger& ledger, std::uint64_t count) override
    {
        std::uint64_t pushed = 0;
        std::uint64_t finished = 0;
        while (finished < count) {
            for (; pushed < count && pushed - finished < mMaxInFlight; ++pushed) {
                mJobs.pushNext(ledger, [this](auto&& job) {
                    mScheduler.push(std::forward<decltype(job)>(job));
                });
            }
            pump();
            for (; mScheduler.pop(mResult); ++finished) {
                ledger.check(mResult.data(), mResult.size());
                mJobs.takeBack(mResult);
            }
            for (; mScheduler.popFail(mFailedJob, mReason, mMessage); ++finished)
                ledger.lose();
        }
    }

private:
    void pump()
    {
        if (!mEpoll) {
            mScheduler.processScheduler(pumpTimeoutMs);
            return;
        }
        mEpoll->wait(pumpTimeoutMs);
        mScheduler.processScheduler(0);
        if (mScheduler.hasImmediateWork())
            mScheduler.processScheduler(0);
    }

    CountingObserver mObserver; // outlives the scheduler
    std::uint64_t mMaxInFlight;
    nq::nqScheduler mScheduler;
    std::optional<Epoll> mEpoll;
    JobMemory mJobs;
    std::vector<char> mResult;
    std::vector<char> mFailedJob;
    nq::nqScheduler::FailReason mReason = nq::nqScheduler::NoFailure;
    std::string mMessage;
};

} // namespace

std::unique_ptr<Pool> makePool(const PoolOptions& options)
{
    return std::make_unique<LibraryPool>(options);
}

} // namespace bench
