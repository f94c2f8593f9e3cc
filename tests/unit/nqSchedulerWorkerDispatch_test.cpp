#include "tests/unit/workerRecordFixture.h"

#include <limits>

namespace {

using support::Bytes;
using support::bytes;
using support::Entry;
using support::frame;
using support::header;
using support::Lines;

using support::operator+; // NOLINT(misc-unused-using-decls): the check overlooks operators

class WorkerDispatch : public support::WorkerRecordFixture {
protected:
    /// Takes one job through the worker.
    void completeAJob()
    {
        dispatch();
        answer("result");
        step();
    }
};

TEST_F(WorkerDispatch, writesTheOldestPendingJobAsOneFrame)
{
    queues.push(bytes("first"));
    queues.push(bytes("second"));
    step();
    EXPECT_EQ(pipe->outgoing, frame("first"));
    EXPECT_FALSE(worker->isReadyForJob());
    EXPECT_EQ(queues.pendingJobCount(), 1U);
    EXPECT_EQ(queues.jobCount(), 2U);
}

TEST_F(WorkerDispatch, sendsJobBytesOfEveryValueUnchanged)
{
    std::string job;
    for (int value = 255; value >= 0; --value)
        job += static_cast<char>(value);
    dispatch(job);
    EXPECT_EQ(pipe->outgoing, frame(job));
}

TEST_F(WorkerDispatch, writesNothingWhenNoJobIsPending)
{
    step();
    EXPECT_TRUE(pipe->outgoing.empty());
    EXPECT_TRUE(worker->isReadyForJob());
}

TEST_F(WorkerDispatch, writesAJobOnlyOnce)
{
    dispatch();
    for (int i = 0; i < 3; ++i)
        step();
    EXPECT_EQ(pipe->passedOn, frame("job"));
    EXPECT_TRUE(pipe->outgoing.empty());
}

TEST_F(WorkerDispatch, holdsOneJobAtATime)
{
    dispatch("a");
    queues.push(bytes("b"));
    step();
    step();
    EXPECT_EQ(pipe->passedOn, frame("a"));
    EXPECT_EQ(queues.pendingJobCount(), 1U);
}

TEST_F(WorkerDispatch, takesTheNextJobInTheStepThatCompletesTheOneBefore)
{
    dispatch("a");
    queues.push(bytes("b"));
    step();
    answer("A");
    step();
    EXPECT_EQ(results(), Lines{"A"});
    EXPECT_EQ(pipe->outgoing, frame("b"));
    EXPECT_FALSE(worker->isReadyForJob());
}

TEST_F(WorkerDispatch, takesNoJobUntilEverythingBeforeItHasLeftTheBuffer)
{
    pipe->outgoing = bytes("rest");
    pipe->passedOnPerCall = 3;
    queues.push(bytes("job"));
    step();
    EXPECT_EQ(pipe->outgoing, bytes("t"));
    EXPECT_TRUE(worker->isReadyForJob());
    EXPECT_EQ(queues.pendingJobCount(), 1U);
    step();
    EXPECT_EQ(pipe->outgoing, frame("job"));
}

TEST_F(WorkerDispatch, givesAKilledWorkerNoJobThoughItIsReady)
{
    worker->setMaxCapMemory(100);
    process->ramInUse = 101;
    process->endsWhenKilled = false;
    step();
    ASSERT_EQ(kills(), 1);
    process->ramInUse = 1;
    queues.push(bytes("job"));
    step();
    step();
    EXPECT_TRUE(worker->isReadyForJob());
    EXPECT_EQ(queues.pendingJobCount(), 1U);
    EXPECT_TRUE(pipe->outgoing.empty());
}

TEST_F(WorkerDispatch, dropsAnEmptyJobThatStaysCountedForEverOnPurpose)
{
    queues.push({});
    step();
    EXPECT_TRUE(worker->isReadyForJob());
    EXPECT_TRUE(pipe->outgoing.empty());
    EXPECT_EQ(machine.count("timer: start()"), 0);
    for (int i = 0; i < 3; ++i)
        step();
    die();
    step();
    EXPECT_EQ(queues.pendingJobCount(), 0U);
    EXPECT_EQ(queues.jobCount(), 1U);
    EXPECT_EQ(queues.resultCount(), 0U);
    EXPECT_EQ(queues.failCount(), 0U);
    EXPECT_TRUE(machine.logged.empty());
}

TEST_F(WorkerDispatch, takesOneJobPerStepSoThatTheJobBehindAnEmptyOneWaits)
{
    queues.push({});
    queues.push(bytes("job"));
    step();
    EXPECT_EQ(queues.pendingJobCount(), 1U);
    EXPECT_TRUE(pipe->outgoing.empty());
    step();
    EXPECT_EQ(pipe->outgoing, frame("job"));
}

TEST_F(WorkerDispatch, streamsAJobThatIsLargerThanTheBufferABufferfulPerStep)
{
    pipe->outgoingLimit = 10;
    const std::string job = "0123456789abcdefghijklmno";
    dispatch(job);
    EXPECT_EQ(pipe->outgoing, header(25) + bytes("012345"));
    step();
    EXPECT_EQ(pipe->outgoing, bytes("6789abcdef"));
    step();
    EXPECT_EQ(pipe->outgoing, bytes("ghijklmno"));
    step();
    EXPECT_TRUE(pipe->outgoing.empty());
    step();
    EXPECT_EQ(pipe->passedOn, frame(job));
}

TEST_F(WorkerDispatch, fillsTheBufferToItsLimitAndNoFurther)
{
    pipe->outgoingLimit = 8;
    pipe->passedOnPerCall = 3;
    dispatch("abcdefgh");
    EXPECT_EQ(pipe->outgoing, header(8) + bytes("abcd"));
    step();
    EXPECT_EQ(pipe->outgoing.size(), 8U);
    step();
    EXPECT_EQ(pipe->outgoing.size(), 6U);
    for (int i = 0; i < 5; ++i)
        step();
    EXPECT_EQ(pipe->passedOn, frame("abcdefgh"));
}

TEST_F(WorkerDispatch, sendsNothingMoreWhenTheJobJustFitted)
{
    pipe->outgoingLimit = 7;
    dispatch("job");
    EXPECT_EQ(pipe->outgoing, frame("job"));
    step();
    EXPECT_TRUE(pipe->outgoing.empty());
}

TEST_F(WorkerDispatch, appendsNothingWhileTheBufferIsFull)
{
    pipe->outgoingLimit = 6;
    dispatch("abcdef");
    pipe->passedOnPerCall = 0;
    step();
    EXPECT_EQ(pipe->outgoing, header(6) + bytes("ab"));
}

TEST_F(WorkerDispatch, cutsTheHeaderForGoodWhenTheBufferLimitIsBelowFourOnPurpose)
{
    pipe->outgoingLimit = 3;
    dispatch("abcd");
    const Bytes whole = header(4);
    const Bytes cut(whole.begin(), whole.begin() + 3);
    EXPECT_EQ(pipe->outgoing, cut);
    for (int i = 0; i < 3; ++i)
        step();
    EXPECT_EQ(pipe->passedOn, cut + bytes("abcd"));
}

TEST_F(WorkerDispatch, writesAWholeHeaderAndNoPayloadWhenTheBufferLimitIsFour)
{
    pipe->outgoingLimit = 4;
    dispatch("abcd");
    EXPECT_EQ(pipe->outgoing, header(4));
    step();
    EXPECT_EQ(pipe->outgoing, bytes("abcd"));
}

TEST_F(WorkerDispatch, neverWritesAHeaderAgainThatAClosedWriteChannelHasSwallowedOnPurpose)
{
    pipe->isWriteChannelClosed = true;
    dispatch();
    EXPECT_TRUE(pipe->outgoing.empty());
    step();
    EXPECT_TRUE(pipe->outgoing.empty());
    EXPECT_FALSE(worker->hasFinished());
    pipe->isWriteChannelClosed = false;
    step();
    EXPECT_EQ(pipe->outgoing, bytes("job"));
}

TEST_F(WorkerDispatch, keepsItsPlaceInAJobWhileTheWriteChannelIsClosed)
{
    pipe->outgoingLimit = 6;
    dispatch("abcdef");
    pipe->isWriteChannelClosed = true;
    step();
    step();
    pipe->isWriteChannelClosed = false;
    for (int i = 0; i < 3; ++i)
        step();
    EXPECT_EQ(pipe->passedOn, frame("abcdef"));
}

TEST_F(WorkerDispatch, startsEveryJobFromItsFirstByte)
{
    pipe->outgoingLimit = 10;
    for (const char* job : {"a longer job than fits", "short", "another longer job"}) {
        pipe->passedOn.clear();
        dispatch(job);
        for (int i = 0; i < 4; ++i)
            step();
        EXPECT_EQ(pipe->passedOn, frame(job));
        answer("done");
        step();
    }
    EXPECT_EQ(queues.resultCount(), 3U);
}

TEST_F(WorkerDispatch, neverReadsTheMemoryWhenThereIsNoCapAfterAJob)
{
    completeAJob();
    EXPECT_EQ(results(), Lines{"result"});
    EXPECT_EQ(process->ramReads, 0);
}

TEST_F(WorkerDispatch, readsTheMemoryOnlyInTheStepThatCompletesAJob)
{
    worker->setMaxCapMemoryAfterProcessingAJob(100);
    step();
    dispatch();
    step();
    EXPECT_EQ(process->ramReads, 0);
    answer("result");
    step();
    EXPECT_EQ(process->ramReads, 1);
    step();
    EXPECT_EQ(process->ramReads, 1);
}

TEST_F(WorkerDispatch, neverMeasuresAWorkerThatGrowsWhileIdleAgainstTheCapAfterAJob)
{
    worker->setMaxCapMemoryAfterProcessingAJob(100);
    completeAJob();
    process->ramInUse = 1000;
    step();
    EXPECT_FALSE(worker->hasFinished());
}

TEST_F(WorkerDispatch, keepsAWorkerThatIsExactlyAtTheCapAfterAJob)
{
    worker->setMaxCapMemoryAfterProcessingAJob(100);
    process->ramInUse = 100;
    completeAJob();
    EXPECT_FALSE(worker->hasFinished());
    dispatch("next");
}

TEST_F(WorkerDispatch, takesTheNextJobInTheStepThatFindsTheWorkerWithinTheCapAfterAJob)
{
    worker->setMaxCapMemoryAfterProcessingAJob(100);
    process->ramInUse = 100;
    dispatch();
    queues.push(bytes("next"));
    answer("result");
    step();
    EXPECT_FALSE(worker->isReadyForJob());
    EXPECT_EQ(queues.pendingJobCount(), 0U);
}

TEST_F(WorkerDispatch, neverMeasuresAnIdleWorkerThatSendsBytesAgainstTheCapAfterAJob)
{
    worker->setMaxCapMemoryAfterProcessingAJob(100);
    process->ramInUse = 1000;
    answer("unasked");
    step();
    EXPECT_EQ(process->ramReads, 0);
    EXPECT_FALSE(worker->hasFinished());
}

TEST_F(WorkerDispatch, restartsAWorkerThatIsOneByteAboveTheCapAfterAJob)
{
    worker->setMaxCapMemoryAfterProcessingAJob(100);
    process->ramInUse = 101;
    completeAJob();
    EXPECT_TRUE(worker->hasFinished());
    EXPECT_EQ(worker->pipe(), nullptr);
    EXPECT_EQ(results(), Lines{"result"});
    EXPECT_EQ(queues.failCount(), 0U);
    EXPECT_EQ(queues.jobCount(), 0U);
}

TEST_F(WorkerDispatch, neitherKillsNorAwaitsTheWorkerThatItRestarts)
{
    const std::string report = "restarting scheduler worker : using too much RAM after job "
                               "processing (1.5GB) (no job lost) (PID 4242)";
    worker->setMaxCapMemoryAfterProcessingAJob(100);
    process->ramInUse = 1610612736;
    dispatch();
    answer("result");
    forgetCalls();
    step();
    EXPECT_EQ(
        machine.calls,
        (Lines{
            "pipe 1: processNamedPipeEvents(0, false)",
            "pipe 1: closeNamedPipe()",
            "pipe 1: destroyed",
            "entry: computeLogPrefix(true)",
            "log: " + report}));
}

TEST_F(WorkerDispatch, reportsARestartAtLevelZeroWithPlainNumbers)
{
    const support::GroupingGlobalLocale locale;
    auto& plan = machine.planProcess();
    plan.pid = 4194304;
    makeWorker(plan);
    worker->setMaxCapMemoryAfterProcessingAJob(1);
    process->ramInUse = 1023;
    completeAJob();
    EXPECT_EQ(
        support::entries(machine),
        (std::vector<Entry>{
            {0,
             false,
             "restarting scheduler worker : using too much RAM after job processing (1023B) (no "
             "job lost) (PID 4194304)"}}));
}

TEST_F(WorkerDispatch, reportsARestartWithAnUnsignedPid)
{
    auto& plan = machine.planProcess();
    plan.pid = -1;
    makeWorker(plan);
    worker->setMaxCapMemoryAfterProcessingAJob(1);
    process->ramInUse = 2;
    completeAJob();
    EXPECT_EQ(
        machine.messages(),
        Lines{"restarting scheduler worker : using too much RAM after job processing (2B) (no job "
              "lost) (PID 18446744073709551615)"});
}

TEST_F(WorkerDispatch, takesNoFurtherJobWhenItRestarts)
{
    worker->setMaxCapMemoryAfterProcessingAJob(100);
    process->ramInUse = 101;
    dispatch("a");
    queues.push(bytes("b"));
    answer("A");
    step();
    EXPECT_EQ(queues.pendingJobCount(), 1U);
    EXPECT_EQ(queues.jobCount(), 1U);
}

TEST_F(WorkerDispatch, checksTheMemoryAfterAJobThoughOldBytesAreStillInTheBuffer)
{
    worker->setMaxCapMemoryAfterProcessingAJob(100);
    process->ramInUse = 101;
    pipe->passedOnPerCall = 0;
    completeAJob();
    EXPECT_TRUE(worker->hasFinished());
}

TEST_F(WorkerDispatch, servesTheLargestCapAfterAJob)
{
    worker->setMaxCapMemoryAfterProcessingAJob(std::numeric_limits<std::uint64_t>::max());
    process->ramInUse = std::numeric_limits<std::uint64_t>::max();
    completeAJob();
    EXPECT_FALSE(worker->hasFinished());
}

} // namespace
