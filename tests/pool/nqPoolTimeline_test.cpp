#include "pool/include/nqPoolTimeline.h"

#include "pool/include/nqPool.h"
#include "pool/nqTimelineRecord.h"
#include "tests/common/files.h"

#include <cstddef>
#include <gtest/gtest.h>
#include <numeric>
#include <string>

namespace {

using namespace std::chrono_literals;
using nq::nqPoolTimeline;
using nq::nqTimelineRecord;
using Look = nqTimelineRecord::Look;
using Reason = nq::nqAttempt::Reason;
using Time = nqPoolTimeline::Time;

nqPoolTimeline::Attempt
attempt(std::size_t worker, Time begin, Time end, Reason reason = Reason::None)
{
    return {worker, begin, end, reason, true, 1, {}};
}

std::size_t countOf(const std::string& text, const std::string& part)
{
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

double timeOf(const nqTimelineRecord::Row& row, Look look)
{
    return std::accumulate(
        row.cells.begin(),
        row.cells.end(),
        0.0,
        [&](double sum, const nqTimelineRecord::Cell& cell) {
            return sum + static_cast<double>(cell.times[static_cast<std::size_t>(look)]);
        });
}

TEST(Timeline, saysInItsTitleHowManyJobsTookHowLong)
{
    nqPoolTimeline timeline(2, "thumbnails");
    for (int i = 0; i < 1'234; ++i)
        timeline.addAttempt(attempt(1, i * 10ms, i * 10ms + 5ms));
    EXPECT_TRUE(contains(timeline.svg(), ">thumbnails: 1,234 jobs in 12.3 s</text>"));
}

TEST(Timeline, countsAJobThatWasTriedAgainOnce)
{
    nqPoolTimeline timeline(1);
    nqPoolTimeline::Attempt first = attempt(1, 0ms, 1ms, Reason::Timeout);
    first.isLast = false;
    timeline.addAttempt(first);
    timeline.addAttempt(attempt(1, 1ms, 2ms));
    const std::string svg = timeline.svg();
    EXPECT_TRUE(contains(svg, ">1 job in 2 ms</text>"));
    EXPECT_TRUE(contains(svg, "1 done, 0 failed; 2 attempts</text>"));
}

TEST(Timeline, countsAJobThatNoWorkerHeld)
{
    nqPoolTimeline timeline(1);
    timeline.addAttempt(attempt(0, 1ms, 1ms, Reason::Cancelled));
    EXPECT_TRUE(contains(timeline.svg(), "0 done, 0 failed, 1 cancelled</text>"));
}

TEST(Timeline, hasALegendOfTheReasonsThatThereWere)
{
    nqPoolTimeline timeline(1);
    timeline.addAttempt(attempt(1, 0ms, 1ms));
    timeline.addAttempt(attempt(1, 1ms, 2ms, Reason::MemoryCap));
    const std::string svg = timeline.svg();
    EXPECT_TRUE(contains(svg, ">done 1</text>"));
    EXPECT_TRUE(contains(svg, ">memory cap 1</text>"));
    EXPECT_FALSE(contains(svg, ">crashed"));
}

TEST(Timeline, putsALongLegendIntoMoreThanOneLine)
{
    nqPoolTimeline timeline(1);
    for (int reason = 0; reason <= static_cast<int>(Reason::Stopped); ++reason)
        timeline.addAttempt(attempt(1, reason * 1ms, reason * 1ms, static_cast<Reason>(reason)));
    const std::string svg = timeline.svg();
    EXPECT_TRUE(contains(svg, "y=\"86\">done 1</text>"));
    EXPECT_TRUE(contains(svg, "y=\"108\">stopped 1</text>"));
}

TEST(Timeline, tellsOfABarWhatItIs)
{
    nqPoolTimeline timeline(2);
    timeline.addAttempt({2, 100ms, 350ms, Reason::Timeout, true, 17, "a <photo>.jpg"});
    timeline.addAttempt({1, 100ms, 350ms, Reason::None, true, 18, {}});
    const std::string svg = timeline.svg();
    EXPECT_TRUE(contains(
        svg, "<title>a &lt;photo&gt;.jpg: timeout after 250 ms (worker 2, from 100 ms)</title>"));
    EXPECT_TRUE(contains(svg, "<title>job 18: done after 250 ms (worker 1, from 100 ms)</title>"));
}

TEST(Timeline, marksEachReplacedWorkerWithItsCause)
{
    nqPoolTimeline timeline(2);
    timeline.addAttempt(attempt(2, 0ms, 10ms, Reason::MemoryCap));
    timeline.addRestart(2, 10ms, "memory_cap");
    EXPECT_TRUE(contains(timeline.svg(), "<title>worker 2 replaced: memory cap</title>"));
    EXPECT_TRUE(contains(timeline.svg(), "; 1 restart</text>"));
}

TEST(Timeline, hasARowForEachWorkerAndLabelsThatDoNotTouch)
{
    for (const std::size_t workers : {1U, 4U, 64U, 256U}) {
        const std::string svg = nqPoolTimeline(workers).svg();
        EXPECT_EQ(countOf(svg, "<rect class=\"row\""), workers);
    }
    EXPECT_EQ(countOf(nqPoolTimeline(4).svg(), ">worker "), 4U + 4U) << "labels and tooltips";
    EXPECT_LT(countOf(nqPoolTimeline(64).svg(), "text-anchor=\"end\">worker "), 64U);
}

TEST(Timeline, countsTheWorkersForWhomThereIsNoRow)
{
    nqPoolTimeline timeline(1'000);
    timeline.addAttempt(attempt(1'000, 0ms, 10ms));
    const std::string svg = timeline.svg();
    EXPECT_TRUE(contains(svg, ">1,000 workers"));
    EXPECT_TRUE(contains(svg, "1 done"));
}

TEST(Timeline, ofNothingIsAPictureToo)
{
    EXPECT_TRUE(contains(nqPoolTimeline(0).svg(), ">0 jobs in 0 ms</text>"));
}

TEST(Timeline, putsTicksWhereTimesAreRound)
{
    nqPoolTimeline timeline(1);
    timeline.addAttempt(attempt(1, 0h, 10h));
    const std::string svg = timeline.svg();
    EXPECT_TRUE(contains(svg, ">2 h</text>"));
    EXPECT_TRUE(contains(svg, ">10 h</text>"));
    EXPECT_FALSE(contains(svg, ">1 h</text>"));
}

TEST(Timeline, hasTheSameSizeForAMillionJobs)
{
    nqPoolTimeline timeline(8);
    for (int i = 0; i < 1'000'000; ++i)
        timeline.addAttempt(attempt(
            static_cast<std::size_t>(1 + i % 8),
            i * 1ms,
            i * 1ms + 7ms,
            i % 1'000 == 0 ? Reason::Crashed : Reason::None));
    const std::string svg = timeline.svg();
    EXPECT_LT(svg.size(), 500'000U);
    EXPECT_TRUE(contains(svg, ">1,000,000 jobs in "));
    EXPECT_TRUE(contains(svg, ">crashed 1,000</text>"));
    EXPECT_TRUE(contains(svg, "class=\"Died\" d=")) << "failures can be seen";
}

TEST(Timeline, isWrittenToAFile)
{
    const common::TemporaryFolder folder;
    const nqPoolTimeline timeline(1, "title");
    timeline.write(folder.file("run.svg"));
    EXPECT_EQ(common::contentOf(folder.file("run.svg")), timeline.svg());
}

TEST(Timeline, saysWhyItCannotBeWritten)
{
    EXPECT_THROW(nqPoolTimeline(1).write("/dev/null"), nq::nqPoolError);
}

TEST(TimelineRecord, keepsTheTimeOfEachLookWhileColumnsMerge)
{
    nqTimelineRecord record(2);
    for (int i = 0; i < 10'000; ++i) {
        record.addAttempt(attempt(1, i * 1ms, i * 1ms + 500us));
        record.addAttempt(attempt(2, i * 1ms, i * 1ms + 250us, Reason::Timeout));
    }
    EXPECT_NEAR(timeOf(record.rows()[0], Look::Done), 5e6, 1e3);
    EXPECT_NEAR(timeOf(record.rows()[1], Look::Late), 2.5e6, 1e3);
    EXPECT_DOUBLE_EQ(timeOf(record.rows()[0], Look::Late), 0);
}

TEST(TimelineRecord, putsAnAttemptIntoAllColumnsThatItCovers)
{
    nqTimelineRecord record(1);
    record.addAttempt(attempt(1, 0us, 160us));
    ASSERT_EQ(record.columnWidth(), 16us);
    for (std::size_t column = 0; column < 10; ++column)
        EXPECT_FLOAT_EQ(record.rows()[0].cells.at(column).times[0], 16) << column;
}

TEST(TimelineRecord, takesBoundedMemoryHoweverLongTheRun)
{
    nqTimelineRecord record(64);
    for (const Time end : {Time(20ms), Time(10s), Time(10h), Time(10'000h)}) {
        record.addAttempt(attempt(64, end - 1us, end));
        record.addQueued(end, 1);
        EXPECT_LE(record.rows()[63].cells.size(), 1'024U);
        EXPECT_LE(record.queued().size(), 1'024U);
    }
}

TEST(TimelineRecord, keepsFailedBarsOfManyForPointingAt)
{
    nqTimelineRecord record(1);
    for (int i = 0; i < 10'000; ++i)
        record.addAttempt(
            attempt(1, i * 1ms, i * 1ms + 1ms, i % 100 == 0 ? Reason::Crashed : Reason::None));
    EXPECT_FALSE(record.areAllBarsKept());
    EXPECT_EQ(record.bars().size(), 100U);
    for (const nqTimelineRecord::Bar& bar : record.bars())
        EXPECT_EQ(bar.reason, Reason::Crashed);
}

TEST(TimelineRecord, takesTimesInAnyOrderAndNoneBeforeTheBeginning)
{
    nqTimelineRecord record(1);
    record.addAttempt(attempt(1, 10ms, 20ms));
    record.addAttempt(attempt(1, -5ms, 3ms));
    record.addAttempt(attempt(1, 5ms, 4ms));
    EXPECT_EQ(record.end(), 20ms);
    EXPECT_NEAR(timeOf(record.rows()[0], Look::Done), 13e3, 1);
}

TEST(TimelineRecord, keepsTheMostAndTheLastOfWhatWaited)
{
    nqTimelineRecord record(1);
    record.addQueued(1us, 5);
    record.addQueued(2us, 9);
    record.addQueued(3us, 7);
    EXPECT_EQ(record.queued().at(0).most, 9U);
    EXPECT_EQ(record.queued().at(0).last, 7U);
    record.addQueued(1s, 0); // so that columns merge
    EXPECT_EQ(record.queued().at(0).most, 9U);
}

TEST(TimelineRecord, countsRestartsOfManyInTheirColumns)
{
    nqTimelineRecord record(1);
    for (int i = 0; i < 2'000; ++i)
        record.addRestart(1, i * 1ms, "crashed");
    std::uint64_t count = 0;
    for (const nqTimelineRecord::Cell& cell : record.rows()[0].cells)
        count += cell.restarts;
    EXPECT_EQ(count, 2'000U);
    EXPECT_EQ(record.restartCount(), 2'000U);
    EXPECT_LT(record.restarts().size(), 2'000U);
}

} // namespace
