#include "include/nqWorker.h"
#include "tests/common/refusedMemory.h"
#include "tests/unit/schedulerFixture.h"
#include "tests/unit/workerRecordFixture.h"

#include <new>
#include <optional>
#include <stdexcept>

using common::RefusedMemory;
using namespace support;

namespace {

// What fails in these tests is the platform, which may run out of memory inside any call.
void throwOnce(scripted::Pipe& pipe)
{
    pipe.onEvents = nullptr;
    throw std::bad_alloc();
}

struct PumpWithoutMemory : SchedulerFixture {};

TEST_F(PumpWithoutMemory, givesTheOtherWorkersTheirTurnAndPassesTheExceptionOn)
{
    start(2);
    scheduler->push(bytes("first"));
    scheduler->push(bytes("second"));
    scheduler->processScheduler(0);
    pipe(0).onEvents = throwOnce;
    answer(1, "result");
    EXPECT_THROW(scheduler->processScheduler(0), std::bad_alloc);
    EXPECT_EQ(results(), Lines{"result"});
}

TEST_F(PumpWithoutMemory, passesTheFirstOfSeveralExceptionsOn)
{
    start(2);
    pipe(0).onEvents = throwOnce;
    pipe(1).onEvents = [](scripted::Pipe&) { throw std::logic_error("a later one"); };
    EXPECT_THROW(scheduler->processScheduler(0), std::bad_alloc);
    pipe(1).onEvents = nullptr;
}

TEST_F(PumpWithoutMemory, replacesTheWorkersThatEndedInTheSamePass)
{
    start(2);
    die(0);
    pipe(1).onEvents = throwOnce;
    EXPECT_THROW(scheduler->processScheduler(0), std::bad_alloc);
    EXPECT_EQ(machine.processes.size(), 3U) << "two at the start and one replacement";
}

TEST_F(PumpWithoutMemory, doesNotSleepBeforeItPassesTheExceptionOn)
{
    start(2);
    pipe(0).onEvents = throwOnce;
    EXPECT_THROW(scheduler->processScheduler(1000), std::bad_alloc);
    EXPECT_TRUE(machine.selects.empty());
}

TEST(WorkerWithoutMemory, sendsNothingOfAResultWhoseHeaderFoundNoRoom)
{
    class Refused : public nq::nqWorker {
    public:
        using nqWorker::nqWorker;
        std::optional<RefusedMemory> refused;
        void processJob(Bytes& job, Bytes& result) override
        {
            result.swap(job);
            refused.emplace(1);
        }
    };
    if (!RefusedMemory::isPossible())
        GTEST_SKIP() << "this tool has its own allocator";
    scripted::Machine machine;
    scripted::Pipe& pipe = machine.planPipe();
    Refused worker("the pipe");
    pipe.arrivals.push_back(frame("job"));
    EXPECT_THROW(worker.processWorker(0), std::bad_alloc);
    worker.refused.reset();
    worker.processWorker(0);
    worker.processWorker(0);
    EXPECT_TRUE(pipe.passedOn.empty());
    EXPECT_FALSE(pipe.isConnected);
}

struct RecordWithoutMemory : WorkerRecordFixture {
    static constexpr std::size_t large = 1U << 16;
    static constexpr std::size_t largerThanAFailure = 256; // and smaller than a line of the log

    /// In the next step, memory is refused once the platform has been asked this, and no sooner: it
    /// needs some itself to write down what it is asked.
    void expectNoMemoryAfter(const std::string& question, std::size_t refusedBytes)
    {
        std::optional<RefusedMemory> refused;
        machine.onQuery = [&](const std::string& line) {
            if (line == question)
                refused.emplace(refusedBytes);
        };
        EXPECT_THROW(step(), std::bad_alloc);
        EXPECT_TRUE(refused.has_value());
        machine.onQuery = nullptr;
    }

    /// The record's last question before it takes a job is whether the worker is lost.
    void expectNoMemoryForTheNextJob(std::size_t refusedBytes)
    {
        expectNoMemoryAfter(pipe->name + ": isConnected()", refusedBytes);
        EXPECT_TRUE(worker->isReadyForJob());
        EXPECT_EQ(queues.pendingJobCount(), 1U);
    }

    /// The worker is not killed, and if it ends, its job fails as after any crash.
    void expectNoVerdict()
    {
        EXPECT_EQ(kills(), 0);
        die();
        step();
        EXPECT_EQ(
            failures(queues),
            std::vector<Failure>({{"job", nq::nqScheduler::UnexpectedCrash, "Unexpected crash"}}));
    }
};

TEST_F(RecordWithoutMemory, handsALargeFailedJobBackWithoutMemoryForACopy)
{
    if (!RefusedMemory::isPossible())
        GTEST_SKIP() << "this tool has its own allocator";
    dispatch(std::string(large, 'x'));
    die();
    {
        const RefusedMemory refused(large);
        step();
    }
    EXPECT_TRUE(worker->hasFinished());
    EXPECT_EQ(queues.jobCount(), 0U);
    EXPECT_EQ(queues.failCount(), 1U);
}

TEST_F(RecordWithoutMemory, handsAFailedJobBackThoughItsLineInTheLogIsLost)
{
    if (!RefusedMemory::isPossible())
        GTEST_SKIP() << "this tool has its own allocator";
    dispatch("job");
    die();
    {
        const RefusedMemory refused(largerThanAFailure);
        EXPECT_THROW(step(), std::bad_alloc);
    }
    EXPECT_TRUE(worker->hasFinished());
    EXPECT_EQ(queues.jobCount(), 0U);
    EXPECT_EQ(queues.failCount(), 1U);
}

TEST_F(RecordWithoutMemory, judgesTheTimeAgainWhenTheTextOfAVerdictHasNoRoom)
{
    if (!RefusedMemory::isPossible())
        GTEST_SKIP() << "this tool has its own allocator";
    constexpr std::size_t smallerThanAVerdict = 37; // and larger than the trace of a question
    std::optional<RefusedMemory> refused;
    worker->setJobProcessTimeout(1);
    dispatch();
    machine.advance(std::chrono::hours{1});
    machine.trace.reserve(100);
    pipe->onEvents = [&](scripted::Pipe&) { refused.emplace(smallerThanAVerdict); };
    EXPECT_THROW(step(), std::bad_alloc);
    pipe->onEvents = nullptr;
    refused.reset();
    worker->setJobProcessTimeout(0);
    expectNoVerdict();
}

TEST_F(RecordWithoutMemory, judgesTheMemoryAgainWhenTheTextOfAVerdictHasNoRoom)
{
    if (!RefusedMemory::isPossible())
        GTEST_SKIP() << "this tool has its own allocator";
    worker->setMaxCapMemory(1);
    dispatch();
    process->ramInUse = 2;
    expectNoMemoryAfter(process->name + ": getCurrentRamInUse()", 1);
    worker->setMaxCapMemory(0);
    expectNoVerdict();
}

/// A record whose worker has died, and whose memory is refused from its line in the log on.
struct FailureWithoutMemory : RecordWithoutMemory {
    std::optional<RefusedMemory> refused;

    void SetUp() override
    {
        if (!RefusedMemory::isPossible())
            GTEST_SKIP() << "this tool has its own allocator";
        logger.onWrite = [this] { refused.emplace(1); };
        dispatch();
        die();
        EXPECT_THROW(step(), std::bad_alloc);
        refused.reset();
    }

    void stepWithoutMemory()
    {
        const RefusedMemory still(1);
        EXPECT_THROW(step(), std::bad_alloc);
    }
};

TEST_F(FailureWithoutMemory, keepsTheJobInItsRecord)
{
    EXPECT_FALSE(worker->hasFinished());
    EXPECT_FALSE(worker->isReadyForJob());
    EXPECT_EQ(queues.failCount(), 0U);
}

TEST_F(FailureWithoutMemory, isTriedAgainUntilThereIsSome)
{
    for (int attempt = 0; attempt < 3; ++attempt) {
        stepWithoutMemory();
        ASSERT_FALSE(worker->hasFinished());
        ASSERT_EQ(queues.failCount(), 0U);
    }
    step();
    EXPECT_TRUE(worker->hasFinished());
    EXPECT_EQ(
        failures(queues),
        std::vector<Failure>({{"job", nq::nqScheduler::UnexpectedCrash, "Unexpected crash"}}));
}

TEST_F(FailureWithoutMemory, countsItsJobDownOnce)
{
    EXPECT_EQ(queues.jobCount(), 0U);
    stepWithoutMemory();
    EXPECT_EQ(queues.jobCount(), 0U);
    step();
    EXPECT_EQ(queues.jobCount(), 0U);
}

TEST_F(FailureWithoutMemory, isLoggedOnce)
{
    stepWithoutMemory();
    step();
    EXPECT_EQ(machine.messages(), Lines{"Job failed error (1) Unexpected crash (PID 4242)"});
}

TEST_F(FailureWithoutMemory, keepsItsReasonThoughLimitsArePassedMeanwhile)
{
    worker->setMaxCapMemory(1);
    worker->setJobProcessTimeout(1);
    process->ramInUse = 2;
    machine.advance(std::chrono::hours{1});
    step();
    ASSERT_EQ(queues.failCount(), 1U);
    EXPECT_EQ(failures(queues)[0].reason, nq::nqScheduler::UnexpectedCrash);
    EXPECT_EQ(process->ramReads, 0);
    EXPECT_EQ(kills(), 0);
}

/// A started scheduler whose only worker died over a job whose failure could not be stored.
struct SchedulerWithAnOwedFailure : SchedulerFixture {
    std::optional<RefusedMemory> refused;

    void SetUp() override
    {
        if (!RefusedMemory::isPossible())
            GTEST_SKIP() << "this tool has its own allocator";
        start(1);
        scheduler->push(bytes("job"));
        scheduler->processScheduler(0);
        die(0);
        logger.onWrite = [this] { refused.emplace(1); };
        EXPECT_THROW(scheduler->processScheduler(0), std::bad_alloc);
        refused.reset();
        logger.onWrite = nullptr;
    }

    void expectTheFailure()
    {
        EXPECT_EQ(
            failures(*scheduler),
            std::vector<Failure>({{"job", nq::nqScheduler::UnexpectedCrash, "Unexpected crash"}}));
    }
};

TEST_F(SchedulerWithAnOwedFailure, replacesTheWorkerOnceItIsStored)
{
    EXPECT_EQ(machine.processes.size(), 1U);
    scheduler->processScheduler(0);
    EXPECT_EQ(machine.processes.size(), 2U);
    expectTheFailure();
}

TEST_F(SchedulerWithAnOwedFailure, hasItAfterAWaitForTheLastJob)
{
    scheduler->waitForFinished();
    expectTheFailure();
}

TEST_F(SchedulerWithAnOwedFailure, hasItAfterAStop)
{
    EXPECT_TRUE(scheduler->stopScheduler());
    expectTheFailure();
}

TEST_F(SchedulerWithAnOwedFailure, isNotStoppedWhileThereIsNoMemoryForIt)
{
    forgetCalls();
    {
        const RefusedMemory still(1);
        EXPECT_THROW(scheduler->stopScheduler(), std::bad_alloc);
    }
    EXPECT_EQ(machine.calls, Lines{});
    EXPECT_FALSE(scheduler->setMaxCapMemory(1)) << "refused, since it is still started";
    EXPECT_TRUE(scheduler->stopScheduler());
    expectTheFailure();
}

TEST_F(RecordWithoutMemory, leavesTheJobInTheQueueWhenTheTextOfItsFailureHasNoRoom)
{
    if (!RefusedMemory::isPossible())
        GTEST_SKIP() << "this tool has its own allocator";
    queues.push(bytes("job"));
    expectNoMemoryForTheNextJob(16); // the text is longer, a header is not
    step();
    step();
    EXPECT_EQ(pipe->passedOn, frame("job"));
}

TEST_F(RecordWithoutMemory, leavesTheJobInTheQueueWhenItsHeaderHasNoRoom)
{
    if (!RefusedMemory::isPossible())
        GTEST_SKIP() << "this tool has its own allocator";
    dispatch("the first one leaves room for the text of a failure");
    step();
    answer("result");
    step();
    ASSERT_EQ(queues.resultCount(), 1U);
    queues.push(bytes("job"));
    pipe->outgoing.shrink_to_fit();
    pipe->passedOn.clear();
    expectNoMemoryForTheNextJob(1);
    step();
    step();
    EXPECT_EQ(pipe->passedOn, frame("job"));
}

} // namespace
