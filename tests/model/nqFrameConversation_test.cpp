#include "tests/common/failure.h"
#include "tests/common/frame.h"
#include "tests/common/random.h"
#include "tests/model/rounds.h"
#include "tests/scripted/scriptedMachine.h"

#include "include/nqWorker.h"
#include "scheduler/nqJobQueues.h"
#include "supervision/nqSchedulerWorker.h"
#include "system/nqLog.h"
#include "system/nqNamedPipe.h"
#include "system/nqProcess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

using common::append;
using common::Bytes;
using common::Random;

constexpr std::uint64_t usualRounds = 300;
constexpr int stepsPerRound = 800;
/// Far more turns than the longest job of these rounds takes through the narrowest pipe.
constexpr int endlessTurnCount = 200'000;

/// What the hook makes of a job: of another length, never empty, and different for each job.
Bytes answerTo(const Bytes& job)
{
    Bytes answer(job.rbegin(), job.rend());
    if (answer.size() % 3 == 0)
        append(answer, job);
    answer.push_back('!');
    if (answer.size() % 5 == 0)
        answer.resize(1 + answer.size() / 5);
    return answer;
}

class AnsweringWorker : public nq::nqWorker {
public:
    using nqWorker::nqWorker;

    std::vector<Bytes> jobs;

    void processJob(Bytes& job, Bytes& result) override
    {
        jobs.push_back(job);
        result = answerTo(job);
        job.clear();
    }
};

/// One direction of the connection: what has left one end and not yet reached the other.
class Wire {
public:
    void carry(scripted::Pipe& from, scripted::Pipe& to, std::size_t most)
    {
        append(mSeen, from.passedOn);
        append(mUnderway, from.passedOn);
        from.passedOn.clear();
        const std::size_t count = std::min(most, mUnderway.size());
        if (count == 0)
            return;
        to.arrivals.push_back(common::takeFront(mUnderway, count));
        mCarried += count;
    }

    /// What came from its start since the last time.
    Bytes takeSeen()
    {
        return std::exchange(mSeen, {});
    }
    std::size_t carried() const
    {
        return mCarried;
    }

private:
    Bytes mSeen;
    Bytes mUnderway;
    std::size_t mCarried = 0;
};

/// Worker and record on the two ends of one connection.
struct Connection {
    scripted::Pipe* recordPipe;
    scripted::Pipe* workerPipe;
    scripted::Process* process;
    std::unique_ptr<nq::nqSchedulerWorker> record;
    std::unique_ptr<AnsweringWorker> worker;
    Wire toWorker;
    Wire toRecord;
    Bytes expectedToWorker; ///< of the frames of the jobs that the record took, what is yet to come
    Bytes expectedToRecord; ///< of the frames of their answers, what is yet to come
    std::size_t answerBytes = 0; ///< of all frames of answers
    std::size_t dispatched = 0;
};

/// Connections one after the other on the same queues; each ends by a cut.
class ConversationRound {
public:
    ConversationRound(Random& random, model::Seen& seen)
        : mRandom(random),
          mSeen(seen),
          mIsNarrow(random.percent(50)),
          mLargestJob(
              mIsNarrow ? random.pick<std::size_t>({1, 8, 40})
                        : random.pick<std::size_t>({1, 40, 300, 20'000})),
          mCutPermille(random.pick<std::uint64_t>({0, 2, 10}))
    {
        nq::nqLog::msInstance = &mLogger;
        connect();
    }

    std::string step()
    {
        mMachine.calls.clear();
        mMachine.trace.clear();
        mMachine.logged.clear();
        const std::uint64_t what = mRandom.below(1000);
        if (what < mCutPermille)
            cut();
        else if (what < 120)
            push();
        else if (what < 350)
            stepRecord();
        else if (what < 580)
            stepWorker();
        else if (what < 600)
            changeFlow();
        else if (what < 800)
            carryToWorker(pieceSize());
        else
            carryToRecord(pieceSize());
        check();
        return mDifference.str();
    }

    /// Everything that is left comes through once nothing is held back.
    std::string end()
    {
        mDid = "end";
        for (int turn = 0; !mUnresolved.empty() && mDifference.str().empty(); ++turn) {
            mConnection.recordPipe->passedOnPerCall = ~std::uint64_t{0};
            mConnection.workerPipe->passedOnPerCall = ~std::uint64_t{0};
            stepRecord();
            carryToWorker(~std::size_t{0});
            stepWorker();
            carryToRecord(~std::size_t{0});
            check();
            if (turn == endlessTurnCount)
                mDifference << "\n  " << mUnresolved.size() << " jobs are stuck";
        }
        if (mDifference.str().empty())
            expect(mQueues.allJobsDone(), "no job is left");
        cut();
        check();
        return mDifference.str();
    }

    std::string whatItDid() const
    {
        return mDid;
    }

private:
    void connect()
    {
        scripted::Process& process = mMachine.planProcess();
        process.state = nq::nqProcess::Running;
        scripted::Pipe& recordPipe = mMachine.planPipe();
        scripted::Pipe& workerPipe = mMachine.planPipe();
        // Below four bytes headers are cut on purpose, and no conversation is possible.
        const auto limit = [this] {
            return mIsNarrow ? mRandom.pick<std::uint64_t>({4, 5, 6, 7, 9})
                             : mRandom.pick<std::uint64_t>({16, 64, 4096, 1 << 20});
        };
        recordPipe.outgoingLimit = limit();
        workerPipe.outgoingLimit = limit();
        for (scripted::Pipe* one : {&recordPipe, &workerPipe}) {
            one->smallestLoan = mRandom.pick<std::size_t>({1, 3, 1 << 20});
            one->smallestRange = mRandom.pick<std::size_t>({1, 3, 1 << 20});
            one->fillsAtOnce = mRandom.percent(50);
        }
        auto pipe = std::make_unique<nq::nqNamedPipe>();
        mConnection = Connection{};
        mConnection.process = &process;
        mConnection.recordPipe = &recordPipe;
        mConnection.workerPipe = &workerPipe;
        mConnection.record = std::make_unique<nq::nqSchedulerWorker>(
            std::move(pipe), std::make_unique<nq::nqProcess>(), &mQueues);
        mConnection.worker = std::make_unique<AnsweringWorker>("pipe");
        changeFlow();
    }

    void push()
    {
        mDid = "push";
        if (mUnresolved.size() > 20)
            return;
        Bytes job(1 + mRandom.index(mLargestJob));
        for (char& byte : job)
            byte = static_cast<char>(mRandom.below(256));
        const std::uint32_t number = ++mJobNumber;
        job.resize(job.size() + sizeof number);
        std::memcpy(job.data() + job.size() - sizeof number, &number, sizeof number);
        mQueues.push(job);
        mUnresolved.push_back(job);
    }

    void stepRecord()
    {
        mDid = "step of the record";
        const bool wasReady = mConnection.record->isReadyForJob();
        const auto results = mQueues.resultCount();
        mConnection.record->superviseStep();
        const bool tookResult = mQueues.resultCount() != results;
        if ((wasReady || tookResult) && !mConnection.record->isReadyForJob())
            expectFrames(mUnresolved.at(tookResult ? 1 : 0));
    }

    /// The record has taken `job`.
    void expectFrames(const Bytes& job)
    {
        append(mConnection.expectedToWorker, common::frame(job));
        const auto before = mConnection.expectedToRecord.size();
        append(mConnection.expectedToRecord, common::frame(answerTo(job)));
        mConnection.answerBytes += mConnection.expectedToRecord.size() - before;
        ++mConnection.dispatched;
    }

    void stepWorker()
    {
        mDid = "step of the worker";
        const auto before = mConnection.worker->jobs.size();
        mConnection.worker->processWorker(0);
        const auto& jobs = mConnection.worker->jobs;
        expect(jobs.size() <= before + 1, "one step runs the hook at most once");
        expect(jobs.size() <= mConnection.dispatched, "the hook runs once for each job");
        if (jobs.size() > before)
            expect(!mUnresolved.empty() && jobs.back() == mUnresolved.front(), "the hook's job");
        expect(!mConnection.worker->hasFinished(), "the worker goes on");
    }

    void changeFlow()
    {
        mDid = "change of the flow";
        const auto flow = [this] {
            return mRandom.percent(60) ? ~std::uint64_t{0}
                                       : mRandom.pick<std::uint64_t>({0, 1, 3, 5, 100});
        };
        mConnection.recordPipe->passedOnPerCall = flow();
        mConnection.workerPipe->passedOnPerCall = flow();
    }

    std::size_t pieceSize()
    {
        return mRandom.percent(60) ? ~std::size_t{0}
                                   : 1 + mRandom.index(mRandom.pick<std::size_t>({1, 6, 500}));
    }

    void carryToWorker(std::size_t most)
    {
        mDid = "bytes to the worker";
        mConnection.toWorker.carry(*mConnection.recordPipe, *mConnection.workerPipe, most);
    }

    void carryToRecord(std::size_t most)
    {
        mDid = "bytes to the record";
        mConnection.toRecord.carry(*mConnection.workerPipe, *mConnection.recordPipe, most);
    }

    /// The worker is gone. Its job is a result if all its bytes were there, else a failure.
    void cut()
    {
        mDid = "cut";
        scripted::Pipe& pipe = *mConnection.recordPipe;
        Bytes rest;
        for (const Bytes& piece : pipe.arrivals)
            append(rest, piece);
        pipe.arrivals = {rest};
        pipe.endsWhenDrained = true;
        pipe.isWriteChannelClosed = true;
        pipe.dropUnsent();
        mConnection.process->state = nq::nqProcess::Ended;

        const bool isBusy = !mConnection.record->isReadyForJob();
        const bool isWhole = isBusy && mConnection.toRecord.carried() == mConnection.answerBytes;
        const auto failures = mQueues.failCount();
        const auto results = mQueues.resultCount();
        mConnection.record->superviseStep();
        if (!mConnection.record->hasFinished()) {
            // Part of a header is left, which nobody takes: the platform closes such a pipe.
            pipe.lose();
            mConnection.record->superviseStep();
        }
        expect(mConnection.record->hasFinished(), "the cut ends the record");
        expect((mQueues.resultCount() == results + 1) == isWhole, "a whole result is delivered");
        expect(
            (mQueues.failCount() == failures + 1) == (isBusy && !isWhole),
            "a cut result is a failure");
        ++mSeen[!isBusy ? "cut while idle" : isWhole ? "cut behind a result" : "cut within a job"];

        check(); // before the connection is replaced
        mConnection.workerPipe->lose();
        mConnection.worker->processWorker(0);
        expect(mConnection.worker->hasFinished(), "the cut ends the worker");
        mConnection.record.reset();
        mConnection.worker.reset();
        connect();
        mDid = "cut";
    }

    void check()
    {
        Connection& one = mConnection;
        expect(one.recordPipe->unsentBytes() <= one.recordPipe->outgoingLimit, "limit of jobs");
        expect(one.workerPipe->unsentBytes() <= one.workerPipe->outgoingLimit, "limit of results");
        expectFront(one.toWorker.takeSeen(), one.expectedToWorker, "bytes to the worker");
        expectFront(one.toRecord.takeSeen(), one.expectedToRecord, "bytes to the record");
        takeResults();
        takeFailures();
        expect(mQueues.jobCount() == mUnresolved.size(), "every job is counted");
    }

    void takeResults()
    {
        Bytes result;
        while (mQueues.pop(result)) {
            expect(
                !mUnresolved.empty() && result == answerTo(mUnresolved.front()),
                "the oldest job's answer");
            resolve("result");
        }
    }

    void takeFailures()
    {
        for (const common::Failure& failure : common::failures(mQueues)) {
            expect(
                !mUnresolved.empty() && failure.job == common::text(mUnresolved.front()),
                "the oldest job's failure");
            resolve("failure");
        }
    }

    void resolve(const char* how)
    {
        ++mSeen[how];
        if (!mUnresolved.empty())
            mUnresolved.pop_front();
    }

    /// Takes `bytes` off the front of `expected`.
    void expectFront(const Bytes& bytes, Bytes& expected, const char* what)
    {
        const bool isRight = bytes.size() <= expected.size() &&
                             std::equal(bytes.begin(), bytes.end(), expected.begin());
        expect(isRight, what);
        if (isRight)
            common::eraseFront(expected, bytes.size());
    }

    void expect(bool isTrue, const char* what)
    {
        if (!isTrue)
            mDifference << "\n  not so: " << what;
    }

    Random& mRandom;
    model::Seen& mSeen;
    bool mIsNarrow;
    std::size_t mLargestJob;
    std::uint64_t mCutPermille;
    scripted::Machine mMachine;
    nq::nqLog mLogger;
    nq::nqJobQueues mQueues;
    Connection mConnection;
    std::deque<Bytes> mUnresolved; ///< in the order of pushing, which is the order of ending
    std::uint32_t mJobNumber = 0;
    std::ostringstream mDifference;
    std::string mDid;
};

TEST(FrameConversation, deliversEveryPayloadIntactOnceAndInOrder)
{
    model::playRounds<ConversationRound>(
        usualRounds,
        stepsPerRound,
        {"result", "failure", "cut while idle", "cut behind a result", "cut within a job"});
}

} // namespace
