#include "tests/unit/workerRecordFixture.h"

namespace {

using nq::nqProcess;
using nq::nqScheduler;
using support::Bytes;
using support::bytes;
using support::Entry;
using support::Failure;
using support::failures;
using support::frame;
using support::header;
using support::Lines;

using support::operator+; // NOLINT(misc-unused-using-decls): the check overlooks operators

class WorkerReception : public support::WorkerRecordFixture {
protected:
    const std::vector<Failure> unexpectedCrash{
        {"job", nqScheduler::UnexpectedCrash, "Unexpected crash"}};

    void arrive(const Bytes& chunk)
    {
        pipe->arrivals.push_back(chunk);
    }
};

TEST_F(WorkerReception, deliversAResultThatArrivesAtOnce)
{
    dispatch();
    answer("result");
    step();
    EXPECT_EQ(results(), Lines{"result"});
    EXPECT_TRUE(worker->isReadyForJob());
    EXPECT_FALSE(worker->hasFinished());
    EXPECT_EQ(queues.jobCount(), 0U);
    EXPECT_TRUE(pipe->incoming.empty());
    EXPECT_TRUE(machine.logged.empty());
}

TEST_F(WorkerReception, deliversAResultThatArrivesByteByByte)
{
    dispatch();
    for (const char byte : frame("result"))
        arrive({byte});
    for (int i = 0; i < 9; ++i)
        step();
    EXPECT_EQ(queues.resultCount(), 0U);
    EXPECT_FALSE(worker->isReadyForJob());
    step();
    EXPECT_EQ(results(), Lines{"result"});
    EXPECT_TRUE(worker->isReadyForJob());
}

TEST_F(WorkerReception, leavesAHeaderThatIsNotWholeInTheBuffer)
{
    dispatch();
    const Bytes whole = header(2);
    arrive({whole[0], whole[1], whole[2]});
    step();
    EXPECT_EQ(pipe->incoming, (Bytes{whole[0], whole[1], whole[2]}));
    arrive({whole[3], 'O'});
    step();
    EXPECT_TRUE(pipe->incoming.empty());
    arrive(bytes("K"));
    step();
    EXPECT_EQ(results(), Lines{"OK"});
}

TEST_F(WorkerReception, deliversAResultOfAnyBytes)
{
    std::string result;
    for (int value = 0; value < 256; ++value)
        result += static_cast<char>(value);
    dispatch();
    answer(result);
    step();
    EXPECT_EQ(results(), Lines{result});
}

TEST_F(WorkerReception, leavesTheBytesOfTheNextFrameForALaterCall)
{
    dispatch("a");
    arrive(frame("A") + frame("B"));
    step();
    EXPECT_EQ(results(), Lines{"A"});
    EXPECT_EQ(pipe->incoming, frame("B"));

    dispatch("b");
    EXPECT_EQ(pipe->incoming, frame("B"));
    step();
    EXPECT_EQ(results(), Lines{"B"});
}

TEST_F(WorkerReception, neverConsumesBytesWhileNoJobIsInFlight)
{
    arrive(frame("nobody asked"));
    step();
    step();
    EXPECT_EQ(pipe->incoming, frame("nobody asked"));
    EXPECT_EQ(queues.resultCount(), 0U);
    EXPECT_EQ(queues.jobCount(), 0U);
    EXPECT_FALSE(worker->hasFinished());
}

TEST_F(WorkerReception, neverCompletesAJobWithAnEmptyResultOnPurpose)
{
    dispatch();
    answer("");
    step();
    EXPECT_TRUE(pipe->incoming.empty());
    EXPECT_FALSE(worker->isReadyForJob());
    EXPECT_EQ(queues.resultCount(), 0U);
    EXPECT_EQ(queues.jobCount(), 1U);

    die();
    step();
    EXPECT_EQ(failures(queues), unexpectedCrash);
}

TEST_F(WorkerReception, takesTheNextNonEmptyFrameAsTheResultAfterAnEmptyOne)
{
    dispatch();
    arrive(frame("") + frame("result"));
    step();
    EXPECT_EQ(pipe->incoming, frame("result"));
    step();
    EXPECT_EQ(results(), Lines{"result"});
    EXPECT_TRUE(worker->isReadyForJob());
}

TEST_F(WorkerReception, failsTheJobOfAWorkerThatCrashed)
{
    dispatch();
    die();
    step();
    EXPECT_EQ(
        support::entries(machine),
        (std::vector<Entry>{{0, false, "Job failed error (1) Unexpected crash (PID 4242)"}}));
    EXPECT_EQ(failures(queues), unexpectedCrash);
    EXPECT_TRUE(worker->hasFinished());
    EXPECT_TRUE(worker->isReadyForJob());
    EXPECT_EQ(queues.jobCount(), 0U);
    EXPECT_EQ(kills(), 0);
}

TEST_F(WorkerReception, handsAFailedJobBackWithAllItsBytesHoweverManyWereSent)
{
    pipe->outgoingLimit = 6;
    dispatch("0123456789");
    step();
    die();
    step();
    EXPECT_EQ(failures(queues).at(0).job, "0123456789");

    makeWorker(machine.planProcess());
    dispatch("0123456789");
    step();
    step();
    ASSERT_EQ(pipe->passedOn, frame("0123456789"));
    die();
    step();
    EXPECT_EQ(failures(queues).at(0).job, "0123456789");
}

TEST_F(WorkerReception, logsAFailureBeforeItIsQueued)
{
    dispatch();
    die();
    unsigned long queuedAtLogging = 99;
    logger.onWrite = [&] { queuedAtLogging = queues.failCount(); };
    step();
    EXPECT_EQ(queuedAtLogging, 0U);
    EXPECT_EQ(queues.failCount(), 1U);
}

TEST_F(WorkerReception, failsAJobThoughItsReportIsDisabled)
{
    logger.setLevelEnabled(0, false);
    dispatch();
    die();
    step();
    EXPECT_TRUE(machine.logged.empty());
    EXPECT_EQ(failures(queues), unexpectedCrash);
}

TEST_F(WorkerReception, reportsAFailureWithAPlainPidInAHostThatGroupsDigits)
{
    const support::GroupingGlobalLocale locale;
    auto& plan = machine.planProcess();
    plan.pid = 4194304;
    makeWorker(plan);
    dispatch();
    die();
    step();
    EXPECT_EQ(machine.messages(), Lines{"Job failed error (1) Unexpected crash (PID 4194304)"});
}

TEST_F(WorkerReception, reportsAFailureWithAnUnsignedPid)
{
    auto& plan = machine.planProcess();
    plan.pid = -1;
    makeWorker(plan);
    dispatch();
    die();
    step();
    EXPECT_EQ(
        machine.messages(),
        Lines{"Job failed error (1) Unexpected crash (PID 18446744073709551615)"});
}

TEST_F(WorkerReception, endsAnIdleWorkerThatIsLostInSilence)
{
    die();
    step();
    EXPECT_TRUE(worker->hasFinished());
    EXPECT_TRUE(machine.logged.empty());
    EXPECT_EQ(queues.failCount(), 0U);
    EXPECT_EQ(queues.jobCount(), 0U);
}

TEST_F(WorkerReception, failsTheJobWhoseResultWasNotWhole)
{
    dispatch();
    arrive(header(6) + bytes("resul"));
    step();
    die();
    step();
    EXPECT_EQ(failures(queues), unexpectedCrash);
    EXPECT_EQ(queues.resultCount(), 0U);
}

TEST_F(WorkerReception, deliversTheResultOfAWorkerThatIsFoundLostInTheSameStep)
{
    dispatch();
    answer("last words");
    pipe->endsWhenDrained = true;
    pipe->incoming = header(10); // keeps the end hidden until the result is taken
    pipe->arrivals = {bytes("last words")};
    process->state = nqProcess::Ended;
    step();
    EXPECT_EQ(results(), Lines{"last words"});
    EXPECT_EQ(queues.failCount(), 0U);
    EXPECT_TRUE(worker->hasFinished());
    EXPECT_TRUE(machine.logged.empty());
}

TEST_F(WorkerReception, doesNotReadWhatWaitsBehindAClosedReadChannelOnPurpose)
{
    dispatch();
    pipe->incoming = frame("too late");
    pipe->isReadChannelClosed = true;
    process->state = nqProcess::Ended;
    step();
    EXPECT_EQ(pipe->incoming, frame("too late"));
    EXPECT_EQ(queues.resultCount(), 0U);
    EXPECT_EQ(failures(queues), unexpectedCrash);
}

TEST_F(WorkerReception, readsNothingFromAPipeThatIsNotConnected)
{
    dispatch();
    pipe->isConnected = false;
    pipe->incoming = frame("unheard");
    step();
    EXPECT_EQ(pipe->incoming, frame("unheard"));
    EXPECT_EQ(failures(queues), unexpectedCrash);
}

TEST_F(WorkerReception, failsEachJobWithItsOwnReasonAfterAGoodOne)
{
    dispatch("good");
    answer("result");
    step();
    dispatch("job");
    die();
    step();
    EXPECT_EQ(failures(queues), unexpectedCrash);
    EXPECT_EQ(results(), Lines{"result"});
}

TEST_F(WorkerReception, startsEveryResultFromItsFirstByte)
{
    for (const char* result : {"a rather long result", "r", "another"}) {
        dispatch();
        const Bytes whole = frame(result);
        arrive({whole.begin(), whole.begin() + 5});
        arrive({whole.begin() + 5, whole.end()});
        step();
        step();
        EXPECT_EQ(results(), Lines{result});
    }
}

} // namespace
