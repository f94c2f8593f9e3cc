#include "tests/chaos/violation.h"

#include "tests/chaos/board.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <mutex>
#include <thread>

namespace chaos {

namespace {

constexpr int exitCode = 1;
constexpr std::int64_t longestSilence = 60'000'000'000; // nanoseconds
constexpr timespec watchInterval{0, 200'000'000};

struct Story {
    std::mutex mutex;
    std::string text;
};

Story& story()
{
    static auto* const only = new Story; // the watching thread outlives static objects
    return *only;
}

std::atomic<std::int64_t> lastProgress{0};

[[noreturn]] void watch(StateText state)
{
    for (;;) {
        nanosleep(&watchInterval, nullptr);
        if (now() - lastProgress > longestSilence)
            reportViolation("the host hangs\n" + state());
    }
}

} // namespace

void setStory(const std::string& text)
{
    const std::lock_guard guard(story().mutex);
    story().text = text;
}

void tellProgress()
{
    lastProgress = now();
}

void startWatchdog(StateText state)
{
    tellProgress();
    // The host's signals are for its own threads.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread(watch, state).detach();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void reportViolation(const std::string& what)
{
    const std::lock_guard guard(story().mutex); // never given back: the first report is the one
    std::cout << "VIOLATION: " << what << "\n" << story().text << std::endl;
    std::_Exit(exitCode);
}

} // namespace chaos
