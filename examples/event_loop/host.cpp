// The pump inside somebody else's loop. The loop here is poll(), which waits for lines on standard
// input and for a timer; a GUI toolkit's loop and timer can take their places. Each line is a
// number, which a worker factorises while the loop goes on.
#include "line_input.h"
#include "ticker.h"

#include <nqScheduler.h>

#include <chrono>
#include <ctime>
#include <iostream>
#include <iterator>
#include <poll.h>
#include <string>
#include <vector>

namespace {

using std::chrono::milliseconds;

constexpr milliseconds busyTick{10};  // how late a result, the job after it or a limit may be
constexpr milliseconds idleTick{500}; // how late a worker that dies idle may be replaced

void pushLines(nq::nqScheduler& scheduler, const std::vector<std::string>& lines)
{
    for (const std::string& line : lines) {
        if (!line.empty()) // an empty job is counted, but never sent
            scheduler.push({line.begin(), line.end()});
    }
}

void printOutcomes(nq::nqScheduler& scheduler)
{
    std::vector<char> bytes;
    while (scheduler.pop(bytes))
        std::cout << std::string(bytes.begin(), bytes.end()) << std::endl;

    nq::nqScheduler::FailReason reason{};
    std::string message;
    while (scheduler.popFail(bytes, reason, message))
        std::cout << std::string(bytes.begin(), bytes.end()) << " failed: " << message << std::endl;
}

/// Goes on until the input has ended and every job is resolved. Returns how often it woke up.
unsigned long runLoop(nq::nqScheduler& scheduler)
{
    LineInput input;
    Ticker ticker;
    ticker.setPeriod(idleTick);
    unsigned long wakeUps = 0;
    while (!input.hasEnded() || scheduler.jobCount() != 0) {
        pollfd events[] = {{input.descriptor(), POLLIN, 0}, {ticker.descriptor(), POLLIN, 0}};
        if (::poll(events, std::size(events), -1) <= 0)
            continue;
        ++wakeUps;
        if (events[0].revents != 0)
            pushLines(scheduler, input.readLines());
        if (events[1].revents != 0)
            ticker.acknowledge();

        // Twice: the first call takes in results and hands out jobs, the second sends those jobs'
        // bytes. Also after a push, so that no job waits for the tick.
        scheduler.processScheduler(0);
        scheduler.processScheduler(0);
        printOutcomes(scheduler);
        ticker.setPeriod(scheduler.jobCount() != 0 ? busyTick : idleTick);
    }
    return wakeUps;
}

long long millisecondsOf(clockid_t clock)
{
    timespec time{};
    ::clock_gettime(clock, &time);
    return time.tv_sec * 1'000LL + time.tv_nsec / 1'000'000;
}

} // namespace

int main(int argc, char* argv[])
{
    if (argc != 2) {
        std::cerr << "usage: event-loop-host WORKER < numbers\n";
        return 2;
    }
    nq::nqScheduler scheduler(argv[1], false, {}, true);
    scheduler.setJobProcessTimeout(60);
    if (!scheduler.startScheduler(2, 10'000)) {
        std::cerr << "the workers could not be started\n";
        return 1;
    }

    const long long before = millisecondsOf(CLOCK_MONOTONIC);
    const long long usedBefore = millisecondsOf(CLOCK_PROCESS_CPUTIME_ID);
    const unsigned long wakeUps = runLoop(scheduler);
    std::cout << wakeUps << " wake-ups in " << millisecondsOf(CLOCK_MONOTONIC) - before << " ms, "
              << millisecondsOf(CLOCK_PROCESS_CPUTIME_ID) - usedBefore << " ms of processor time"
              << std::endl;
    return 0;
}
