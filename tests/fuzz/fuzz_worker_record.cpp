// Records of hostile workers on the queues of one host: anything may come through their pipes, and
// the workers grow, hang, answer unasked, die and stay at any moment.

#include "tests/common/refusedMemory.h"
#include "tests/fuzz/expectation.h"
#include "tests/fuzz/input.h"
#include "tests/scripted/scriptedMachine.h"

#include "scheduler/nqJobQueues.h"
#include "supervision/nqSchedulerWorker.h"
#include "system/nqLog.h"

#include <array>
#include <chrono>
#include <deque>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>

namespace {

using fuzz::Bytes;
using fuzz::require;
using nq::nqScheduler;
using Outcome = fuzz::ExpectedReader::Outcome;
using std::chrono::nanoseconds;

constexpr std::uint64_t everything = std::numeric_limits<std::uint64_t>::max();

/// 0 is no limit.
struct Limits {
    std::uint64_t maxRam;
    std::uint64_t maxSeconds;
    std::uint64_t maxRamAfterJob;
};

/// What has become of the jobs that were pushed. Every one stands in one place.
struct Ledger {
    std::deque<Bytes> pending;
    std::size_t pushed = 0;
    std::size_t inWork = 0;
    std::size_t results = 0;
    std::size_t failures = 0;
    std::size_t dropped = 0;   ///< empty jobs, which the queues count as in work for ever
    std::size_t abandoned = 0; ///< in work when their record was closed; they count for ever too
    std::size_t cleared = 0;
};

/// One job that ends.
struct End {
    nqScheduler::FailReason reason = nqScheduler::NoFailure; ///< of a result
    Bytes bytes;
};

/// One worker record, and what is expected of it.
class Seat {
public:
    Seat(
        scripted::Machine& machine,
        nq::nqJobQueues& queues,
        Ledger& ledger,
        const Limits& limits,
        std::uint64_t outgoingLimit)
        : mMachine(machine),
          mLedger(ledger),
          mLimits(limits),
          mPipe(&machine.planPipe()),
          mProcess(&machine.planProcess()),
          mWriter(outgoingLimit)
    {
        mPipe->outgoingLimit = outgoingLimit;
        mProcess->state = nq::nqProcess::Running;
        mProcess->endsWhenKilled = false;
        mRecord = std::make_unique<nq::nqSchedulerWorker>(
            std::make_unique<nq::nqNamedPipe>(), std::make_unique<nq::nqProcess>(), &queues);
        mRecord->setMaxCapMemory(limits.maxRam);
        mRecord->setJobProcessTimeout(limits.maxSeconds);
        mRecord->setMaxCapMemoryAfterProcessingAJob(limits.maxRamAfterJob);
    }

    scripted::Pipe& pipe()
    {
        return *mPipe;
    }
    scripted::Process& process()
    {
        return *mProcess;
    }
    bool isFinished() const
    {
        return mRecord->hasFinished();
    }

    void lose()
    {
        mPipe->lose();
        mPipe->arrivals.clear();
        mReader.drop();
        mWriter.drop();
    }

    void closeWriteChannel()
    {
        mPipe->isWriteChannelClosed = true;
        mPipe->outgoing.clear();
        mWriter.drop();
    }

    void closeRecord()
    {
        mRecord->closePipe();
        lose();
        mIsClosed = true;
        if (!mJob)
            return;
        mJob.reset();
        --mLedger.inWork;
        ++mLedger.abandoned;
    }

    /// What a step must bring to an end goes to `ends`.
    void step(std::deque<End>& ends)
    {
        const bool isOver = mIsClosed || mIsFinished;
        if (isOver)
            mIsFinished = true;
        mIsKilledNow = false;
        const bool isRefused = !isOver && !expectStep(ends);
        require(stepRecord() == !isRefused, "only a refused length throws");
        if (isRefused) {
            require(!mPipe->isConnected, "nobody reads on without memory");
            lose();
        }
        require(mRecord->isReadyForJob() != mJob.has_value() || mIsClosed, "whether a job is held");
        require(mRecord->hasFinished() == mIsFinished, "when a record is over");
        require(
            mMachine.count(mProcess->name + ": killProcess()") == (mIsKilledNow ? 1 : 0),
            "when a worker is killed");
        require(!isOver || mMachine.calls.empty(), "a record that is over does nothing");
        require(mPipe->incoming == mReader.unread(), "what a step leaves for the next");
        require(mPipe->outgoing == mWriter.outgoing(), "what a step sends");
        require(mPipe->outgoing.size() <= mPipe->outgoingLimit, "the outgoing buffer's limit");
    }

    /// Whatever a worker was up to, its end ends the record.
    void end(std::deque<End>& ends)
    {
        mProcess->state = nq::nqProcess::Ended;
        lose();
        for (int left = 2; left > 0 && !isFinished(); --left) // a kill may come first
            step(ends);
        require(isFinished() && !mJob, "a lost worker's record ends");
    }

    void destroy()
    {
        mRecord.reset();
        require(mPipe->isDestroyed && mProcess->isDestroyed, "nothing of a record is left");
    }

private:
    bool stepRecord()
    {
        mMachine.calls.clear();
        mMachine.trace.clear();
        mMachine.logged.clear();
        mPipe->passedOn.clear();
        const common::RefusedMemory refused(fuzz::refusedBytes);
        try {
            mRecord->superviseStep();
            return true;
        } catch (const std::bad_alloc&) {
            return false;
        }
    }

    bool isAtItsEnd() const
    {
        return mPipe->endsWhenDrained && mReader.unread().empty();
    }
    bool isReadClosed() const
    {
        return mPipe->isReadChannelClosed || isAtItsEnd();
    }
    bool isConnected() const
    {
        return mPipe->isConnected && !isAtItsEnd();
    }
    bool isWritable() const
    {
        return isConnected() && !mPipe->isWriteChannelClosed;
    }

    /// False when the step must throw.
    bool expectStep(std::deque<End>& ends)
    {
        expectEvents();
        mIsKilledNow = expectKill();
        if (mIsKilledNow)
            return true;

        bool isCompleted = false;
        if (mJob && !isReadClosed() && !mReader.unread().empty() && mPipe->isConnected) {
            const Outcome outcome = mReader.step();
            if (outcome == Outcome::throws)
                return false;
            isCompleted = outcome == Outcome::isWhole;
        }
        if (isCompleted)
            expectResult(ends);
        const bool isLost = isReadClosed() && mProcess->state != nq::nqProcess::Running;
        if (isLost || !isConnected())
            expectEnd(ends);
        else
            expectSending(isCompleted);
        return true;
    }

    void expectEvents()
    {
        if (mPipe->isConnected && !mPipe->isWriteChannelClosed)
            mWriter.passOn(mPipe->passedOnPerCall);
        if (!mPipe->arrivals.empty())
            mReader.arrive(mPipe->arrivals.front());
    }

    bool expectKill()
    {
        const bool isOverRam = mLimits.maxRam != 0 && mProcess->ramInUse > mLimits.maxRam;
        const auto age =
            std::chrono::duration_cast<std::chrono::seconds>(mMachine.steadyTime - mJobStart);
        const bool isOverTime = mLimits.maxSeconds != 0 && mJob &&
                                static_cast<std::uint64_t>(age.count()) > mLimits.maxSeconds;
        if (mIsKilled || (!isOverRam && !isOverTime))
            return false;
        mIsKilled = true;
        mReason = isOverTime ? nqScheduler::Timeout : nqScheduler::TooMuchRam;
        return true;
    }

    void expectResult(std::deque<End>& ends)
    {
        ends.push_back({nqScheduler::NoFailure, mReader.payload()});
        mJob.reset();
        --mLedger.inWork;
        ++mLedger.results;
        mWriter.forgetPayload();
    }

    void expectEnd(std::deque<End>& ends)
    {
        mIsFinished = true;
        if (!mJob)
            return;
        ends.push_back({mReason, *mJob});
        mJob.reset();
        --mLedger.inWork;
        ++mLedger.failures;
    }

    void expectSending(bool isCompleted)
    {
        if (isCompleted && mLimits.maxRamAfterJob != 0 &&
            mProcess->ramInUse > mLimits.maxRamAfterJob) {
            mIsFinished = true;
            mIsClosed = true;
            mReader.drop();
            mWriter.drop();
            return;
        }
        if (!mJob)
            expectDispatch();
        if (mJob)
            mWriter.goOn(isWritable());
    }

    void expectDispatch()
    {
        if (mIsKilled || !mWriter.outgoing().empty() || mLedger.pending.empty())
            return;
        Bytes job = std::move(mLedger.pending.front());
        mLedger.pending.pop_front();
        if (job.empty()) {
            ++mLedger.dropped;
            return;
        }
        ++mLedger.inWork;
        mReason = nqScheduler::UnexpectedCrash;
        mJobStart = mMachine.steadyTime;
        mWriter.start(job, isWritable());
        mJob = std::move(job);
    }

    scripted::Machine& mMachine;
    Ledger& mLedger;
    Limits mLimits;
    scripted::Pipe* mPipe;
    scripted::Process* mProcess;
    std::unique_ptr<nq::nqSchedulerWorker> mRecord;
    fuzz::ExpectedReader mReader;
    fuzz::ExpectedWriter mWriter;
    std::optional<Bytes> mJob;
    nqScheduler::FailReason mReason = nqScheduler::NoFailure;
    nanoseconds mJobStart{};
    bool mIsKilled = false;
    bool mIsKilledNow = false;
    bool mIsClosed = false;
    bool mIsFinished = false;
};

/// Two workers, each replaced when it is over.
class Host {
public:
    explicit Host(fuzz::Input& input)
        : mInput(input)
    {
        nq::nqLog::msInstance = &mLogger;
        mLimits.maxRam = input.pick<std::uint64_t>({0, 1000, 1536, everything});
        mLimits.maxSeconds = input.pick<std::uint64_t>({0, 1, 10, everything});
        mLimits.maxRamAfterJob = input.pick<std::uint64_t>({0, 500, 2000, everything});
        for (auto& seat : mSeats)
            launch(seat);
    }

    void play()
    {
        while (!mInput.isAtEnd())
            playEvent();
        for (auto& seat : mSeats) {
            seat->end(mEnds);
            checkEnds();
            seat->destroy();
        }
        require(mLedger.inWork == 0, "nobody works any more");
        checkAccounts();
    }

private:
    using Seats = std::array<std::unique_ptr<Seat>, 2>;

    void playEvent()
    {
        const unsigned what = mInput.byte();
        std::unique_ptr<Seat>& seat = mSeats.at(what >> 7);
        switch (what % 16) {
        case 0:
        case 1:
            push();
            break;
        case 2:
            seat->pipe().arrivals.push_back(mInput.sent());
            break;
        case 3:
        case 4:
            seat->pipe().arrivals.push_back(mInput.sent());
            step(seat);
            break;
        case 5:
            seat->pipe().passedOnPerCall =
                mInput.pick<std::uint64_t>({everything, 0, 1, 3, 4, 5, 100});
            break;
        case 6:
            seat->process().ramInUse = ram();
            break;
        case 7:
            mMachine.advance(time());
            break;
        case 8:
            seat->process().state = nq::nqProcess::Ended;
            break;
        case 9:
            seat->pipe().endsWhenDrained = true;
            break;
        case 10:
            playLoss(*seat);
            break;
        case 11:
            pass();
            break;
        default:
            for (unsigned left = 1 + mInput.byte() % 4u; left > 0; --left)
                step(seat);
        }
    }

    void playLoss(Seat& seat)
    {
        switch (mInput.byte() % 16) {
        case 0:
            seat.pipe().isReadChannelClosed = true;
            break;
        case 1:
            seat.closeWriteChannel();
            break;
        case 2:
            seat.pipe().isConnected = false;
            break;
        case 3:
            seat.lose();
            break;
        case 4:
            seat.closeRecord();
            break;
        case 5:
            mQueues.clearPendingJobs();
            mLedger.cleared += mLedger.pending.size();
            mLedger.pending.clear();
            break;
        default:
            break;
        }
    }

    std::uint64_t ram()
    {
        return mInput.pick<std::uint64_t>(
            {0,
             mLimits.maxRam,
             mLimits.maxRam + 1,
             mLimits.maxRamAfterJob,
             mLimits.maxRamAfterJob + 1,
             mInput.twoBytes(),
             everything});
    }

    nanoseconds time()
    {
        using std::chrono::milliseconds;
        using std::chrono::seconds;
        return mInput.pick<nanoseconds>(
            {milliseconds{1},
             milliseconds{999},
             seconds{1},
             seconds{2},
             seconds{10},
             seconds{11} - nanoseconds{1},
             seconds{11},
             seconds{mInput.twoBytes()}});
    }

    void push()
    {
        const Bytes job = mInput.byte() % 2 == 0 ? mInput.rawBytes() : mInput.manyBytes();
        mQueues.push(job);
        mLedger.pending.push_back(job);
        ++mLedger.pushed;
    }

    void launch(std::unique_ptr<Seat>& seat)
    {
        if (seat != nullptr)
            seat->destroy();
        seat = std::make_unique<Seat>(
            mMachine,
            mQueues,
            mLedger,
            mLimits,
            mInput.pick<std::uint64_t>({4096, 4, 5, 7, 64, 1, 3, 0}));
    }

    /// What the pump does with its workers.
    void pass()
    {
        for (auto& seat : mSeats)
            step(seat);
        for (auto& seat : mSeats) {
            if (seat->isFinished())
                launch(seat);
        }
    }

    void step(std::unique_ptr<Seat>& seat)
    {
        seat->step(mEnds);
        checkEnds();
        checkAccounts();
    }

    void checkEnds()
    {
        for (; !mEnds.empty(); mEnds.pop_front()) {
            if (mEnds.front().reason == nqScheduler::NoFailure)
                checkResult(mEnds.front());
            else
                checkFailure(mEnds.front());
        }
        require(mQueues.resultCount() == 0 && mQueues.failCount() == 0, "no end but the expected");
    }

    void checkResult(const End& end)
    {
        Bytes result;
        require(mQueues.pop(result), "a whole result is delivered");
        require(result == end.bytes, "the bytes of a result");
    }

    void checkFailure(const End& end)
    {
        Bytes job;
        std::string message;
        nqScheduler::FailReason reason = nqScheduler::NoFailure;
        require(mQueues.popFail(job, reason, message), "a lost job is handed back");
        require(job == end.bytes, "the bytes of a lost job");
        require(reason == end.reason, "why a job is lost");
        const std::string text = reason == nqScheduler::UnexpectedCrash ? "Unexpected crash"
                                 : reason == nqScheduler::TooMuchRam
                                     ? "using too much RAM ("
                                     : "killing scheduler worker : timeout (";
        require(message.compare(0, text.size(), text) == 0, "the words that say why");
        require(
            mMachine.logged.size() == 1 &&
                mMachine.logged.front().entry.mMessage.find(message) != std::string::npos,
            "a failure is logged once");
    }

    /// Every job that was pushed is in one place, and the queues count as the ledger does.
    void checkAccounts()
    {
        const std::size_t inProgress = mLedger.inWork + mLedger.dropped + mLedger.abandoned;
        const std::size_t left = mLedger.pending.size() + inProgress;
        require(mQueues.pendingJobCount() == mLedger.pending.size(), "the count of pending jobs");
        require(mQueues.jobCount() == left, "the count of jobs that are not over");
        require(
            left + mLedger.results + mLedger.failures + mLedger.cleared == mLedger.pushed,
            "every job is in one place");
    }

    fuzz::Input& mInput;
    scripted::Machine mMachine;
    nq::nqLog mLogger;
    nq::nqJobQueues mQueues;
    Ledger mLedger;
    Limits mLimits{};
    Seats mSeats;
    std::deque<End> mEnds;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::Input input(data, size);
    Host(input).play();
    return 0;
}
