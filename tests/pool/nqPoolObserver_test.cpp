#include "pool/nqPoolObserver.h"

#include "pool/nqJson.h"
#include "tests/common/files.h"
#include "tests/pool/poolFixture.h"

#include <filesystem>
#include <sstream>

namespace {

using namespace std::chrono_literals;
using common::contentOf;
using nq::nqJobOptions;
using nq::nqJson;
using nq::nqPoolError;
using nq::nqPoolOptions;
using nq::nqPoolStatus;
using support::milliseconds;
using support::PoolFixture;
using support::State;

/// A pool that writes all of its files.
class Shown : public PoolFixture {
protected:
    Shown()
    {
        options.name = "shown";
        options.metricsFile = mFolder.file("pool.prom");
        options.metricsInterval = 10s;
        options.statusFile = mFolder.file("status.json");
        options.statusInterval = 1s;
        options.traceFile = mFolder.file("trace.json");
        options.timelineFile = mFolder.file("run.svg");
    }

    /// With no file but the one of the status.
    void makeWithStatusOnly()
    {
        options.metricsFile.clear();
        options.traceFile.clear();
        options.timelineFile.clear();
        make();
    }

    void submitLabelled(const std::string& label)
    {
        nqJobOptions own;
        own.label = label;
        submit("job", own);
    }

    nqPoolStatus status() const
    {
        return nq::readPoolStatus(options.statusFile);
    }

    std::string metric(const std::string& series) const
    {
        const std::string text = contentOf(options.metricsFile);
        const std::size_t found = text.find("\n" + series + " ");
        if (found == std::string::npos)
            return "(none)";
        const std::size_t begin = found + series.size() + 2;
        return text.substr(begin, text.find('\n', begin) - begin);
    }

    /// Those of a category in the trace.
    std::vector<nqJson> events(const std::string& category) const
    {
        std::istringstream stream(contentOf(options.traceFile));
        std::vector<nqJson> found;
        for (std::string line; std::getline(stream, line);) {
            if (!line.empty() && line.back() == ',')
                line.pop_back();
            const auto event = nqJson::parse(line);
            if (event && (*event)["cat"].text() == category)
                found.push_back(*event);
        }
        return found;
    }

    std::vector<std::string> namesOf(const std::string& category) const
    {
        std::vector<std::string> names;
        for (const nqJson& event : events(category))
            names.push_back(event["name"].text());
        return names;
    }

    static std::optional<nq::nqPoolClock::TimePoint> wakeAt()
    {
        return scripted::poolWait()->wakeAt;
    }

    common::TemporaryFolder mFolder;
};

TEST_F(Shown, isNotObservedWithoutFiles)
{
    EXPECT_EQ(nq::nqPoolObserver::of(nqPoolOptions()), nullptr);
}

TEST_F(Shown, isRefusedWhenOneOfItsFilesCannotBeWritten)
{
    for (std::string nqPoolOptions::*const file :
         {&nqPoolOptions::metricsFile,
          &nqPoolOptions::statusFile,
          &nqPoolOptions::traceFile,
          &nqPoolOptions::timelineFile}) {
        nqPoolOptions bad = options;
        bad.*file = mFolder.file("missing/file");
        EXPECT_THROW(nq::nqPool{bad}, nqPoolError);
    }
}

TEST_F(Shown, hasAStatusFromItsFirstPumpOn)
{
    make();
    pump();
    EXPECT_EQ(status().state, nqPoolStatus::State::Running);
    EXPECT_EQ(status().name, "shown");
    EXPECT_EQ(status().host, ::getpid());
}

TEST_F(Shown, tellsInItsStatusWhatEachWorkerDoes)
{
    make();
    pump();
    submitLabelled("photo.jpg");
    pump(3);
    machine.processes.at(0)->ramInUse = 5'000;
    advance(1s);
    pump();
    const auto workers = status().workers;
    ASSERT_EQ(workers.size(), 1U);
    EXPECT_EQ(workers[0].number, 1U);
    EXPECT_EQ(workers[0].pid, machine.processes.at(0)->pid);
    EXPECT_EQ(workers[0].job, 1U);
    EXPECT_EQ(workers[0].label, "photo.jpg");
    EXPECT_EQ(workers[0].timeInJob, 1s);
    EXPECT_EQ(workers[0].residentMemory, 5'000U);
}

TEST_F(Shown, writesItsStatusNoMoreOftenThanItMay)
{
    make();
    pump();
    submit("job");
    advance(999ms);
    pump(3);
    EXPECT_EQ(status().statistics.submitted, 0U);
    advance(1ms);
    pump();
    EXPECT_EQ(status().statistics.submitted, 1U);
}

TEST_F(Shown, wakesItsHostForTheNextWriteWhileAJobRuns)
{
    makeWithStatusOnly();
    submit("job");
    pump(3);
    pool->waitDescriptor();
    ASSERT_TRUE(wakeAt());
    EXPECT_EQ(*wakeAt(), nq::nqPoolClock::now() + 1s);
}

TEST_F(Shown, letsItsHostSleepWhileItIsIdle)
{
    makeWithStatusOnly();
    submit("job");
    pump(3);
    answer(0, "result");
    advance(1s);
    pump(2);
    pool->waitDescriptor();
    EXPECT_FALSE(wakeAt());
    EXPECT_EQ(status().statistics.done, 1U) << "the last word before the silence";
}

TEST_F(Shown, sleepsInAPumpNoLongerThanUntilTheNextWrite)
{
    makeWithStatusOnly();
    options.workers = 2;
    make();
    submit("one");
    submit("two");
    pump(4);
    pool->pump(milliseconds(-1));
    EXPECT_EQ(scripted::poolWait()->sleeps.back(), 1s);
}

TEST_F(Shown, doesNotTouchFilesWhileNothingHappens)
{
    make();
    pump();
    std::filesystem::remove(options.statusFile);
    advance(1h);
    pump(2);
    EXPECT_FALSE(std::filesystem::exists(options.statusFile));
}

TEST_F(Shown, guessesTheTimeLeftFromTheRecentRate)
{
    make();
    for (int i = 0; i < 10; ++i)
        submit("job");
    pump(3);
    for (int i = 0; i < 4; ++i) {
        advance(1s);
        answer(0, "result");
    }
    pump();
    const auto left = status().timeLeft;
    ASSERT_TRUE(left);
    EXPECT_NEAR(static_cast<double>(left->count()), 6'000, 300);
}

TEST_F(Shown, countsExpectedJobsAsLeft)
{
    make();
    pool->expectJobs(100);
    submit("job");
    pump(3);
    advance(1s);
    answer(0, "result");
    pump();
    const auto left = status().timeLeft;
    ASSERT_TRUE(left);
    EXPECT_NEAR(static_cast<double>(left->count()), 99'000, 1'000);
}

TEST_F(Shown, guessesTheTimeLeftOfLongJobsFromItsWholeAge)
{
    make();
    submit("one");
    submit("two");
    pump(3);
    advance(1h);
    answer(0, "result");
    advance(1min);
    pump(2);
    const auto left = status().timeLeft;
    ASSERT_TRUE(left);
    EXPECT_EQ(std::chrono::duration_cast<std::chrono::minutes>(*left), 61min);
}

TEST_F(Shown, saysThatItHasEnded)
{
    make();
    submit("job");
    pump(3);
    pool->stop();
    EXPECT_EQ(status().state, nqPoolStatus::State::Ended);
    EXPECT_EQ(status().statistics.cancelled, 1U);
    EXPECT_TRUE(status().workers.empty());
    EXPECT_EQ(status().problem, "");
}

TEST_F(Shown, saysSoWhenItIsDestroyedToo)
{
    make();
    submit("job");
    pump(3);
    pool.reset();
    EXPECT_EQ(status().state, nqPoolStatus::State::Ended);
    EXPECT_TRUE(std::filesystem::exists(options.timelineFile));
}

TEST_F(Shown, measuresRunsAndWaitsToTheMicrosecond)
{
    make();
    submit("job");
    advance(1'500ms);
    pump(3);
    advance(250ms);
    answer(0, "result");
    pool->stop();
    EXPECT_EQ(metric("nq_pool_job_run_seconds_sum{pool=\"shown\"}"), "0.25");
    EXPECT_EQ(metric("nq_pool_job_wait_seconds_sum{pool=\"shown\"}"), "1.5");
    EXPECT_EQ(metric("nq_pool_job_wait_seconds_count{pool=\"shown\"}"), "1");
    EXPECT_EQ(metric("nq_pool_jobs_total{pool=\"shown\",outcome=\"done\",reason=\"done\"}"), "1");
    EXPECT_EQ(metric("nq_pool_job_bytes_total{pool=\"shown\"}"), "3");
    EXPECT_EQ(metric("nq_pool_result_bytes_total{pool=\"shown\"}"), "6");
}

TEST_F(Shown, writesMetricsAtTheirOwnInterval)
{
    make();
    pump();
    submit("job");
    pump(3);
    advance(9'999ms);
    pump();
    EXPECT_EQ(metric("nq_pool_workers_busy{pool=\"shown\"}"), "0");
    advance(1ms);
    pump();
    EXPECT_EQ(metric("nq_pool_workers_busy{pool=\"shown\"}"), "1");
}

TEST_F(Shown, countsRestartsByTheirCause)
{
    make();
    submit("one");
    pump(3);
    crash(0);
    submit("two");
    pump(3);
    pool->stop();
    EXPECT_EQ(metric("nq_pool_worker_restarts_total{pool=\"shown\",cause=\"crashed\"}"), "1");
    EXPECT_EQ(namesOf("end").at(0), "crashed");
    EXPECT_TRUE(
        contentOf(options.timelineFile).find("worker 1 replaced: crashed") != std::string::npos);
}

TEST_F(Shown, countsNoRestartForItsOwnEnd)
{
    make();
    submit("job");
    pump(3);
    pool->stop();
    EXPECT_EQ(contentOf(options.timelineFile).find(" restart"), std::string::npos);
}

TEST_F(Shown, knowsAWorkerThatWasKilledForTime)
{
    options.jobTimeout = 500ms;
    make();
    submit("job");
    pump(3);
    advance(500ms);
    pump(3);
    pool->stop();
    EXPECT_EQ(namesOf("end").at(0), "timeout");
}

TEST_F(Shown, knowsAWorkerThatGrewTooLarge)
{
    options.memoryCap = 1'000;
    make();
    submit("job");
    pump(3);
    machine.processes.at(0)->ramInUse = 1'001;
    advance(100ms);
    pump(3);
    pool->stop();
    EXPECT_EQ(namesOf("end").at(0), "memory_cap");
}

TEST_F(Shown, knowsAWorkerThatWasRecycled)
{
    options.recycleAfterJobs = 1;
    make();
    submit("one");
    pump(3);
    answer(0, "result");
    submit("two");
    pump(3);
    pool->stop();
    EXPECT_EQ(namesOf("end").at(0), "recycled");
}

TEST_F(Shown, knowsAnIdleWorkerThatDied)
{
    make();
    submit("one");
    pump(3);
    answer(0, "result");
    crash(0);
    pump(2);
    pool->stop();
    EXPECT_EQ(namesOf("end").at(0), "crashed");
}

TEST_F(Shown, countsTheAttemptsThatAHostMakesAsOneJob)
{
    make();
    nqJobOptions own;
    own.hostAttempts = 3;
    for (const std::size_t worker : {0, 1, 2}) {
        own.hostAttempt = static_cast<unsigned>(worker) + 1;
        submit("job", own);
        pump(3);
        crash(worker);
        pump(3);
    }
    pool->stop();
    EXPECT_EQ(outcomes.size(), 3U);
    EXPECT_EQ(metric(R"(nq_pool_jobs_submitted_total{pool="shown"})"), "1");
    EXPECT_EQ(metric(R"(nq_pool_attempts_retried_total{pool="shown"})"), "2");
    EXPECT_EQ(metric(R"(nq_pool_jobs_total{pool="shown",outcome="failed",reason="crashed"})"), "1");
    EXPECT_EQ(metric(R"(nq_pool_job_wait_seconds_count{pool="shown"})"), "1");
    EXPECT_EQ(metric(R"(nq_pool_job_run_seconds_count{pool="shown"})"), "3");
    EXPECT_EQ(status().statistics.failed, 1U);
    const auto attempts = events("attempt");
    ASSERT_EQ(attempts.size(), 3U);
    EXPECT_EQ(attempts[1]["args"]["attempt"].count(), 2U);
    EXPECT_EQ(attempts[1]["args"]["last"].count(), 0U);
    EXPECT_EQ(attempts[2]["args"]["last"].count(), 1U);
    EXPECT_NE(
        contentOf(options.timelineFile).find("0 done, 1 failed; 3 attempts"), std::string::npos);
}

TEST_F(Shown, hasNoTimeLeftWhenItsHostHasNumberedAttemptsWrongly)
{
    makeWithStatusOnly();
    nqJobOptions own;
    own.hostAttempt = 2;
    pool->cancel(submit("job", own));
    pool->stop();
    EXPECT_EQ(status().statistics.cancelled, 1U);
    EXPECT_EQ(status().timeLeft, 0ms);
}

TEST_F(Shown, tracesEachAttemptWithItsTimes)
{
    options.retry.attempts = 2;
    make();
    submitLabelled("photo.jpg");
    pump(3);
    advance(5ms);
    crash(0);
    pump(3);
    advance(7ms);
    answer(1, "result");
    pool->stop();
    const auto attempts = events("attempt");
    ASSERT_EQ(attempts.size(), 2U);
    EXPECT_EQ(attempts[0]["name"].text(), "photo.jpg");
    EXPECT_EQ(attempts[0]["dur"].count(), 5'000U);
    EXPECT_EQ(attempts[0]["args"]["outcome"].text(), "crashed");
    EXPECT_EQ(attempts[0]["args"]["last"].count(), 0U);
    EXPECT_EQ(attempts[0]["args"]["bytes"].count(), 3U);
    EXPECT_EQ(attempts[1]["ts"].count(), 5'000U);
    EXPECT_EQ(attempts[1]["dur"].count(), 7'000U);
    EXPECT_EQ(attempts[1]["args"]["attempt"].count(), 2U);
    EXPECT_EQ(attempts[1]["args"]["last"].count(), 1U);
    EXPECT_EQ(attempts[1]["args"]["result_bytes"].count(), 6U);
}

TEST_F(Shown, tracesAJobThatNoWorkerEverHeld)
{
    options.workers = 1;
    make();
    submit("one");
    pool->cancel(submit("two"));
    pool->stop();
    EXPECT_EQ(events("waiting job").size(), 2U);
}

TEST_F(Shown, appendsToItsTraceHalfASecondLaterAtTheLatest)
{
    make();
    submit("job");
    pump(3);
    advance(500ms);
    pump();
    answer(0, "result");
    EXPECT_EQ(events("attempt").size(), 0U);
    advance(500ms);
    pump();
    EXPECT_EQ(events("attempt").size(), 1U);
}

TEST_F(Shown, beginsItsTimelineWithItsFirstJob)
{
    make();
    advance(1h);
    pump();
    submit("job");
    pump(3);
    advance(250ms);
    answer(0, "result");
    pool->stop();
    EXPECT_NE(contentOf(options.timelineFile).find(">shown: 1 job in 250 ms<"), std::string::npos);
}

TEST_F(Shown, drawsTheSameFromItsTrace)
{
    options.retry.attempts = 2;
    make();
    for (int i = 0; i < 5; ++i)
        submitLabelled("photo " + std::to_string(i));
    pump(3);
    advance(5ms);
    crash(0);
    pump(3);
    for (int i = 0; i < 3; ++i) {
        advance(7ms);
        answer(1, "result");
    }
    pool->stop();
    EXPECT_EQ(nq::readPoolTrace(options.traceFile).svg(), contentOf(options.timelineFile));
}

TEST_F(Shown, goesOnWhenItsFilesCannotBeWrittenAnyMore)
{
    std::filesystem::create_directory(mFolder.file("inner"));
    options.statusFile = mFolder.file("inner/status.json");
    make();
    pump();
    std::filesystem::remove_all(mFolder.file("inner"));
    submit("job");
    pump(3);
    advance(1s);
    answer(0, "result");
    pump();
    EXPECT_EQ(outcomes.at(0).state, State::Done);
    EXPECT_GT(pool->statistics().writesFailed, 0U);
    pool->stop();
    EXPECT_GT(pool->statistics().writesFailed, 0U) << "after the end as well";
    EXPECT_EQ(
        pool->statistics().writeProblem,
        "The status file cannot be written: " + options.statusFile + ": No such file or directory");
}

} // namespace
