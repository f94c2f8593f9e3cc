#include "pool/nqPoolStatusFile.h"

#include "pool/nqJson.h"
#include "tests/common/files.h"

#include <gtest/gtest.h>
#include <string>

namespace {

using namespace std::chrono_literals;
using nq::nqPoolStatus;
using nq::statusText;

class StatusFile : public testing::Test {
protected:
    nqPoolStatus readBack(const std::string& text) const
    {
        return nq::readPoolStatus(mFolder.addFile("status", text, 0644));
    }

    std::string refusalOf(const std::string& path) const
    {
        try {
            nq::readPoolStatus(path);
            return "(none)";
        } catch (const nq::nqPoolError& error) {
            return error.what();
        }
    }

    common::TemporaryFolder mFolder;
};

TEST_F(StatusFile, isReadBackAsItWasWritten)
{
    nqPoolStatus status;
    status.state = nqPoolStatus::State::Ended;
    status.name = "the \"pool\"\n";
    status.host = 4711;
    status.written = std::chrono::system_clock::time_point(1'700'000'000'123ms);
    status.problem = "no worker";
    status.timeLeft = 90'500ms;
    auto& statistics = status.statistics;
    statistics.submitted = 1'000'000'000'000;
    statistics.done = 2;
    statistics.failed = 3;
    statistics.cancelled = 4;
    statistics.retried = 5;
    statistics.byReason[10] = 6;
    statistics.queued = 7;
    statistics.running = 8;
    statistics.alive = 9;
    statistics.launched = 10;
    statistics.launchesFailed = 11;
    statistics.jobBytes = ~std::uint64_t{0};
    statistics.resultBytes = 13;
    statistics.writesFailed = 14;
    statistics.age = 36'000'000'001us;
    statistics.donePerSecond = 12.375;
    statistics.medianRunTime = 15us;
    statistics.p90RunTime = 16us;
    statistics.p99RunTime = 17us;
    statistics.longestRunTime = 18us;
    const nqPoolStatus read = readBack(statusText(status));
    EXPECT_EQ(read.state, status.state);
    EXPECT_EQ(read.name, status.name);
    EXPECT_EQ(read.host, status.host);
    EXPECT_EQ(read.written, status.written);
    EXPECT_EQ(read.problem, status.problem);
    EXPECT_EQ(read.timeLeft, status.timeLeft);
    EXPECT_EQ(read.statistics.submitted, statistics.submitted);
    EXPECT_EQ(read.statistics.done, statistics.done);
    EXPECT_EQ(read.statistics.failed, statistics.failed);
    EXPECT_EQ(read.statistics.cancelled, statistics.cancelled);
    EXPECT_EQ(read.statistics.retried, statistics.retried);
    EXPECT_EQ(read.statistics.byReason, statistics.byReason);
    EXPECT_EQ(read.statistics.queued, statistics.queued);
    EXPECT_EQ(read.statistics.running, statistics.running);
    EXPECT_EQ(read.statistics.alive, statistics.alive);
    EXPECT_EQ(read.statistics.launched, statistics.launched);
    EXPECT_EQ(read.statistics.launchesFailed, statistics.launchesFailed);
    EXPECT_EQ(read.statistics.jobBytes, statistics.jobBytes);
    EXPECT_EQ(read.statistics.resultBytes, statistics.resultBytes);
    EXPECT_EQ(read.statistics.writesFailed, statistics.writesFailed);
    EXPECT_EQ(read.statistics.age, statistics.age);
    EXPECT_DOUBLE_EQ(read.statistics.donePerSecond, statistics.donePerSecond);
    EXPECT_EQ(read.statistics.medianRunTime, statistics.medianRunTime);
    EXPECT_EQ(read.statistics.p90RunTime, statistics.p90RunTime);
    EXPECT_EQ(read.statistics.p99RunTime, statistics.p99RunTime);
    EXPECT_EQ(read.statistics.longestRunTime, statistics.longestRunTime);
}

TEST_F(StatusFile, tellsOfEachWorker)
{
    nqPoolStatus status;
    status.workers.resize(2);
    status.workers[0] = {1, 4711, 17, "a\tlabel", 12, 1'000'000, 1'250ms};
    status.workers[1] = {3, 4712, 0, "", 0, 0, 0ms};
    const auto read = readBack(statusText(status)).workers;
    ASSERT_EQ(read.size(), 2U);
    EXPECT_EQ(read[0].number, 1U);
    EXPECT_EQ(read[0].pid, 4711);
    EXPECT_EQ(read[0].job, 17U);
    EXPECT_EQ(read[0].label, "a\tlabel");
    EXPECT_EQ(read[0].jobsDone, 12U);
    EXPECT_EQ(read[0].residentMemory, 1'000'000U);
    EXPECT_EQ(read[0].timeInJob, 1'250ms);
    EXPECT_EQ(read[1].number, 3U);
    EXPECT_EQ(read[1].job, 0U);
}

TEST_F(StatusFile, showsLabelsOfAnyBytesInBounds)
{
    nqPoolStatus status;
    status.workers.resize(1);
    status.workers[0].job = 1;
    status.workers[0].label = "\xFF" + std::string(100'000, 'x');
    const std::string text = statusText(status);
    EXPECT_LT(text.size(), 2'000U);
    const std::string label = readBack(text).workers.at(0).label;
    EXPECT_EQ(label.substr(0, 4), "\uFFFDx");
    EXPECT_EQ(label.substr(label.size() - 3), "\u2026");
}

TEST_F(StatusFile, hasNoTimeLeftWhereNothingIsKnown)
{
    EXPECT_FALSE(readBack(statusText({})).timeLeft);
}

TEST_F(StatusFile, isReadWithMembersThatALaterVersionHasAdded)
{
    std::string text = statusText({});
    text.insert(1, R"("new": {"x": [1]}, )");
    EXPECT_EQ(readBack(text).state, nqPoolStatus::State::Running);
}

TEST_F(StatusFile, isRefusedWhenItIsMissing)
{
    const std::string path = mFolder.file("none");
    EXPECT_EQ(refusalOf(path), "The status file " + path + " cannot be read");
}

TEST_F(StatusFile, isRefusedWhenItIsAFolder)
{
    const std::string path = mFolder.path();
    EXPECT_EQ(refusalOf(path), "The status file " + path + " cannot be read: it is a folder");
}

TEST_F(StatusFile, isRefusedWhenItIsSomethingElse)
{
    for (const char* const text : {"", "{}", "[]", "words", "{\"format\": \"nqPool trace\"}"}) {
        const std::string path = mFolder.addFile("other", text, 0644);
        EXPECT_EQ(refusalOf(path), path + " is not the status file of a pool");
    }
}

TEST_F(StatusFile, isRefusedWhenItsVersionIsUnknown)
{
    const std::string path =
        mFolder.addFile("later", R"({"format": "nqPool status", "version": 2})", 0644);
    EXPECT_EQ(refusalOf(path), path + " is the status file of another version of the library");
}

} // namespace
