// A host for ThreadSanitizer: two threads, each with a pool of its own, whose workers crash, take
// too long and answer, and beside them a thread that forks.

#include "machine.h"
#include "pool.h"

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>

namespace {

using end_to_end::Pool;

std::atomic<bool> isOver{false};

/// The first thing that went otherwise than it should; empty if nothing did.
std::string runPool()
{
    Pool pool;
    pool.scheduler().setJobProcessTimeout(1);
    if (!pool.start(2))
        return "the pool did not start";
    for (int round = 0; round < 3; ++round) {
        const std::string text = "round " + std::to_string(round);
        if (pool.ask("echo " + text) != text)
            return "an answer is wrong";
        if (pool.ask("crash") != "(Unexpected crash)")
            return "a crash went unnoticed";
    }
    if (pool.ask("hang").find("timeout") == std::string::npos)
        return "a job without end was not ended";
    if (pool.ask("echo after") != "after")
        return "the pool is not whole";
    return pool.scheduler().stopScheduler() ? "" : "the pool did not stop";
}

void forkUntilOver()
{
    while (!isOver) {
        const pid_t child = fork();
        if (child == 0)
            _exit(EXIT_SUCCESS);
        waitpid(child, nullptr, 0);
    }
}

} // namespace

int main()
{
    const end_to_end::CapturingLog log;
    std::string failures[2];
    std::thread forking(forkUntilOver);
    std::thread pools[2];
    for (int index = 0; index < 2; ++index)
        pools[index] = std::thread([&failures, index] { failures[index] = runPool(); });
    for (std::thread& pool : pools)
        pool.join();
    isOver = true;
    forking.join();

    for (const std::string& failure : failures)
        if (!failure.empty())
            std::cerr << failure << std::endl;
    return failures[0].empty() && failures[1].empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}
