#include "include/nqWorker.h"

#include "tests/unit/testSupport.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <type_traits>

namespace {

using support::Bytes;
using support::bytes;
using support::frame;
using support::header;
using support::Lines;

using support::operator+; // NOLINT(misc-unused-using-decls): the check overlooks operators

static_assert(!std::is_copy_constructible_v<nq::nqWorker>);
static_assert(!std::is_copy_assignable_v<nq::nqWorker>);
static_assert(std::is_abstract_v<nq::nqWorker>);
static_assert(std::has_virtual_destructor_v<nq::nqWorker>);
static_assert(std::is_nothrow_destructible_v<nq::nqWorker>);
static_assert(sizeof(nq::nqWorker) == 2 * sizeof(void*), "one table and one pointer, for ever");

/// The place of a virtual operation in its class's table. A pointer to it holds the offset in
/// bytes, with a mark for "virtual": one more on x86-64, where aarch64 has the mark in the second
/// half.
template <typename Operation>
std::ptrdiff_t slotOf(Operation operation)
{
    std::ptrdiff_t raw[2];
    static_assert(sizeof raw == sizeof operation);
    std::memcpy(raw, &operation, sizeof raw);
    return raw[0] / static_cast<std::ptrdiff_t>(sizeof(void*));
}

/// Answers with whatever the test says and remembers the jobs.
class TestWorker : public nq::nqWorker {
public:
    explicit TestWorker(const std::string& name)
        : nqWorker(name)
    {
    }

    Lines jobs;
    std::function<Bytes(const Bytes&)> work = [](const Bytes& job) { return job; };
    bool resultWasEmptyAtCall = true;
    int endsOfWork = 0;
    bool finishesAtTheEnd = true;
    bool throwsAfterItsWork = false;

    void processJob(Bytes& job, Bytes& result) override
    {
        resultWasEmptyAtCall = resultWasEmptyAtCall && result.empty();
        jobs.emplace_back(job.begin(), job.end());
        result = work(job);
        if (throwsAfterItsWork)
            throw std::runtime_error("bad job");
    }

    void endOfWork() override
    {
        ++endsOfWork;
        if (finishesAtTheEnd)
            nqWorker::endOfWork();
    }
};

class Worker : public testing::Test {
protected:
    scripted::Machine machine;
    scripted::Pipe* pipe = &machine.planPipe();
    TestWorker worker{"the pipe"};

    void step()
    {
        worker.processWorker(0);
    }
    void arrive(const Bytes& chunk)
    {
        pipe->arrivals.push_back(chunk);
    }
    void arriveByteByByte(const Bytes& chunk)
    {
        for (const char byte : chunk)
            arrive({byte});
    }
};

TEST(WorkerTable, hasItsHooksBehindTheTwoDestructors)
{
    EXPECT_EQ(slotOf(&nq::nqWorker::processJob), 2);
    EXPECT_EQ(slotOf(&nq::nqWorker::endOfWork), 3);
}

TEST_F(Worker, connectsToItsSchedulerWhenItIsMade)
{
    EXPECT_EQ(machine.calls, Lines{"pipe 1: connectToNamedPipeServerUtf8(the pipe)"});
    EXPECT_EQ(worker.schedulerUtf8(), "the pipe");
    EXPECT_FALSE(worker.hasFinished());
}

TEST_F(Worker, waitsForItsPipeInEveryStepForAsLongAsItIsTold)
{
    machine.calls.clear();
    for (const int timeout : {250, 0, -1})
        worker.processWorker(timeout);
    EXPECT_EQ(
        machine.calls,
        (Lines{
            "pipe 1: processNamedPipeEvents(250, true)",
            "pipe 1: processNamedPipeEvents(0, true)",
            "pipe 1: processNamedPipeEvents(-1, true)"}));
    EXPECT_FALSE(worker.hasFinished());
}

TEST_F(Worker, runsAJobAndHandsItsResultOverInTheSameStep)
{
    worker.work = [](const Bytes& job) { return job + bytes("!"); };
    arrive(frame("job"));
    step();
    EXPECT_EQ(worker.jobs, Lines{"job"});
    EXPECT_EQ(pipe->outgoing, frame("job!"));
    step();
    EXPECT_EQ(pipe->passedOn, frame("job!"));
    EXPECT_EQ(worker.jobs, Lines{"job"});
}

TEST_F(Worker, runsAJobOnceInTheStepThatCompletesIt)
{
    const Bytes job = frame("job");
    arriveByteByByte(job);
    for (std::size_t i = 0; i + 1 < job.size(); ++i)
        step();
    EXPECT_TRUE(worker.jobs.empty());
    step();
    EXPECT_EQ(worker.jobs, Lines{"job"});
    for (int i = 0; i < 3; ++i)
        step();
    EXPECT_EQ(worker.jobs, Lines{"job"});
}

TEST_F(Worker, givesEveryJobAnEmptyResultToFill)
{
    for (const char* job : {"a", "b", "c"}) {
        arrive(frame(job));
        step();
        step();
    }
    EXPECT_EQ(worker.jobs, (Lines{"a", "b", "c"}));
    EXPECT_TRUE(worker.resultWasEmptyAtCall);
    EXPECT_EQ(pipe->passedOn, frame("a") + frame("b") + frame("c"));
}

TEST_F(Worker, letsItsHookConsumeTheJob)
{
    class Consumer : public nq::nqWorker {
    public:
        using nqWorker::nqWorker;
        void processJob(Bytes& job, Bytes& result) override
        {
            result = std::move(job);
        }
    };
    pipe = &machine.planPipe();
    Consumer consumer("another pipe");
    arrive(frame("first"));
    consumer.processWorker(0);
    arrive(frame("second"));
    consumer.processWorker(0);
    consumer.processWorker(0);
    EXPECT_EQ(pipe->passedOn, frame("first") + frame("second"));
}

TEST_F(Worker, answersWithAFrameOfLengthZeroWhenItsHookLeavesTheResultEmptyOnPurpose)
{
    worker.work = [](const Bytes&) { return Bytes{}; };
    arrive(frame("job"));
    step();
    EXPECT_EQ(pipe->outgoing, header(0));
    arrive(frame("next"));
    step();
    EXPECT_EQ(worker.jobs, (Lines{"job", "next"}));
}

TEST_F(Worker, ignoresAnEmptyJob)
{
    arrive(frame(""));
    step();
    EXPECT_TRUE(worker.jobs.empty());
    EXPECT_TRUE(pipe->incoming.empty());
    EXPECT_TRUE(pipe->outgoing.empty());
}

TEST_F(Worker, handsALargeResultOverABufferfulPerStep)
{
    pipe->outgoingLimit = 10;
    worker.work = [](const Bytes&) { return bytes("0123456789abcdefghijklmno"); };
    arrive(frame("job"));
    step();
    EXPECT_EQ(pipe->outgoing, header(25) + bytes("012345"));
    step();
    EXPECT_EQ(pipe->outgoing, bytes("6789abcdef"));
    step();
    EXPECT_EQ(pipe->outgoing, bytes("ghijklmno"));
    step();
    EXPECT_TRUE(pipe->outgoing.empty());
    EXPECT_EQ(pipe->passedOn, frame("0123456789abcdefghijklmno"));
}

TEST_F(Worker, readsNoJobWhileItsResultIsNotHandedOver)
{
    pipe->outgoingLimit = 10;
    worker.work = [](const Bytes&) { return bytes("0123456789"); };
    arrive(frame("job"));
    step();
    pipe->passedOnPerCall = 0;
    arrive(frame("next"));
    step();
    EXPECT_EQ(pipe->incoming, frame("next"));
    EXPECT_EQ(worker.jobs, Lines{"job"});
}

TEST_F(Worker, runsItsHookOnAnEmptyJobWhenBytesArriveWhileAResultIsPartlyUnsentOnPurpose)
{
    pipe->outgoingLimit = 10;
    worker.work = [](const Bytes& job) { return job.empty() ? bytes("odd") : bytes("0123456789"); };
    arrive(frame("job"));
    step();
    ASSERT_EQ(pipe->outgoing, header(10) + bytes("012345"));

    arrive(frame("early"));
    step();
    EXPECT_EQ(worker.jobs, (Lines{"job", ""}));
    EXPECT_TRUE(worker.resultWasEmptyAtCall);
    EXPECT_EQ(pipe->passedOn, header(10) + bytes("012345"));
    EXPECT_EQ(pipe->outgoing, frame("odd")); // the rest of the first result is dropped
    EXPECT_EQ(pipe->incoming, frame("early"));
}

TEST_F(Worker, keepsAWholeJobUntilTheBufferHasDrainedAndMoreBytesArrive)
{
    arrive(frame("first"));
    step();
    pipe->passedOnPerCall = 0;
    arrive(frame("second"));
    step();
    EXPECT_EQ(worker.jobs, Lines{"first"});
    EXPECT_TRUE(pipe->incoming.empty());

    pipe->passedOnPerCall = 100;
    step();
    EXPECT_EQ(worker.jobs, Lines{"first"});

    arrive(frame("third"));
    step();
    EXPECT_EQ(worker.jobs, (Lines{"first", "second"}));
    EXPECT_EQ(pipe->incoming, frame("third"));
}

TEST_F(Worker, takesOneJobPerStep)
{
    arrive(frame("a") + frame("b"));
    step();
    EXPECT_EQ(worker.jobs, Lines{"a"});
    EXPECT_EQ(pipe->incoming, frame("b"));
    step();
    EXPECT_EQ(worker.jobs, (Lines{"a", "b"}));
}

TEST_F(Worker, cutsTheHeaderOfItsResultWhenTheBufferLimitIsBelowFourOnPurpose)
{
    pipe->outgoingLimit = 2;
    arrive(frame("job"));
    step();
    EXPECT_EQ(pipe->outgoing, (Bytes{3, 0}));
    for (int i = 0; i < 3; ++i)
        step();
    EXPECT_EQ(pipe->passedOn, (Bytes{3, 0, 'j', 'o', 'b'}));
}

TEST_F(Worker, finishesWhenItsReadChannelIsClosed)
{
    pipe->isReadChannelClosed = true;
    step();
    EXPECT_TRUE(worker.hasFinished());
}

TEST_F(Worker, finishesWhenItIsNotConnected)
{
    pipe->isConnected = false;
    step();
    EXPECT_TRUE(worker.hasFinished());
}

TEST_F(Worker, goesOnWhenOnlyItsWriteChannelIsClosed)
{
    pipe->isWriteChannelClosed = true;
    arrive(frame("job"));
    step();
    EXPECT_FALSE(worker.hasFinished());
    EXPECT_TRUE(pipe->outgoing.empty());
}

TEST_F(Worker, finishesInItsFirstStepWhenItCouldNotConnect)
{
    machine.planPipe().connects = false;
    TestWorker lonely("nobody");
    EXPECT_FALSE(lonely.hasFinished());
    lonely.processWorker(1000);
    EXPECT_TRUE(lonely.hasFinished());
}

TEST_F(Worker, isToldOfTheEndInEveryStepAfterThePipeHasClosed)
{
    pipe->lose();
    for (int i = 0; i < 3; ++i)
        step();
    EXPECT_EQ(worker.endsOfWork, 3);
}

TEST_F(Worker, doesNotFinishWhenItsOverrideOfTheEndDoesNot)
{
    worker.finishesAtTheEnd = false;
    pipe->lose();
    step();
    EXPECT_FALSE(worker.hasFinished());
}

TEST_F(Worker, runsTheLastJobBeforeItIsToldOfTheEnd)
{
    pipe->endsWhenDrained = true;
    pipe->incoming = frame("last");
    step();
    EXPECT_EQ(worker.jobs, Lines{"last"});
    EXPECT_EQ(worker.endsOfWork, 1);
}

TEST_F(Worker, canBeFinishedAndUnfinishedByHand)
{
    worker.setFinished(true);
    EXPECT_TRUE(worker.hasFinished());
    step();
    EXPECT_TRUE(worker.hasFinished());
    worker.setFinished(false);
    EXPECT_FALSE(worker.hasFinished());
    EXPECT_EQ(worker.endsOfWork, 0);
}

TEST_F(Worker, isSendingUntilTheLastByteOfItsResultHasLeft)
{
    pipe->outgoingLimit = 10;
    worker.work = [](const Bytes&) { return bytes("0123456789"); };
    EXPECT_FALSE(worker.isSending());
    arrive(frame("job"));
    step();
    EXPECT_TRUE(worker.isSending()) << "a slice has not been handed to the pipe";
    step();
    ASSERT_FALSE(pipe->outgoing.empty());
    EXPECT_TRUE(worker.isSending()) << "a slice has not left the pipe";
    step();
    EXPECT_FALSE(worker.isSending());
    EXPECT_EQ(pipe->passedOn, frame("0123456789"));
}

TEST_F(Worker, isNotSendingWhileAJobComesIn)
{
    arrive(header(3) + bytes("jo"));
    step();
    EXPECT_FALSE(worker.isSending());
}

TEST_F(Worker, isNotSendingWhatNobodyCanReceiveAnyMore)
{
    pipe->outgoingLimit = 10;
    worker.work = [](const Bytes&) { return bytes("0123456789"); };
    arrive(frame("job"));
    step();
    ASSERT_TRUE(worker.isSending());
    pipe->isWriteChannelClosed = true;
    EXPECT_FALSE(worker.isSending());
    pipe->isWriteChannelClosed = false;
    pipe->lose();
    EXPECT_FALSE(worker.isSending());
}

TEST_F(Worker, leavesWithItsWholeResultWhenItFinishesInItsHook)
{
    pipe->outgoingLimit = 10;
    worker.work = [this](const Bytes&) {
        worker.setFinished(true);
        return bytes("0123456789abcdefghijklmno");
    };
    arrive(frame("job"));
    while (!worker.hasFinished() || worker.isSending())
        step();
    EXPECT_EQ(pipe->passedOn, frame("0123456789abcdefghijklmno"));
}

TEST_F(Worker, staysFinishedUntilItIsUnfinishedByHand)
{
    pipe->isConnected = false;
    step();
    pipe->isConnected = true;
    step();
    EXPECT_TRUE(worker.hasFinished());
}

TEST_F(Worker, finishesByItselfUnlessTheEndOfWorkIsOverridden)
{
    class Plain : public nq::nqWorker {
    public:
        using nqWorker::nqWorker;
        void processJob(Bytes&, Bytes&) override {}
    };
    auto& script = machine.planPipe();
    Plain plain("another pipe");
    script.lose();
    plain.processWorker(0);
    EXPECT_TRUE(plain.hasFinished());
}

TEST_F(Worker, letsAnExceptionOfItsHookThrough)
{
    worker.work = [](const Bytes&) -> Bytes { throw std::runtime_error("bad job"); };
    arrive(frame("job"));
    EXPECT_THROW(step(), std::runtime_error);
}

TEST_F(Worker, givesItsJobUpWhenItsHookThrows)
{
    worker.work = [](const Bytes&) -> Bytes { throw std::runtime_error("bad job"); };
    arrive(frame("job") + frame("next"));
    EXPECT_THROW(step(), std::runtime_error);
    step();
    EXPECT_FALSE(pipe->isConnected);
    EXPECT_TRUE(pipe->passedOn.empty());
    EXPECT_EQ(worker.jobs, Lines{"job"});
    EXPECT_EQ(worker.endsOfWork, 1);
    EXPECT_TRUE(worker.hasFinished());
}

/// A worker whose hook has put something into its result and thrown.
struct WorkerWhoseHookHasThrown : Worker {
    WorkerWhoseHookHasThrown()
    {
        worker.throwsAfterItsWork = true;
        arrive(frame("job") + frame("next"));
        EXPECT_THROW(step(), std::runtime_error);
    }

    void expectNothingOfItLeaves()
    {
        EXPECT_FALSE(pipe->isConnected);
        step();
        EXPECT_TRUE(pipe->passedOn.empty());
        EXPECT_EQ(worker.jobs, Lines{"job"});
    }
};

TEST_F(WorkerWhoseHookHasThrown, keepsItsPipeUntilItIsSteppedAgain)
{
    EXPECT_TRUE(pipe->isConnected);
    EXPECT_TRUE(pipe->outgoing.empty());
    EXPECT_FALSE(worker.hasFinished());
}

TEST_F(WorkerWhoseHookHasThrown, isNotSending)
{
    EXPECT_FALSE(worker.isSending());
}

TEST_F(WorkerWhoseHookHasThrown, sendsNothingWhenItIsStepped)
{
    step();
    expectNothingOfItLeaves();
}

TEST_F(WorkerWhoseHookHasThrown, sendsNothingWhenItIsToldToSend)
{
    worker.onSendData();
    expectNothingOfItLeaves();
}

TEST_F(WorkerWhoseHookHasThrown, receivesNothingWhenItIsToldToRead)
{
    worker.onReadyRead();
    expectNothingOfItLeaves();
}

TEST_F(WorkerWhoseHookHasThrown, runsItsHookNoMoreWhenItIsToldToProcess)
{
    worker.onProcess();
    expectNothingOfItLeaves();
}

/// A worker that does something with itself inside its hook.
struct WorkerInsideItsHook : Worker {
    void runWith(const std::function<void()>& inside)
    {
        worker.work = [inside](const Bytes&) {
            inside();
            return bytes("result");
        };
        arrive(frame("job"));
        step();
    }
};

TEST_F(WorkerInsideItsHook, movesBytesWhenItIsStepped)
{
    runWith([this] {
        machine.calls.clear();
        arrive(frame("early"));
        worker.processWorker(250);
        EXPECT_EQ(machine.calls, Lines{"pipe 1: processNamedPipeEvents(250, true)"});
        EXPECT_EQ(pipe->incoming, frame("early"));
    });
    EXPECT_EQ(worker.jobs, Lines{"job"});
    EXPECT_EQ(pipe->outgoing, frame("result"));
}

TEST_F(WorkerInsideItsHook, takesNoStepOfItsOwn)
{
    runWith([this] {
        pipe->incoming = frame("early");
        worker.onReadyRead();
        worker.onProcess();
        worker.onSendData();
        EXPECT_EQ(pipe->incoming, frame("early"));
        EXPECT_TRUE(pipe->outgoing.empty());
    });
    EXPECT_EQ(worker.jobs, Lines{"job"});
    EXPECT_EQ(pipe->outgoing, frame("result"));
}

TEST_F(WorkerInsideItsHook, sendsNothingOfAHalfMadeResult)
{
    class HalfMaking : public nq::nqWorker {
    public:
        using nqWorker::nqWorker;
        bool wasSending = false;
        void processJob(Bytes&, Bytes& result) override
        {
            result = bytes("half");
            wasSending = isSending();
            processWorker(0);
            onSendData();
            result = bytes("whole");
        }
    };
    pipe = &machine.planPipe();
    HalfMaking halfMaking("another pipe");
    arrive(frame("job"));
    halfMaking.processWorker(0);
    halfMaking.processWorker(0);
    EXPECT_EQ(pipe->passedOn, frame("whole"));
    EXPECT_FALSE(halfMaking.wasSending);
}

TEST_F(WorkerInsideItsHook, isToldOfTheEndWhenThePipeHasGone)
{
    runWith([this] {
        pipe->lose();
        worker.processWorker(0);
        EXPECT_EQ(worker.endsOfWork, 1);
        EXPECT_TRUE(worker.hasFinished());
    });
    EXPECT_TRUE(pipe->outgoing.empty());
}

TEST_F(WorkerInsideItsHook, keepsTheMemoryOfItsBuffersWhenItIsStepped)
{
    class Waiting : public nq::nqWorker {
    public:
        using nqWorker::nqWorker;
        bool isReserved = false;
        void processJob(Bytes& job, Bytes& result) override
        {
            constexpr std::size_t large = std::size_t{2} << 20;
            job.clear();
            result.reserve(large);
            processWorker(0);
            isReserved = result.capacity() >= large;
        }
    };
    pipe = &machine.planPipe();
    Waiting waiting("another pipe");
    arrive(frame("job"));
    waiting.processWorker(0);
    EXPECT_TRUE(waiting.isReserved);
}

TEST_F(Worker, findsNothingOfTheJobBeforeInOneThatIsProcessedBeforeItIsWhole)
{
    arrive(frame("secret"));
    step();
    arrive(header(6) + bytes("ne"));
    step();
    worker.onProcess();
    EXPECT_EQ(worker.jobs.back(), std::string("ne\0\0\0\0", 6));
}

struct WorkersMemory : Worker {
    const std::string large = std::string(2U << 20, 'x');

    bool isReleased() const
    {
        return machine.count("utils: ReleaseFreeMemory()") != 0;
    }
};

TEST_F(WorkersMemory, ofALargeJobIsGivenBackAfterManySmallOnes)
{
    worker.work = [](const Bytes&) { return bytes("answer"); };
    arrive(frame(large));
    step();
    for (int job = 0; job < 63; ++job) {
        arrive(frame("small"));
        step();
        ASSERT_FALSE(isReleased());
    }
    arrive(frame("small"));
    step();
    EXPECT_TRUE(isReleased());
}

TEST_F(WorkersMemory, ofALargeJobIsGivenBackAfterAWaitInVain)
{
    worker.work = [](const Bytes&) { return bytes("answer"); };
    arrive(frame(large));
    step();
    step(); // does not wait, since the answer has still to leave
    EXPECT_FALSE(isReleased());
    step();
    EXPECT_TRUE(isReleased());
}

TEST_F(WorkersMemory, ofALargeJobIsKeptWhileItComesWithPauses)
{
    worker.work = [](const Bytes&) { return bytes("answer"); };
    const Bytes whole = frame(large);
    const auto middle = whole.begin() + (1 << 20);
    arrive({whole.begin(), middle});
    step();
    step();
    EXPECT_FALSE(isReleased());
    arrive({middle, whole.end()});
    step();
    EXPECT_EQ(worker.jobs, Lines{large});
}

TEST_F(WorkersMemory, ofALargeResultIsKeptWhileItLeavesInSlices)
{
    arrive(frame(large));
    step();
    ASSERT_LT(pipe->passedOn.size() + pipe->outgoing.size(), large.size());
    for (int slice = 0; slice < 10; ++slice)
        step();
    EXPECT_EQ(pipe->passedOn, frame(large));
}

TEST_F(Worker, sendsNothingAndIsNotToldOfTheEndWhenDestroyed)
{
    machine.planPipe();
    auto other = std::make_unique<TestWorker>("another pipe");
    machine.calls.clear();
    other.reset();
    EXPECT_EQ(machine.calls, Lines{"pipe 2: destroyed"});
}

} // namespace
