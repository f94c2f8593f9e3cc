#include "pool/nqPoolTrace.h"

#include "pool/include/nqPool.h"
#include "pool/include/nqPoolTimeline.h"
#include "pool/nqJson.h"
#include "tests/common/files.h"

#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;
using nq::nqAttempt;
using nq::nqJson;
using nq::nqPoolTrace;
using Reason = nqAttempt::Reason;

nqAttempt attemptThatEnded(Reason reason)
{
    nqAttempt attempt;
    attempt.reason = reason;
    return attempt;
}

nqPoolTrace::Span span(std::size_t worker, nqPoolTrace::Time begin, nqPoolTrace::Time end)
{
    nqPoolTrace::Span made;
    made.worker = worker;
    made.begin = begin;
    made.end = end;
    made.job = 17;
    return made;
}

/// All events that are whole, without the names at its beginning.
std::vector<nqJson> eventsOf(const std::string& text)
{
    std::istringstream stream(text);
    std::vector<nqJson> events;
    for (std::string line; std::getline(stream, line);) {
        if (!line.empty() && line.back() == ',')
            line.pop_back();
        const auto event = nqJson::parse(line);
        if (event && event->isObject() && (*event)["ph"].text() != "M")
            events.push_back(*event);
    }
    return events;
}

class Trace : public testing::Test {
protected:
    std::string readBack(const std::string& text) const
    {
        return nq::readPoolTrace(mFolder.addFile("trace", text, 0644)).svg();
    }

    common::TemporaryFolder mFolder;
};

TEST_F(Trace, isOneArrayFromItsBeginningToItsEnd)
{
    nqPoolTrace trace(0, "name", 2);
    trace.addAttempt(span(1, 0us, 5us), attemptThatEnded(Reason::None));
    trace.close(9us);
    const auto whole = nqJson::parse(trace.take());
    ASSERT_TRUE(whole);
    EXPECT_EQ(whole->elements().size(), 7U) << "format, four names, one attempt, the end";
}

TEST_F(Trace, namesATrackForEachWorker)
{
    const std::string text = nqPoolTrace(0, "name", 2).take();
    EXPECT_NE(text.find(R"("tid":2,"ts":0,"args":{"name":"worker 2"})"), std::string::npos);
}

TEST_F(Trace, tellsOfEachAttempt)
{
    nqPoolTrace trace(0, {}, 4);
    nqPoolTrace::Span made = span(3, 100us, 350us);
    made.label = "a \"photo\"";
    made.attemptNumber = 2;
    made.jobBytes = 4096;
    made.resultBytes = 0;
    trace.addAttempt(made, attemptThatEnded(Reason::MemoryCap));
    const auto events = eventsOf(trace.take());
    ASSERT_EQ(events.size(), 1U);
    const nqJson& event = events[0];
    EXPECT_EQ(event["ph"].text(), "X");
    EXPECT_EQ(event["name"].text(), "a \"photo\"");
    EXPECT_EQ(event["tid"].count(), 3U);
    EXPECT_EQ(event["ts"].count(), 100U);
    EXPECT_EQ(event["dur"].count(), 250U);
    EXPECT_EQ(event["args"]["id"].count(), 17U);
    EXPECT_EQ(event["args"]["outcome"].text(), "memory_cap");
    EXPECT_EQ(event["args"]["attempt"].count(), 2U);
    EXPECT_EQ(event["args"]["bytes"].count(), 4096U);
}

TEST_F(Trace, callsAJobWithoutALabelByItsId)
{
    nqPoolTrace trace(0, {}, 1);
    trace.addAttempt(span(1, 0us, 1us), attemptThatEnded(Reason::None));
    EXPECT_EQ(eventsOf(trace.take()).at(0)["name"].text(), "job 17");
}

TEST_F(Trace, countsWhatWaitsAndTheMemoryOfEachWorker)
{
    nqPoolTrace trace(0, {}, 2);
    trace.addQueued(5us, 12);
    std::vector<nq::nqPoolWorkerStatus> workers(1);
    workers[0].number = 2;
    workers[0].residentMemory = 1000;
    trace.addMemory(6us, workers);
    const auto events = eventsOf(trace.take());
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0]["ph"].text(), "C");
    EXPECT_EQ(events[0]["args"]["jobs"].count(), 12U);
    EXPECT_EQ(events[1]["args"]["worker 2"].count(), 1000U);
}

TEST_F(Trace, givesWhatIsNewInWholeLines)
{
    nqPoolTrace trace(0, {}, 1);
    trace.take();
    EXPECT_EQ(trace.pendingBytes(), 0U);
    trace.addQueued(5us, 1);
    const std::string text = trace.take();
    EXPECT_EQ(text.substr(text.size() - 2), ",\n");
    EXPECT_EQ(trace.take(), "");
}

TEST_F(Trace, staysBelowItsLimitAndSaysSo)
{
    constexpr std::uint64_t limit = 4'000;
    nqPoolTrace trace(limit, {}, 1);
    for (int i = 0; i < 1'000; ++i)
        trace.addAttempt(span(1, 1us * i, 1us * (i + 1)), attemptThatEnded(Reason::None));
    trace.close(1'000us);
    const std::string text = trace.take();
    EXPECT_LE(text.size(), limit);
    EXPECT_GT(text.size(), limit / 2);
    EXPECT_TRUE(nqJson::parse(text));
    const auto events = eventsOf(text);
    EXPECT_EQ(events.at(0)["ts"].count(), 0U) << "the oldest ones stay";
    EXPECT_EQ(
        events.at(events.size() - 2)["name"].text(),
        "the trace has reached its limit: what comes later is left out");
}

TEST_F(Trace, isReadAsTheTimelineThatThePoolItselfDraws)
{
    nqPoolTrace trace(0, "the run", 2);
    nq::nqPoolTimeline timeline(2, "the run");
    nqPoolTrace::Span made = span(1, 0us, 100us);
    made.label = "first";
    trace.addAttempt(made, attemptThatEnded(Reason::Crashed));
    timeline.addAttempt({1, 0us, 100us, Reason::Crashed, true, 17, "first"});
    trace.addWorkerEnded(101us, 1, nq::nqWorkerEnd::Crashed);
    trace.addWorkerLaunched(120us, 1, 4711);
    timeline.addRestart(1, 120us, "crashed");
    trace.addWorkerLaunched(125us, 2, 4712); // the first one there
    trace.addQueued(130us, 5);
    timeline.addQueued(130us, 5);
    made = span(2, 130us, 140us);
    made.isLast = false;
    trace.addAttempt(made, attemptThatEnded(Reason::Timeout));
    timeline.addAttempt({2, 130us, 140us, Reason::Timeout, false, 17, {}});
    trace.addWaitingJob(150us, 18, "waits", Reason::Cancelled);
    timeline.addAttempt({0, 150us, 150us, Reason::Cancelled, true, 18, "waits"});
    trace.close(160us);
    EXPECT_EQ(readBack(trace.take()), timeline.svg());
}

TEST_F(Trace, isReadUpToWhereverItWasCut)
{
    nqPoolTrace trace(0, {}, 1);
    const std::size_t none = trace.pendingBytes();
    trace.addAttempt(span(1, 0us, 10us), attemptThatEnded(Reason::None));
    const std::size_t one = trace.pendingBytes();
    trace.addAttempt(span(1, 10us, 20us), attemptThatEnded(Reason::None));
    const std::string text = trace.take();
    constexpr std::size_t end = 2; // a line without its comma and its end is whole as well
    for (std::size_t size = none; size <= text.size(); ++size) {
        const std::string title = size + end < one           ? ">0 jobs in"
                                  : size + end < text.size() ? ">1 job in"
                                                             : ">2 jobs in";
        EXPECT_NE(readBack(text.substr(0, size)).find(title), std::string::npos) << size;
    }
}

TEST_F(Trace, isReadWithTimesThatNobodyLivesToSee)
{
    std::string text = nqPoolTrace(0, {}, 1).take();
    text +=
        R"({"ph":"X","tid":1,"ts":18446744073709551615,"dur":18446744073709551615,"cat":"attempt","args":{"last":1}})";
    EXPECT_NE(readBack(text).find("1 job in"), std::string::npos);
}

TEST_F(Trace, isRefusedWhenItIsMissing)
{
    EXPECT_THROW(nq::readPoolTrace(mFolder.file("none")), nq::nqPoolError);
}

TEST_F(Trace, isRefusedWhenItIsOfAnotherProgram)
{
    for (const char* const text :
         {"",
          "[\n",
          "[\n{\"ph\":\"X\",\"name\":\"other\"}\n]\n",
          "[\n{\"args\":{\"labels\":\"nqPool trace\",\"workers\":99999999999}},\n"})
        EXPECT_THROW(readBack(text), nq::nqPoolError) << text;
}

} // namespace
