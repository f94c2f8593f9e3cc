// A worker whose host sends anything, cut anywhere, reads slowly and goes at any time.

#include "tests/common/refusedMemory.h"
#include "tests/fuzz/expectation.h"
#include "tests/fuzz/input.h"
#include "tests/scripted/scriptedMachine.h"

#include "include/nqWorker.h"

#include <deque>
#include <limits>
#include <new>
#include <optional>
#include <utility>

namespace {

using fuzz::Bytes;
using fuzz::require;
using Outcome = fuzz::ExpectedReader::Outcome;

constexpr std::uint64_t everything = std::numeric_limits<std::uint64_t>::max();

/// Writes down what its hooks are asked, and answers what it was told to.
class RecordingWorker : public nq::nqWorker {
public:
    using nqWorker::nqWorker;

    std::deque<Bytes> jobs; ///< in the order of the calls
    Bytes nextResult;
    int ends = 0;

    void processJob(Bytes& job, Bytes& result) override
    {
        require(result.empty(), "the hook gets an empty result");
        jobs.push_back(job);
        result = nextResult;
        job.assign(3, 'x'); // it is the hook's to spoil
    }

    void endOfWork() override
    {
        ++ends;
        nqWorker::endOfWork();
    }
};

class Work {
public:
    explicit Work(fuzz::Input& input)
        : mInput(input),
          mRecord(mMachine.planPipe()),
          mWriter(mRecord.outgoingLimit = input.pick<std::uint64_t>({4096, 4, 5, 7, 64, 1, 3, 0})),
          mWorker("pipe")
    {
        const bool areCopied = mRecord.outgoingLimit % 2 == 1;
        mRecord.smallestLoan = mRecord.smallestRange = areCopied ? fuzz::mostBytes : 1;
        mWorker.nextResult = {'o', 'k'};
    }

    void play()
    {
        while (!mInput.isAtEnd())
            playEvent();
        if (mIsWhole)
            end();
        require(mWorker.jobs.empty(), "no job comes from nowhere");
    }

private:
    void playEvent()
    {
        switch (mInput.byte() % 12) {
        case 0:
        case 1:
            deliver(mInput.sent());
            break;
        case 2:
        case 3:
            deliver(mInput.sent());
            step();
            break;
        case 4:
            mWorker.nextResult = mInput.rawBytes();
            break;
        case 5:
            mWorker.nextResult = mInput.manyBytes();
            break;
        case 6:
            mRecord.passedOnPerCall = mInput.pick<std::uint64_t>({everything, 0, 1, 3, 4, 5, 100});
            break;
        case 7:
            playLoss();
            break;
        default:
            for (unsigned left = 1 + mInput.byte() % 8u; left > 0; --left)
                step();
        }
    }

    void playLoss()
    {
        const unsigned what = mInput.byte() % 16u;
        if (what > 3)
            return;
        mIsWhole = false;
        if (what == 0) {
            mRecord.endsWhenDrained = true;
        } else if (what == 1) {
            mRecord.isReadChannelClosed = true;
        } else if (what == 2) {
            mRecord.isWriteChannelClosed = true;
            mRecord.dropUnsent();
            mWriter.drop();
        } else {
            loseHost();
        }
    }

    void loseHost()
    {
        mIsWhole = false;
        mRecord.lose();
        mRecord.arrivals.clear();
        mReader.drop();
        mWriter.drop();
    }

    void deliver(const Bytes& bytes)
    {
        common::append(mStream, bytes);
        mRecord.arrivals.push_back(bytes);
    }

    bool isConnected() const
    {
        return mRecord.isConnected && !(mRecord.endsWhenDrained && mReader.unread().empty());
    }

    bool isWritable() const
    {
        return isConnected() && !mRecord.isWriteChannelClosed;
    }

    /// The worker does in a step what is expected of it, and nothing else.
    void step()
    {
        mMachine.calls.clear();
        mMachine.trace.clear();
        mRecord.passedOn.clear();
        expectEvents();
        const bool isRefused = !expectReading();
        const int endsBefore = mWorker.ends;
        require(stepWorker() == !isRefused, "only a refused length throws");
        if (isRefused) {
            require(!mRecord.isConnected, "nobody reads on without memory");
            loseHost();
        }
        checkJob();
        if (!isRefused)
            mWriter.goOn(isWritable());
        require(mRecord.untaken() == mReader.unread(), "what a step leaves for the next");
        require(mRecord.unsent() == mWriter.outgoing(), "what a step sends");
        require(mRecord.unsentBytes() <= mRecord.outgoingLimit, "the outgoing buffer's limit");
        if (isRefused)
            return;
        const bool isOver = !isConnected() || mRecord.isReadChannelClosed;
        require(mWorker.ends == endsBefore + (isOver ? 1 : 0), "the end of the work is told");
        require(!isOver || mWorker.hasFinished(), "a worker without a host is finished");
    }

    bool stepWorker()
    {
        const common::RefusedMemory refused(fuzz::refusedBytes);
        try {
            mWorker.processWorker(0);
            return true;
        } catch (const std::bad_alloc&) {
            return false;
        }
    }

    void expectEvents()
    {
        if (mRecord.isConnected && !mRecord.isWriteChannelClosed)
            mWriter.passOn(mRecord.passedOnPerCall);
        if (!mRecord.arrivals.empty())
            mReader.arrive(mRecord.arrivals.front());
    }

    /// Settles which job the hook gets in this step, if any. False when the step must throw.
    bool expectReading()
    {
        if (mReader.unread().empty())
            return true;
        // A header is looked for only when the result before has been handed over; bytes that come
        // earlier, which no host sends, are an empty job.
        if (!mWaitingJob && !mReader.isWithinPayload() && mWriter.isPending()) {
            if (mWriter.outgoing().empty())
                mExpectedJob = Bytes();
            return true;
        }
        if (!mWaitingJob && mRecord.isConnected) {
            const Outcome outcome = mReader.step();
            if (outcome == Outcome::throws)
                return false;
            if (outcome == Outcome::isWhole)
                mWaitingJob = mReader.payload();
        }
        if (mWaitingJob && mWriter.outgoing().empty())
            mExpectedJob = std::exchange(mWaitingJob, std::nullopt);
        return true;
    }

    void checkJob()
    {
        require(mWorker.jobs.size() == (mExpectedJob ? 1 : 0), "when the hook runs");
        if (!mExpectedJob)
            return;
        require(mWorker.jobs.front() == *mExpectedJob, "the bytes of a job");
        if (!mExpectedJob->empty())
            ++mJobCount;
        mWriter.start(mWorker.nextResult, isWritable());
        mExpectedJob.reset();
        mWorker.jobs.clear();
    }

    /// On a connection that holds, every job comes through in the end, however its bytes were cut
    /// and however slowly the results were read.
    void end()
    {
        mRecord.passedOnPerCall = everything;
        mRecord.outgoingLimit = fuzz::mostBytes;
        mWriter.setLimit(mRecord.outgoingLimit);
        const std::size_t mostSteps = 2 * (mRecord.arrivals.size() + mStream.size() + 8);
        for (std::size_t left = mostSteps; left > 0 && mIsWhole && !isQuiet(); --left) {
            // A job that was whole before the buffer was empty waits for one more byte.
            if (mWaitingJob && mRecord.arrivals.empty() && mReader.unread().empty())
                deliver({'\0'});
            step();
        }
        if (!mIsWhole) // for want of memory
            return;
        require(isQuiet(), "the worker takes what it can");
        require(mJobCount == fuzz::payloadsOf(mStream).size(), "every job is done once");
        require(!mWorker.hasFinished(), "a worker with a host goes on");
    }

    bool isQuiet() const
    {
        const std::size_t least = mReader.isWithinPayload() ? 1 : sizeof(std::uint32_t);
        return !mWaitingJob && !mWriter.isPending() && mRecord.unsentBytes() == 0 &&
               mRecord.arrivals.empty() && mRecord.untakenBytes() < least;
    }

    fuzz::Input& mInput;
    scripted::Machine mMachine;
    scripted::Pipe& mRecord;
    fuzz::ExpectedReader mReader;
    fuzz::ExpectedWriter mWriter;
    RecordingWorker mWorker;
    Bytes mStream; ///< all that was ever delivered
    std::optional<Bytes> mWaitingJob;
    std::optional<Bytes> mExpectedJob;
    std::size_t mJobCount = 0; ///< jobs done, without empty ones
    bool mIsWhole = true;      ///< nothing of the connection was lost
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::Input input(data, size);
    Work(input).play();
    return 0;
}
