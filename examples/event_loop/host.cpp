// The pump inside somebody else's loop. The loop here is poll(), which waits for lines on standard
// input and for the scheduler's descriptor; a GUI toolkit's loop and notifiers can take its place.
// Each line is a number, which a worker factorises while the loop goes on.
#include "line_input.h"

#include <nqScheduler.h>

#include <ctime>
#include <iostream>
#include <iterator>
#include <poll.h>
#include <string>
#include <vector>

namespace {

constexpr int tickMs = 300; // how late a limit may act; nothing else waits for it

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

/// The first call takes in results and hands out jobs. The second sends those jobs' bytes in the
/// same wake-up; what is left then keeps the descriptor readable.
void pump(nq::nqScheduler& scheduler)
{
    scheduler.processScheduler(0);
    if (scheduler.hasImmediateWork())
        scheduler.processScheduler(0);
}

/// Goes on until the input has ended and every job is resolved. Returns how often it woke up.
unsigned long runLoop(nq::nqScheduler& scheduler)
{
    LineInput input;
    const int news = scheduler.waitDescriptor(); // -1 if there is none: the tick then has it all
    unsigned long wakeUps = 0;
    while (!input.hasEnded() || scheduler.jobCount() != 0) {
        pollfd events[] = {{input.descriptor(), POLLIN, 0}, {news, POLLIN, 0}};
        if (::poll(events, std::size(events), tickMs) < 0)
            continue;
        ++wakeUps;
        if (events[0].revents != 0)
            pushLines(scheduler, input.readLines());
        pump(scheduler);
        printOutcomes(scheduler);
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
