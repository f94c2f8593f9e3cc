#include "tests/unit/workerRecordFixture.h"

#include <type_traits>

namespace {

using nq::nqProcess;
using nq::nqSchedulerWorker;
using support::Lines;

static_assert(!std::is_copy_constructible_v<nqSchedulerWorker>);
static_assert(!std::is_copy_assignable_v<nqSchedulerWorker>);
static_assert(std::has_virtual_destructor_v<nqSchedulerWorker>);
static_assert(std::is_nothrow_destructible_v<nqSchedulerWorker>);
static_assert(sizeof(nqSchedulerWorker) == 2 * sizeof(void*), "one table and one pointer");

using WorkerRecord = support::WorkerRecordFixture;

TEST_F(WorkerRecord, isReadyAndNotFinishedWhenFresh)
{
    EXPECT_TRUE(worker->isReadyForJob());
    EXPECT_FALSE(worker->hasFinished());
}

TEST_F(WorkerRecord, givesOutThePipeAndTheProcessItOwns)
{
    auto ownPipe = std::make_unique<nq::nqNamedPipe>();
    auto ownProcess = std::make_unique<nqProcess>();
    const nq::nqNamedPipe* const expectedPipe = ownPipe.get();
    const nqProcess* const expectedProcess = ownProcess.get();
    const nqSchedulerWorker record(std::move(ownPipe), std::move(ownProcess), &queues);
    EXPECT_EQ(record.pipe(), expectedPipe);
    EXPECT_EQ(record.process(), expectedProcess);
}

TEST_F(WorkerRecord, asksForThePidOnceAndForAll)
{
    makeWorker(machine.planProcess());
    dispatch();
    process->pid = 1;
    die();
    step();
    EXPECT_EQ(machine.messages(), Lines{"Job failed error (1) Unexpected crash (PID 4243)"});
    EXPECT_EQ(machine.count("process 4243: getPid()"), 0);
}

TEST_F(WorkerRecord, hasNoLimitsUntilTheyAreSet)
{
    dispatch();
    process->ramInUse = ~std::uint64_t{0};
    stepAfter(std::chrono::hours{1000});
    answer("result");
    step();
    EXPECT_EQ(results(), Lines{"result"});
    EXPECT_EQ(process->ramReads, 0);
    EXPECT_EQ(kills(), 0);
    EXPECT_FALSE(worker->hasFinished());
}

TEST_F(WorkerRecord, closesItsPipeAndWaitsWithoutLimitWhenDestroyed)
{
    worker.reset();
    EXPECT_EQ(
        machine.calls,
        (Lines{
            "pipe 1: closeNamedPipe()",
            "pipe 1: destroyed",
            "process 4242: waitForFinished(4294967295)",
            "process 4242: destroyed"}));
}

TEST_F(WorkerRecord, neverKillsWhenDestroyedThoughTheWorkerIgnoresItsClosedPipe)
{
    process->endsWhenWaitedFor = false;
    worker.reset();
    EXPECT_EQ(kills(), 0);
    EXPECT_EQ(machine.count("process 4242: waitForFinished(4294967295)"), 1);
}

TEST_F(WorkerRecord, closesItsPipeOnRequest)
{
    worker->closePipe();
    EXPECT_EQ(machine.calls, (Lines{"pipe 1: closeNamedPipe()", "pipe 1: destroyed"}));
    EXPECT_EQ(worker->pipe(), nullptr);
    EXPECT_NE(worker->process(), nullptr);
    EXPECT_FALSE(worker->hasFinished());
}

TEST_F(WorkerRecord, doesNothingMoreWhenItsPipeIsClosedAgain)
{
    worker->closePipe();
    forgetCalls();
    worker->closePipe();
    EXPECT_EQ(machine.calls, Lines{});
    worker.reset();
    EXPECT_EQ(
        machine.calls,
        (Lines{"process 4242: waitForFinished(4294967295)", "process 4242: destroyed"}));
}

TEST_F(WorkerRecord, staysReadyAndSendsNothingWithoutQueues)
{
    auto& script = machine.planPipe();
    auto ownProcess = std::make_unique<nqProcess>();
    ownProcess->startProcess("", {}, false, nqProcess::InheritedPriority);
    nqSchedulerWorker record(std::make_unique<nq::nqNamedPipe>(), std::move(ownProcess), nullptr);
    record.setMaxCapMemoryAfterProcessingAJob(1);
    script.arrivals = {support::frame("nobody asked")};
    for (int i = 0; i < 3; ++i) {
        record.superviseStep();
        EXPECT_TRUE(record.isReadyForJob());
        EXPECT_FALSE(record.hasFinished());
    }
    EXPECT_TRUE(script.outgoing.empty());
    EXPECT_TRUE(script.passedOn.empty());
}

TEST_F(WorkerRecord, isOverWithoutAWordAboutItsJobOnceItsPipeIsClosed)
{
    dispatch();
    worker->closePipe();
    die();
    step();
    EXPECT_TRUE(worker->hasFinished());
    worker.reset();
    EXPECT_TRUE(machine.logged.empty());
    EXPECT_EQ(queues.failCount(), 0U);
    EXPECT_EQ(queues.jobCount(), 1U);
}

} // namespace
