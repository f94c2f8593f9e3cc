#include "tests/unit/schedulerFixture.h"

#include <cstdint>
#include <stdexcept>
#include <type_traits>

namespace {

using nq::nqScheduler;
using support::bytes;
using support::Lines;

static_assert(!std::is_copy_constructible_v<nqScheduler>);
static_assert(!std::is_copy_assignable_v<nqScheduler>);
static_assert(std::has_virtual_destructor_v<nqScheduler>);
static_assert(std::is_nothrow_destructible_v<nqScheduler>);
static_assert(sizeof(nqScheduler) == 2 * sizeof(void*), "one table and one pointer, for ever");
static_assert(sizeof(nqScheduler::FailReason) == 4);
static_assert(std::is_same_v<std::underlying_type_t<nqScheduler::FailReason>, std::int32_t>);
static_assert(nqScheduler::NoFailure == 0);
static_assert(nqScheduler::UnexpectedCrash == 1);
static_assert(nqScheduler::TooMuchRam == 2);
static_assert(nqScheduler::Timeout == 3);
static_assert(
    std::is_same_v<decltype(std::declval<const nqScheduler&>().exeUtf8Path()), const std::string&>);
static_assert(std::is_same_v<
              decltype(std::declval<const nqScheduler&>().argumentsUtf8()),
              const std::vector<std::string>&>);

const std::vector<std::string> arguments{"-a", "-b"};

using SchedulerConfiguration = support::SchedulerFixture;

TEST_F(SchedulerConfiguration, startsEmptyByDefault)
{
    const nqScheduler fresh;
    EXPECT_EQ(fresh.jobCount(), 0U);
    EXPECT_EQ(fresh.resultCount(), 0U);
    EXPECT_EQ(fresh.failCount(), 0U);
    EXPECT_EQ(fresh.exeUtf8Path(), "");
    EXPECT_TRUE(fresh.argumentsUtf8().empty());
    EXPECT_TRUE(fresh.prependChannelId());
}

TEST_F(SchedulerConfiguration, keepsWhatTheFullConstructorWasGiven)
{
    const nqScheduler fresh("../odd/./path", false, arguments, false);
    EXPECT_EQ(fresh.exeUtf8Path(), "../odd/./path");
    EXPECT_EQ(fresh.argumentsUtf8(), arguments);
    EXPECT_FALSE(fresh.prependChannelId());
    EXPECT_EQ(fresh.jobCount(), 0U);
}

TEST_F(SchedulerConfiguration, makesTheNameAndThenTheServerAndNothingElse)
{
    forgetCalls();
    const nqScheduler first;
    EXPECT_EQ(machine.calls, (Lines{"system: CreateUuid(true)", "server: created"}));
    forgetCalls();
    const nqScheduler second("/opt/w/worker", true, arguments, true);
    EXPECT_EQ(machine.calls, (Lines{"system: CreateUuid(true)", "server: created"}));
}

TEST_F(SchedulerConfiguration, doesNotExistWhenNoNameCanBeMade)
{
    forgetCalls();
    machine.uuidFails = true;
    EXPECT_THROW(nqScheduler{}, std::runtime_error);
    EXPECT_EQ(machine.calls, Lines{"system: CreateUuid(true)"});
}

TEST_F(SchedulerConfiguration, doesNotExistWhenTheServerCannotBeMade)
{
    machine.serverConstructionFails = true;
    EXPECT_THROW(nqScheduler("/opt/w/worker", true, arguments, true), std::runtime_error);
}

TEST_F(SchedulerConfiguration, givesEverySchedulerItsOwnName)
{
    nqScheduler other;
    forgetCalls();
    scheduler->startScheduler(0, 0);
    other.startScheduler(0, 0);
    EXPECT_EQ(machine.calls, (Lines{"server: listenUtf8(uuid-1)", "server: listenUtf8(uuid-2)"}));
}

TEST_F(SchedulerConfiguration, canBeChangedBeforeTheStart)
{
    EXPECT_TRUE(scheduler->setMaxCapMemory(1));
    EXPECT_TRUE(scheduler->setJobProcessTimeout(2));
    EXPECT_TRUE(scheduler->setMaxCapMemoryAfterProcessingAJob(3));
    EXPECT_TRUE(scheduler->setMaxPhysicalMemory(4));
    scheduler->setExePathUtf8("/opt/other");
    scheduler->setArgumentsUtf8(arguments, false);
    EXPECT_EQ(scheduler->exeUtf8Path(), "/opt/other");
    EXPECT_EQ(scheduler->argumentsUtf8(), arguments);
    EXPECT_FALSE(scheduler->prependChannelId());
}

TEST_F(SchedulerConfiguration, takesEveryLimitWithoutARangeCheck)
{
    const auto largest = ~0UL;
    EXPECT_TRUE(scheduler->setMaxCapMemory(largest));
    EXPECT_TRUE(scheduler->setJobProcessTimeout(largest));
    EXPECT_TRUE(scheduler->setMaxCapMemoryAfterProcessingAJob(largest));
    EXPECT_TRUE(scheduler->setMaxPhysicalMemory(largest));
    EXPECT_TRUE(scheduler->setMaxCapMemory(0));
}

TEST_F(SchedulerConfiguration, logsNothing)
{
    start(1);
    scheduler->setMaxCapMemory(1);
    scheduler->setJobProcessTimeout(1);
    scheduler->setMaxCapMemoryAfterProcessingAJob(1);
    scheduler->setMaxPhysicalMemory(1);
    scheduler->setExePathUtf8("/opt/other");
    scheduler->setArgumentsUtf8(arguments, false);
    EXPECT_EQ(machine.calls, Lines{});
}

TEST_F(SchedulerConfiguration, keepsItsPathAndArgumentsWhileStarted)
{
    start(1);
    scheduler->setExePathUtf8("/opt/other");
    scheduler->setArgumentsUtf8(arguments, false);
    EXPECT_EQ(scheduler->exeUtf8Path(), "/opt/w/worker");
    EXPECT_TRUE(scheduler->argumentsUtf8().empty());
    EXPECT_TRUE(scheduler->prependChannelId());
}

TEST_F(SchedulerConfiguration, refusesAMemoryCapWhileStartedAndKeepsTheOldOne)
{
    scheduler->setMaxCapMemory(100);
    start(1);
    EXPECT_FALSE(scheduler->setMaxCapMemory(200));
    die(0);
    scheduler->processScheduler(0);
    process(1).ramInUse = 101;
    scheduler->processScheduler(0);
    EXPECT_EQ(machine.count("process 4243: killProcess()"), 1);
}

TEST_F(SchedulerConfiguration, refusesATimeoutWhileStartedAndKeepsTheOldOne)
{
    scheduler->setJobProcessTimeout(10);
    start(1);
    EXPECT_FALSE(scheduler->setJobProcessTimeout(1000));
    die(0);
    scheduler->push(bytes("job"));
    scheduler->processScheduler(0);
    scheduler->processScheduler(0);
    machine.advance(std::chrono::seconds{11});
    scheduler->processScheduler(0);
    EXPECT_EQ(machine.count("process 4243: killProcess()"), 1);
}

TEST_F(SchedulerConfiguration, refusesACapAfterAJobWhileStartedAndKeepsTheOldOne)
{
    scheduler->setMaxCapMemoryAfterProcessingAJob(100);
    start(1);
    EXPECT_FALSE(scheduler->setMaxCapMemoryAfterProcessingAJob(0));
    die(0); // the replacement is told the cap that holds now
    scheduler->processScheduler(0);
    process(1).ramInUse = 101;
    answer(1, "result");
    pipe(1).arrivals.push_front({});
    scheduler->push(bytes("job"));
    scheduler->processScheduler(0);
    scheduler->processScheduler(0);
    EXPECT_TRUE(process(1).isDestroyed);
    EXPECT_EQ(results(), Lines{"result"});
}

TEST_F(SchedulerConfiguration, refusesAWorkingSetLimitWhileStartedAndKeepsTheOldOne)
{
    scheduler->setMaxPhysicalMemory(100);
    start(1);
    EXPECT_FALSE(scheduler->setMaxPhysicalMemory(200));
    die(0);
    scheduler->processScheduler(0);
    EXPECT_EQ(machine.count("process 4243: setWorkingSetMaxSize(100)"), 1);
}

TEST_F(SchedulerConfiguration, canBeChangedAgainAfterAStop)
{
    start(1);
    ASSERT_TRUE(scheduler->stopScheduler());
    EXPECT_TRUE(scheduler->setMaxCapMemory(1));
    EXPECT_TRUE(scheduler->setJobProcessTimeout(1));
    EXPECT_TRUE(scheduler->setMaxCapMemoryAfterProcessingAJob(1));
    EXPECT_TRUE(scheduler->setMaxPhysicalMemory(1));
    scheduler->setExePathUtf8("/opt/other");
    EXPECT_EQ(scheduler->exeUtf8Path(), "/opt/other");
}

TEST_F(SchedulerConfiguration, canBeChangedAfterARefusedStart)
{
    machine.idealThreadCount = 1;
    ASSERT_FALSE(scheduler->startScheduler(5, connectionTimeout));
    EXPECT_TRUE(scheduler->setMaxCapMemory(1));
    scheduler->setExePathUtf8("/opt/other");
    EXPECT_EQ(scheduler->exeUtf8Path(), "/opt/other");
}

TEST_F(SchedulerConfiguration, acceptsJobsBeforeTheStart)
{
    scheduler->push(bytes("job"));
    EXPECT_EQ(scheduler->jobCount(), 1U);
}

TEST_F(SchedulerConfiguration, keepsTheJobsInProgressWhenPendingJobsAreCleared)
{
    start(1);
    scheduler->push(bytes("a"));
    scheduler->push(bytes("b"));
    scheduler->push(bytes("c"));
    scheduler->processScheduler(0);
    EXPECT_EQ(scheduler->jobCount(), 3U);
    scheduler->clearPendingJobs();
    EXPECT_EQ(scheduler->jobCount(), 1U);
    EXPECT_EQ(scheduler->resultCount(), 0U);
    EXPECT_EQ(scheduler->failCount(), 0U);
    answer(0, "result");
    scheduler->processScheduler(0);
}

TEST_F(SchedulerConfiguration, leavesThePoppedVectorAloneButClearsTheFailureOnPurpose)
{
    support::Bytes result = bytes("mine");
    EXPECT_FALSE(scheduler->pop(result));
    EXPECT_EQ(result, bytes("mine"));

    support::Bytes job = bytes("mine");
    nqScheduler::FailReason reason = nqScheduler::Timeout;
    std::string message = "mine";
    EXPECT_FALSE(scheduler->popFail(job, reason, message));
    EXPECT_TRUE(job.empty());
    EXPECT_EQ(reason, nqScheduler::NoFailure);
    EXPECT_EQ(message, "");
}

} // namespace
