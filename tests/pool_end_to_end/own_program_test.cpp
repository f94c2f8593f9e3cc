#include "nqPool.h"
#include "tests/end_to_end/fixture.h"
#include "tests/pool_end_to_end/test_work.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace {

using end_to_end::ChildProgram;
using end_to_end::CurrentFolder;
using end_to_end::EndToEnd;
using end_to_end::generousLimit;
using end_to_end::TemporaryFolder;
using nq::nqOutcome;
using nq::nqPool;
using nq::nqPoolOptions;
using pool_end_to_end::failingVariable;
using pool_end_to_end::farewellVariable;
using pool_end_to_end::printedVariable;

using Reason = nq::nqAttempt::Reason;
using State = nqOutcome::State;

const std::string twoLineWorker = NQ_TWO_LINE_WORKER;
const std::string host = NQ_OWN_PROGRAM_HOST;

std::string ownPath()
{
    return std::filesystem::read_symlink("/proc/self/exe").string();
}

/// Set for the workers that are launched in its scope.
class Variable {
public:
    Variable(const char* name, const std::string& value)
        : mName(name)
    {
        ::setenv(name, value.c_str(), 1);
    }
    ~Variable()
    {
        ::unsetenv(mName);
    }
    Variable(const Variable&) = delete;
    Variable& operator=(const Variable&) = delete;

private:
    const char* mName;
};

nqPoolOptions oneWorker(const std::string& worker = {})
{
    nqPoolOptions options;
    options.worker = worker;
    options.workers = 1;
    options.restartPause = std::chrono::milliseconds(1);
    return options;
}

nqOutcome outcomeOf(nqPool& pool, std::string_view job)
{
    pool.submit(job);
    std::optional<nqOutcome> outcome = pool.next(generousLimit);
    return outcome ? std::move(*outcome) : nqOutcome();
}

/// Its result, or what went wrong in brackets.
std::string ask(nqPool& pool, std::string_view job)
{
    const nqOutcome outcome = outcomeOf(pool, job);
    return outcome ? std::string(outcome.text()) : "(" + outcome.failureText() + ")";
}

/// A job that fails with this reason, in the worker's words.
std::string report(Reason reason)
{
    return "report " + std::to_string(static_cast<int>(reason));
}

bool hasLine(const std::string& text, const std::string& ending)
{
    return text.find(ending + '\n') != std::string::npos;
}

/// What a program says that was started by hand.
std::string explained(const std::string& program, const std::string& text)
{
    return program + ": " + text + "; to run the job in a file: " + program + " --job FILE\n";
}

class OwnProgram : public EndToEnd {};
class WorkerProgram : public EndToEnd {};
class StartedByHand : public EndToEnd {
protected:
    TemporaryFolder mFolder;

    std::string fileWith(const std::string& job) const
    {
        return mFolder.addFile("a.job", job, 0644);
    }
};

TEST_F(OwnProgram, isItsOwnWorker)
{
    nqPool pool(oneWorker());
    EXPECT_EQ(ask(pool, "echo hello"), "hello");
    EXPECT_NE(ask(pool, "pid"), std::to_string(::getpid()));
    EXPECT_EQ(ask(pool, "file"), pool_end_to_end::programFile());
}

TEST_F(OwnProgram, isItsOwnWorkerByItsPathToo)
{
    nqPool pool(oneWorker(ownPath()));
    EXPECT_EQ(ask(pool, "echo hello"), "hello");
}

TEST_F(OwnProgram, isStartedByItsPathWhichToolsLikeToSee)
{
    nqPool pool(oneWorker());
    EXPECT_EQ(ask(pool, "called"), ownPath());
}

TEST_F(OwnProgram, buildsItsObjectOnceInEachWorker)
{
    nqPool pool(oneWorker());
    EXPECT_EQ(ask(pool, "jobs"), "1");
    EXPECT_EQ(ask(pool, "jobs"), "2");
    EXPECT_EQ(ask(pool, "objects"), "1");
    ask(pool, "exit 1");
    EXPECT_EQ(ask(pool, "jobs"), "1");
}

TEST_F(OwnProgram, destroysItsObjectBeforeAWorkerLeaves)
{
    const TemporaryFolder folder;
    const Variable farewell(farewellVariable, folder.file("farewell"));
    nqPoolOptions options = oneWorker();
    options.recycleAfterJobs = 1;
    nqPool pool(options);
    ask(pool, "pid");
    ask(pool, "pid");
    EXPECT_EQ(common::contentOf(folder.file("farewell")), "left");
}

TEST_F(OwnProgram, takesEmptyJobs)
{
    nqPool pool(oneWorker());
    const nqOutcome outcome = outcomeOf(pool, "");
    EXPECT_EQ(outcome.state, State::Done) << outcome.failureText();
    EXPECT_TRUE(outcome.bytes.empty());
}

TEST_F(OwnProgram, givesEmptyResults)
{
    nqPool pool(oneWorker());
    const nqOutcome outcome = outcomeOf(pool, "nothing");
    EXPECT_EQ(outcome.state, State::Done) << outcome.failureText();
    EXPECT_TRUE(outcome.bytes.empty());
}

TEST_F(OwnProgram, takesAndGivesBytesOfAnyKind)
{
    std::string all;
    for (int byte = 0; byte < 256; ++byte)
        all += static_cast<char>(byte);
    nqPool pool(oneWorker());
    EXPECT_EQ(ask(pool, "echo " + all), all);
}

TEST_F(OwnProgram, tellsAnExceptionAndKeepsTheWorker)
{
    nqPool pool(oneWorker());
    const std::string worker = ask(pool, "pid");
    const nqOutcome outcome = outcomeOf(pool, "throw no such page");
    EXPECT_EQ(outcome.state, State::Failed);
    EXPECT_EQ(outcome.reason, Reason::Exception);
    EXPECT_EQ(outcome.message, "no such page");
    EXPECT_EQ(outcome.text(), "throw no such page");
    EXPECT_EQ(ask(pool, "pid"), worker);
}

TEST_F(OwnProgram, tellsThatAnExceptionIsTheWorkersOwnWord)
{
    nqPool pool(oneWorker());
    EXPECT_TRUE(outcomeOf(pool, "throw no such page").toldByWorker);
    EXPECT_FALSE(outcomeOf(pool, "exit 3").toldByWorker);
}

TEST_F(OwnProgram, reportsACrashOfWhatItHasRun)
{
    nqPool pool(oneWorker());
    const std::string job = report(Reason::Crashed);
    const nqOutcome outcome = outcomeOf(pool, job);
    EXPECT_EQ(outcome.reason, Reason::Crashed);
    EXPECT_TRUE(outcome.toldByWorker);
    EXPECT_EQ(outcome.message, "so it was");
    EXPECT_EQ(outcome.signal, SIGSEGV);
    EXPECT_EQ(outcome.exitStatus, std::nullopt);
    EXPECT_EQ(outcome.text(), job);
    EXPECT_NE(outcome.pid, 0);
}

TEST_F(OwnProgram, reportsTheExitStatusOfWhatItHasRun)
{
    nqPool pool(oneWorker());
    const nqOutcome outcome = outcomeOf(pool, report(Reason::Exited));
    EXPECT_EQ(outcome.reason, Reason::Exited);
    EXPECT_EQ(outcome.exitStatus, 3);
    EXPECT_EQ(outcome.signal, std::nullopt);
}

TEST_F(OwnProgram, reportsATimeOutAndAMemoryCapOfItsOwn)
{
    nqPool pool(oneWorker());
    EXPECT_EQ(outcomeOf(pool, report(Reason::Timeout)).reason, Reason::Timeout);
    const nqOutcome large = outcomeOf(pool, report(Reason::MemoryCap));
    EXPECT_EQ(large.reason, Reason::MemoryCap);
    EXPECT_EQ(large.peakMemory, pool_end_to_end::reportedPeakMemory);
}

TEST_F(OwnProgram, reportsAReasonOfThePoolsAloneAsAnException)
{
    nqPool pool(oneWorker());
    for (const Reason reason : {Reason::None, Reason::Cancelled, Reason::NoWorker, Reason::Lost}) {
        const nqOutcome outcome = outcomeOf(pool, report(reason));
        EXPECT_EQ(outcome.state, State::Failed);
        EXPECT_EQ(outcome.reason, Reason::Exception);
        EXPECT_EQ(outcome.message, "so it was");
    }
}

TEST_F(OwnProgram, keepsTheWorkerThatReportsACrash)
{
    nqPool pool(oneWorker());
    const std::string worker = ask(pool, "pid");
    outcomeOf(pool, report(Reason::Crashed));
    EXPECT_EQ(ask(pool, "pid"), worker);
    EXPECT_EQ(pool.statistics().launched, 1U);
}

TEST_F(OwnProgram, isTriedAgainForTheReasonThatIsReported)
{
    nqPoolOptions options = oneWorker();
    options.retry.attempts = 3;
    nqPool pool(options);
    const nqOutcome late = outcomeOf(pool, report(Reason::Timeout));
    ASSERT_EQ(late.earlierAttempts.size(), 2U);
    EXPECT_EQ(late.earlierAttempts.front().message, "so it was");
    EXPECT_TRUE(late.earlierAttempts.front().toldByWorker);
    EXPECT_TRUE(outcomeOf(pool, report(Reason::Exception)).earlierAttempts.empty());
}

TEST_F(OwnProgram, countsWhatIsReportedByReasonAndNoRestart)
{
    const TemporaryFolder folder;
    nqPoolOptions options = oneWorker();
    options.metricsFile = folder.file("pool.prom");
    nqPool pool(options);
    outcomeOf(pool, report(Reason::Timeout));
    outcomeOf(pool, report(Reason::Crashed));
    EXPECT_EQ(pool.statistics().byReason[static_cast<std::size_t>(Reason::Timeout)], 1U);
    pool.stop();
    const std::string metrics = common::contentOf(options.metricsFile);
    for (const std::string reason : {"timeout", "crashed"}) {
        EXPECT_TRUE(hasLine(metrics, "{outcome=\"failed\",reason=\"" + reason + "\"} 1"));
        EXPECT_TRUE(hasLine(metrics, "restarts_total{cause=\"" + reason + "\"} 0"));
    }
}

TEST_F(OwnProgram, tellsTheLastWordsOfAJobThatThrows)
{
    nqPool pool(oneWorker());
    const nqOutcome outcome = outcomeOf(pool, "complain row 17 has no price");
    EXPECT_EQ(outcome.message, "see above");
    EXPECT_EQ(outcome.lastWords, "row 17 has no price\n");
}

TEST_F(OwnProgram, tellsNoWordsOfTheJobBeforeTheOneThatFails)
{
    nqPool pool(oneWorker());
    pool.submit("remark the job before");
    pool.submit("throw silently");
    ASSERT_TRUE(pool.next().value());
    const nqOutcome outcome = pool.next().value();
    EXPECT_EQ(outcome.message, "silently");
    EXPECT_EQ(outcome.lastWords, "");
}

TEST_F(OwnProgram, tellsTheTypeOfAnyOtherObjectThatIsThrown)
{
    nqPool pool(oneWorker());
    EXPECT_EQ(
        outcomeOf(pool, "throw-a-number").message,
        "an exception of type int, which is no std::exception");
}

#if !defined(__SANITIZE_ADDRESS__) &&                                                              \
    !defined(__SANITIZE_THREAD__) // whose shadow memory alone is beyond every limit
TEST_F(OwnProgram, tellsThatMemoryRanOutAndKeepsTheWorker)
{
    nqPoolOptions options = oneWorker();
    options.allocationLimit = std::uint64_t{256} << 20;
    nqPool pool(options);
    const std::string worker = ask(pool, "pid");
    const nqOutcome outcome = outcomeOf(pool, "exhaust");
    EXPECT_EQ(outcome.reason, Reason::Exception) << outcome.failureText();
    EXPECT_EQ(outcome.message, "std::bad_alloc");
    EXPECT_EQ(outcome.text(), "exhaust");
    EXPECT_EQ(ask(pool, "pid"), worker);
}

// Both the job twice and the result would be too much.
TEST_F(OwnProgram, givesUpAHalfMadeResultForTheJobThatGoesBack)
{
    nqPoolOptions options = oneWorker();
    options.allocationLimit = std::uint64_t{128} << 20;
    nqPool pool(options);
    const std::string job = "exhaust-beside-a-result " + std::string(std::size_t{40} << 20, 'x');
    const nqOutcome outcome = outcomeOf(pool, job);
    EXPECT_EQ(outcome.reason, Reason::Exception) << outcome.failureText();
    EXPECT_TRUE(outcome.text() == job);
}
#endif

TEST_F(OwnProgram, handsTheJobBackWhenTheWorkerCrashes)
{
    nqPool pool(oneWorker());
    const nqOutcome outcome = outcomeOf(pool, "crash");
    EXPECT_EQ(outcome.reason, Reason::Crashed);
    EXPECT_EQ(outcome.signal, SIGSEGV);
    EXPECT_EQ(outcome.text(), "crash");
}

TEST_F(OwnProgram, worksInTheHostsFolder)
{
    const TemporaryFolder folder;
    const CurrentFolder inside(folder.path());
    nqPool pool(oneWorker());
    EXPECT_EQ(ask(pool, "folder"), std::filesystem::current_path().string());
}

TEST_F(OwnProgram, worksInTheFolderThatTheHostHasAtTheLaunch)
{
    nqPool pool(oneWorker());
    ask(pool, "folder");
    const TemporaryFolder folder;
    const CurrentFolder inside(folder.path());
    ask(pool, "exit 1");
    EXPECT_EQ(ask(pool, "folder"), std::filesystem::current_path().string());
}

TEST_F(OwnProgram, isRefusedAPoolInsideAWorker)
{
    nqPool pool(oneWorker());
    EXPECT_EQ(
        ask(pool, "pool"),
        "This program cannot be its own worker: it runs as a worker itself; make pools in the host "
        "alone, or name another program in nqPoolOptions::worker");
}

TEST_F(OwnProgram, isRefusedAPoolWithoutRunAsWorker)
{
    ChildProgram forgetful(host, {"forgetful"});
    EXPECT_EQ(
        forgetful.readAllErrors(),
        "This program cannot be its own worker: it has not called nq::runAsWorker(); call that at "
        "the beginning of main(), or name another program in nqPoolOptions::worker\n");
    EXPECT_EQ(forgetful.waitForEnd(), 3);
}

TEST_F(OwnProgram, tellsWhyItsObjectCannotBeBuilt)
{
    const Variable failing(failingVariable, "the dictionary is missing");
    nqPool pool(oneWorker());
    const nqOutcome outcome = outcomeOf(pool, "echo hello");
    EXPECT_EQ(outcome.reason, Reason::NoWorker);
    EXPECT_NE(
        outcome.message.find("the worker cannot be initialised: the dictionary is missing"),
        std::string::npos)
        << outcome.message;
}

TEST_F(OwnProgram, printsAsMuchAsItLikesWhileItsObjectIsBuilt)
{
    const Variable talkative(printedVariable, std::string(100'000, 'x')); // more than a pipe holds
    nqPoolOptions options = oneWorker();
    options.launchAttempts = 1;
    options.initialisationTimeout = std::chrono::seconds(10);
    nqPool pool(options);
    EXPECT_EQ(ask(pool, "echo hello"), "hello");
}

TEST_F(OwnProgram, runsJobsInTheHostItselfWhenAsked)
{
    nqPoolOptions options;
    options.inProcess = true;
    nqPool pool(options);
    EXPECT_EQ(ask(pool, "pid"), std::to_string(::getpid()));
    EXPECT_EQ(ask(pool, ""), "");
    EXPECT_EQ(outcomeOf(pool, "throw no such page").message, "no such page");
}

TEST_F(OwnProgram, reportsWhateverAJobThrowsInTheHostItself)
{
    nqPoolOptions options;
    options.inProcess = true;
    nqPool pool(options);
    const nqOutcome outcome = outcomeOf(pool, "throw-a-number");
    EXPECT_EQ(outcome.message, "an exception of type int, which is no std::exception");
    EXPECT_EQ(outcome.text(), "throw-a-number");
}

TEST_F(OwnProgram, reportsAReasonInTheHostItself)
{
    nqPoolOptions options;
    options.inProcess = true;
    nqPool pool(options);
    const std::string job = report(Reason::Crashed);
    const nqOutcome outcome = outcomeOf(pool, job);
    EXPECT_EQ(outcome.reason, Reason::Crashed);
    EXPECT_EQ(outcome.signal, SIGSEGV);
    EXPECT_TRUE(outcome.toldByWorker);
    EXPECT_EQ(outcome.text(), job);
}

TEST_F(OwnProgram, countsFurtherAttemptsInTheHostItself)
{
    nqPoolOptions options;
    options.inProcess = true;
    options.retry.attempts = 3;
    options.retry.reasons = {Reason::Crashed};
    options.retry.pause = std::chrono::milliseconds(1);
    nqPool pool(options);
    outcomeOf(pool, report(Reason::Crashed));
    EXPECT_EQ(pool.statistics().retried, 2U);
}

TEST_F(WorkerProgram, takesTwoLines)
{
    nqPool pool(oneWorker(twoLineWorker));
    EXPECT_EQ(ask(pool, "echo hello"), "hello");
    EXPECT_EQ(ask(pool, "file"), pool_end_to_end::programFile(twoLineWorker));
}

TEST_F(WorkerProgram, takesAndGivesNothingAndThrows)
{
    nqPool pool(oneWorker(twoLineWorker));
    EXPECT_EQ(outcomeOf(pool, "").state, State::Done);
    EXPECT_EQ(outcomeOf(pool, "nothing").state, State::Done);
    EXPECT_EQ(outcomeOf(pool, "throw no such page").message, "no such page");
}

TEST_F(WorkerProgram, reportsAReason)
{
    nqPool pool(oneWorker(twoLineWorker));
    const nqOutcome outcome = outcomeOf(pool, report(Reason::Exited));
    EXPECT_EQ(outcome.reason, Reason::Exited);
    EXPECT_EQ(outcome.exitStatus, 3);
}

TEST_F(WorkerProgram, worksInTheHostsFolder)
{
    const TemporaryFolder folder;
    const CurrentFolder inside(folder.path());
    nqPool pool(oneWorker(twoLineWorker));
    EXPECT_EQ(ask(pool, "folder"), std::filesystem::current_path().string());
}

TEST_F(WorkerProgram, mayBeBehindAScript)
{
    const TemporaryFolder folder;
    nqPool pool(oneWorker(folder.addScript("worker", "exec '" + twoLineWorker + "' \"$@\"\n")));
    EXPECT_EQ(ask(pool, "echo hello"), "hello");
}

TEST_F(WorkerProgram, mayBeBehindAScriptThatStays)
{
    const TemporaryFolder folder;
    const CurrentFolder inside(folder.path());
    nqPool pool(oneWorker(folder.addScript("worker", "'" + twoLineWorker + "' \"$@\"\n")));
    EXPECT_EQ(ask(pool, "folder"), std::filesystem::current_path().string());
}

TEST_F(WorkerProgram, ofAnotherKindIsToldFromOneThatIsMisnamed)
{
    nqPoolOptions options = oneWorker(end_to_end::workerPath());
    nqPool pool(options);
    const nqOutcome outcome = outcomeOf(pool, "hello");
    EXPECT_EQ(outcome.reason, Reason::NoWorker);
    EXPECT_NE(outcome.message.find("nqPoolOptions::plainWorker"), std::string::npos)
        << outcome.message;
}

TEST_F(WorkerProgram, thatIsPlainGetsPlainBytes)
{
    nqPoolOptions options = oneWorker(end_to_end::workerPath());
    options.plainWorker = true;
    nqPool pool(options);
    EXPECT_EQ(ask(pool, "echo abc"), "abc");
}

TEST_F(WorkerProgram, thatIsPlainTakesNoEmptyJob)
{
    nqPoolOptions options = oneWorker(end_to_end::workerPath());
    options.plainWorker = true;
    nqPool pool(options);
    EXPECT_THROW(pool.submit(""), nq::nqPoolError);
    EXPECT_EQ(pool.unfinishedCount(), 0U);
}

TEST_F(StartedByHand, explainsItself)
{
    ChildProgram worker(twoLineWorker, {});
    EXPECT_EQ(
        worker.readAllErrors(),
        explained(
            twoLineWorker,
            "a worker program, which a pool starts; name it in nqPoolOptions::worker"));
    EXPECT_EQ(worker.readAllOutput(), "");
    EXPECT_EQ(worker.waitForEnd(), 2);
}

TEST_F(StartedByHand, explainsThatNoPoolListens)
{
    const std::string copied =
        "--nq-pool-worker=00112233445566778899aabbccddeeff:" + std::to_string(::getppid());
    for (const std::string& program : {twoLineWorker, host}) {
        ChildProgram worker(program, {copied, "no-pipe-of-this-name"});
        EXPECT_EQ(
            worker.readAllErrors(),
            explained(
                program, "no pool listens for this worker; a pool starts its workers itself"));
        EXPECT_EQ(worker.waitForEnd(), 2);
    }
}

TEST_F(StartedByHand, explainsThatItsHostIsGone)
{
    ChildProgram gone("/bin/true", {});
    EXPECT_EQ(gone.waitForEnd(), 0);
    const std::string pid = std::to_string(gone.pid());
    ChildProgram worker(
        host, {"--nq-pool-worker=00112233445566778899aabbccddeeff:" + pid, "no-pipe-of-this-name"});
    EXPECT_EQ(
        worker.readAllErrors(),
        explained(
            host,
            "the host's folder cannot be entered through /proc/" + pid +
                "/cwd: No such file or directory; a pool starts its workers itself"));
    EXPECT_EQ(worker.waitForEnd(), 2);
}

TEST_F(StartedByHand, explainsThatItsArgumentsMakeNoSense)
{
    ChildProgram worker(host, {"--nq-pool-worker=typed", "no-pipe-of-this-name"});
    EXPECT_EQ(
        worker.readAllErrors(), explained(host, "arguments of a worker that no pool has made"));
    EXPECT_EQ(worker.waitForEnd(), 2);
}

TEST_F(StartedByHand, runsTheJobInAFile)
{
    for (const std::string& program : {twoLineWorker, host}) {
        ChildProgram run(program, {"--job", fileWith("echo hello")});
        EXPECT_EQ(run.readAllOutput(), "hello");
        EXPECT_EQ(run.readAllErrors(), "");
        EXPECT_EQ(run.waitForEnd(), 0);
    }
}

TEST_F(StartedByHand, runsAnEmptyJob)
{
    ChildProgram run(host, {"--job", fileWith("")});
    EXPECT_EQ(run.readAllOutput(), "");
    EXPECT_EQ(run.waitForEnd(), 0);
}

TEST_F(StartedByHand, runsTheJobInItsOwnProcess)
{
    ChildProgram run(host, {"--job", fileWith("pid")});
    EXPECT_EQ(run.readAllOutput(), std::to_string(run.pid()));
}

TEST_F(StartedByHand, crashesWhereADebuggerSeesIt)
{
    ChildProgram run(host, {"--job", fileWith("crash")});
    EXPECT_EQ(run.waitForEnd(), 128 + SIGSEGV);
}

TEST_F(StartedByHand, tellsTheExceptionOfAJob)
{
    ChildProgram run(host, {"--job", fileWith("throw no such page")});
    EXPECT_EQ(run.readAllErrors(), host + ": no such page\n");
    EXPECT_EQ(run.readAllOutput(), "");
    EXPECT_EQ(run.waitForEnd(), 1);
}

TEST_F(StartedByHand, tellsTheTextOfAReportedFailure)
{
    ChildProgram run(host, {"--job", fileWith(report(Reason::Timeout))});
    EXPECT_EQ(run.readAllErrors(), host + ": so it was\n");
    EXPECT_EQ(run.waitForEnd(), 1);
}

TEST_F(StartedByHand, tellsWhyItsObjectCannotBeBuilt)
{
    const Variable failing(failingVariable, "the dictionary is missing");
    ChildProgram run(host, {"--job", fileWith("pid")});
    EXPECT_EQ(run.readAllErrors(), host + ": the dictionary is missing\n");
    EXPECT_EQ(run.waitForEnd(), 1);
}

TEST_F(StartedByHand, tellsWhyAFileCannotBeRead)
{
    const std::string missing = mFolder.file("missing");
    ChildProgram run(host, {"--job", missing});
    EXPECT_EQ(
        run.readAllErrors(),
        host + ": the job in " + missing + " cannot be read: No such file or directory\n");
    EXPECT_EQ(run.waitForEnd(), 2);

    ChildProgram folder(host, {"--job", mFolder.path()});
    EXPECT_EQ(
        folder.readAllErrors(),
        host + ": the job in " + mFolder.path() + " cannot be read: Is a directory\n");
    EXPECT_EQ(folder.waitForEnd(), 2);
}

TEST_F(StartedByHand, tellsThatTheResultCannotBeWritten)
{
    const std::string command = "'" + host + "' --job '" + fileWith("echo hello") + "' >/dev/full";
    ChildProgram shell("/bin/sh", {"-c", command});
    EXPECT_EQ(
        shell.readAllErrors(), host + ": the result cannot be written: No space left on device\n");
    EXPECT_EQ(shell.waitForEnd(), 2);
}

} // namespace
