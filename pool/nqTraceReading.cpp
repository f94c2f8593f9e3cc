#include "pool/include/nqPool.h"
#include "pool/include/nqPoolTimeline.h"
#include "pool/nqEndNames.h"
#include "pool/nqJson.h"
#include "pool/nqPoolTrace.h"

#include <algorithm>
#include <fstream>
#include <map>
#include <optional>
#include <utility>

namespace nq {

namespace {

using Time = nqPoolTimeline::Time;

/// More than any pool has; a file that says more was not written by one.
constexpr std::uint64_t mostWorkers = 1'000'000;

/// Likewise; two of them can be added.
constexpr std::uint64_t longestMicroseconds = 3'000'000'000'000'000; // a hundred years

Time timeOf(const nqJson& microseconds)
{
    return Time(static_cast<std::int64_t>(std::min(microseconds.count(), longestMicroseconds)));
}

/// The event of one line; empty for the brackets around all of them, and for half a line.
std::optional<nqJson> eventOf(std::string_view line)
{
    if (!line.empty() && line.back() == ',')
        line.remove_suffix(1);
    std::optional<nqJson> event = nqJson::parse(line);
    return event && event->isObject() ? std::move(event) : std::nullopt;
}

/// An empty timeline as the first event asks for it.
std::optional<nqPoolTimeline> timelineFor(const nqJson& event)
{
    const nqJson& arguments = event["args"];
    const std::uint64_t workers = arguments["workers"].count();
    if (arguments["labels"].text() != traceFormat || workers > mostWorkers)
        return std::nullopt;
    return nqPoolTimeline(static_cast<std::size_t>(workers), arguments["title"].text());
}

class Reader {
public:
    explicit Reader(nqPoolTimeline& timeline)
        : mTimeline(timeline)
    {
    }

    void take(const nqJson& event)
    {
        const std::string category = event["cat"].text();
        if (category == "attempt" || category == "waiting job")
            takeJob(event);
        else if (category == "end")
            mEnds[event["tid"].count()] = event["name"].text();
        else if (category == "launch")
            takeLaunch(event);
        else if (event["ph"].text() == "C" && event["name"].text() == "queue")
            mTimeline.addQueued(
                timeOf(event["ts"]), static_cast<std::size_t>(event["args"]["jobs"].count()));
    }

private:
    void takeJob(const nqJson& event)
    {
        const nqJson& arguments = event["args"];
        const std::string name = event["name"].text();
        nqPoolTimeline::Attempt attempt;
        attempt.worker = static_cast<std::size_t>(event["tid"].count());
        attempt.begin = timeOf(event["ts"]);
        attempt.end = attempt.begin + timeOf(event["dur"]);
        attempt.reason = reasonNamed(arguments["outcome"].text());
        attempt.isLast = attempt.worker == 0 || arguments["last"].count() != 0;
        attempt.job = arguments["id"].count();
        attempt.label = name;
        mTimeline.addAttempt(attempt);
    }

    void takeLaunch(const nqJson& event)
    {
        const auto before = mEnds.find(event["tid"].count());
        if (before == mEnds.end())
            return;
        if (before->second != nameOf(nqWorkerEnd::Stopped))
            mTimeline.addRestart(
                static_cast<std::size_t>(before->first), timeOf(event["ts"]), before->second);
        mEnds.erase(before);
    }

    nqPoolTimeline& mTimeline;
    std::map<std::uint64_t, std::string> mEnds; ///< of workers that have no successor yet
};

} // namespace

nqPoolTimeline readPoolTrace(const std::string& file)
{
    std::ifstream stream(file, std::ios::binary);
    std::string line;
    std::getline(stream, line);
    if (!stream)
        throw nqPoolError("The trace " + file + " cannot be read");
    std::getline(stream, line);
    const std::optional<nqJson> first = eventOf(line);
    std::optional<nqPoolTimeline> timeline = first ? timelineFor(*first) : std::nullopt;
    if (!timeline)
        throw nqPoolError(file + " is not the trace of a pool");
    Reader reader(*timeline);
    while (std::getline(stream, line)) {
        if (const std::optional<nqJson> event = eventOf(line))
            reader.take(*event);
    }
    return std::move(*timeline);
}

} // namespace nq
