#include "include/nqWorker.h"
#include "tests/common/refusedMemory.h"
#include "tests/unit/workerRecordFixture.h"

#include <functional>
#include <string>
#include <utility>

// Payloads that are sent from, and received into, their own memory, whatever their size.

namespace {

using common::RefusedMemory;
using support::Bytes;
using support::bytes;
using support::frame;
using support::header;
using support::Lines;

using support::operator+; // NOLINT(misc-unused-using-decls): the check overlooks operators

void useOwnMemory(scripted::Pipe& pipe)
{
    pipe.smallestLoan = 1;
    pipe.smallestRange = 1;
}

/// A record on a pipe that copies nothing.
class JobInItsOwnMemory : public support::WorkerRecordFixture {
protected:
    JobInItsOwnMemory()
    {
        useOwnMemory(*pipe);
    }

    void arrive(const Bytes& piece)
    {
        pipe->arrivals.push_back(piece);
    }
};

TEST_F(JobInItsOwnMemory, isSentFromThere)
{
    dispatch("job");
    EXPECT_EQ(pipe->outgoing, header(3));
    EXPECT_EQ(pipe->lentSize, 3U);
    step();
    EXPECT_EQ(pipe->passedOn, frame("job"));
}

TEST_F(JobInItsOwnMemory, isLentNoFurtherThanThePipeHasRoom)
{
    pipe->outgoingLimit = 6;
    pipe->passedOnPerCall = 4;
    dispatch("0123456789");
    while (pipe->unsentBytes() != 0) {
        EXPECT_LE(pipe->unsentBytes(), 6U);
        step();
    }
    EXPECT_EQ(pipe->passedOn, frame("0123456789"));
}

TEST_F(JobInItsOwnMemory, leavesToTheLastByteThoughItsWorkerHasAnswered)
{
    pipe->passedOnPerCall = 5;
    dispatch("a job of some length");
    answer("early");
    step();
    EXPECT_EQ(results(), Lines{"early"});
    queues.clearPendingJobs();
    queues.spareMemory().keep(Bytes(20, '-')); // what takes old memory would find it here
    while (pipe->unsentBytes() != 0)
        step();
    EXPECT_EQ(pipe->passedOn, frame("a job of some length"));
}

TEST_F(JobInItsOwnMemory, isFollowedByTheNextOnlyWhenItHasLeft)
{
    pipe->passedOnPerCall = 5;
    dispatch("a job of some length");
    answer("early");
    queues.push(bytes("next"));
    step();
    EXPECT_TRUE(worker->isReadyForJob());
    EXPECT_EQ(queues.pendingJobCount(), 1U);
    while (worker->isReadyForJob())
        step();
    pipe->passedOnPerCall = 100;
    step();
    EXPECT_EQ(pipe->passedOn, frame("a job of some length") + frame("next"));
}

TEST_F(JobInItsOwnMemory, becomesSpareMemoryOnceItHasLeft)
{
    pipe->passedOnPerCall = 5;
    dispatch("a job of some length");
    answer("early");
    step();
    ASSERT_NE(pipe->unsentBytes(), 0U);
    queues.spareMemory().release();
    pipe->passedOnPerCall = 100;
    step();
    EXPECT_GE(queues.spareMemory().bytes(), 20U);
}

TEST_F(JobInItsOwnMemory, isHandedBackWithoutFreshMemoryForItsBytes)
{
    if (!RefusedMemory::isPossible())
        GTEST_SKIP() << "this tool has its own allocator";
    constexpr std::size_t large = std::size_t{1} << 20;
    pipe->passedOnPerCall = 5;
    dispatch(std::string(large, 'j'));
    step();
    pipe->isReadChannelClosed = true;
    process->state = nq::nqProcess::Ended;
    {
        const RefusedMemory refused(large / 2);
        step();
    }
    EXPECT_EQ(support::failures(queues).at(0).job.size(), large);
}

TEST_F(JobInItsOwnMemory, isHandedBackWholeWhenItFailsHalfSent)
{
    pipe->passedOnPerCall = 5;
    dispatch("a job of some length");
    step();
    die();
    step();
    EXPECT_EQ(support::failures(queues).at(0).job, "a job of some length");
}

class ResultInItsOwnMemory : public JobInItsOwnMemory {};

TEST_F(ResultInItsOwnMemory, isReceivedThere)
{
    dispatch();
    arrive(header(6) + bytes("re"));
    step();
    EXPECT_EQ(pipe->rangeSize, 4U);
    arrive(bytes("su"));
    step();
    EXPECT_EQ(pipe->rangeSize, 2U);
    arrive(bytes("lt"));
    step();
    EXPECT_EQ(results(), Lines{"result"});
    EXPECT_TRUE(worker->isReadyForJob());
}

TEST_F(ResultInItsOwnMemory, isWholeInTheStepThatBringsItsFirstBytesIfTheRestIsThere)
{
    pipe->fillsAtOnce = true;
    dispatch();
    arrive(header(6) + bytes("re"));
    arrive(bytes("sult") + frame("unasked"));
    step();
    EXPECT_EQ(results(), Lines{"result"});
    EXPECT_EQ(pipe->incoming, frame("unasked"));
}

TEST_F(ResultInItsOwnMemory, leavesWhatFollowsItUnread)
{
    dispatch();
    arrive(header(6) + bytes("re"));
    arrive(bytes("sult") + frame("unasked"));
    step();
    step();
    EXPECT_EQ(results(), Lines{"result"});
    EXPECT_EQ(pipe->incoming, frame("unasked"));
}

TEST_F(ResultInItsOwnMemory, ofAWorkerThatAnswersAndDiesIsDelivered)
{
    dispatch();
    arrive(header(6) + bytes("re"));
    step();
    arrive(bytes("sult"));
    pipe->endsWhenDrained = true;
    process->state = nq::nqProcess::Ended;
    step();
    EXPECT_EQ(results(), Lines{"result"});
    EXPECT_EQ(queues.failCount(), 0U);
    EXPECT_TRUE(worker->hasFinished());
}

TEST_F(ResultInItsOwnMemory, isNotReadBehindAClosedReadChannel)
{
    dispatch();
    arrive(header(6) + bytes("re"));
    step();
    arrive(bytes("sult"));
    pipe->onEvents = [](scripted::Pipe& one) { one.isReadChannelClosed = true; };
    process->state = nq::nqProcess::Ended;
    step();
    EXPECT_EQ(queues.resultCount(), 0U);
    EXPECT_EQ(queues.failCount(), 1U);
}

/// Answers with what the test says.
class Answering : public nq::nqWorker {
public:
    using nqWorker::nqWorker;

    Lines jobs;
    std::function<std::string(const std::string&)> work = [](const std::string& job) {
        return job;
    };

    void processJob(Bytes& job, Bytes& result) override
    {
        jobs.emplace_back(job.begin(), job.end());
        result = bytes(work(jobs.back()));
    }
};

class PayloadOfAWorker : public testing::Test {
protected:
    scripted::Machine machine;
    scripted::Pipe* pipe = &machine.planPipe();
    Answering worker{"the pipe"};

    PayloadOfAWorker()
    {
        useOwnMemory(*pipe);
    }

    void step()
    {
        worker.processWorker(0);
    }
    void arrive(const Bytes& piece)
    {
        pipe->arrivals.push_back(piece);
    }
};

TEST_F(PayloadOfAWorker, isReceivedAndSentInItsOwnMemory)
{
    arrive(header(6) + bytes("re"));
    step();
    EXPECT_EQ(pipe->rangeSize, 4U);
    arrive(bytes("sult"));
    step();
    EXPECT_EQ(worker.jobs, Lines{"result"});
    EXPECT_EQ(pipe->outgoing, header(6));
    EXPECT_EQ(pipe->lentSize, 6U);
    step();
    EXPECT_EQ(pipe->passedOn, frame("result"));
    EXPECT_FALSE(worker.isSending());
}

TEST_F(PayloadOfAWorker, staysUntilItsLastByteHasLeft)
{
    pipe->passedOnPerCall = 3;
    arrive(frame("some rather long result"));
    step();
    arrive(frame("the next job, which waits")); // in memory of its own
    while (pipe->unsentBytes() != 0) {
        EXPECT_TRUE(worker.isSending());
        step();
    }
    EXPECT_EQ(pipe->passedOn, frame("some rather long result"));
}

TEST_F(PayloadOfAWorker, isSentInOrderWhenTheNextResultIsMadeBeforeItHasLeft)
{
    pipe->passedOnPerCall = 3;
    arrive(frame("first result"));
    step();
    worker.work = [](const std::string&) { return "second"; };
    worker.onProcess();
    pipe->passedOnPerCall = 100;
    step();
    step();
    EXPECT_EQ(pipe->passedOn, frame("first result") + frame("second"));
}

TEST_F(PayloadOfAWorker, thatIsProcessedBeforeItIsWholeLeavesTheRestToTheNextFrame)
{
    arrive(header(6) + bytes("ne"));
    step();
    pipe->onEvents = [this](scripted::Pipe& one) {
        one.onEvents = nullptr;
        worker.onProcess(); // the pipe has just put "wj" where the job's memory was
    };
    arrive(bytes("wj"));
    step();
    EXPECT_EQ(worker.jobs, (Lines{std::string("ne\0\0\0\0", 6)}));
    EXPECT_EQ(pipe->untaken(), bytes("wj"));
}

TEST_F(PayloadOfAWorker, isDroppedWithItsPipe)
{
    pipe->passedOnPerCall = 3;
    arrive(frame("some rather long result"));
    step();
    pipe->lose();
    step();
    EXPECT_TRUE(worker.hasFinished());
    EXPECT_FALSE(worker.isSending());
}

} // namespace
