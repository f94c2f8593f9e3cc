// Runs jobs in worker processes. Some of them crash, hang or grow; the program does not.
#include <nqPool.h>

#include <csignal>
#include <iostream>
#include <string>
#include <unistd.h>
#include <vector>

std::string reversed(std::string_view job)
{
    std::vector<std::string> heap;
    while (job == "grow")
        heap.emplace_back(1 << 20, 'x');
    while (job == "hang")
        ::pause();
    if (job == "crash")
        std::raise(SIGSEGV);
    return {job.rbegin(), job.rend()};
}

int main(int argc, char* argv[])
{
    nq::runAsWorker(argc, argv, reversed); // in a worker process: does its jobs, never returns

    nq::nqPoolOptions options; // by default as many workers as processors, of this very program
    options.jobTimeout = std::chrono::seconds(2);
    options.memoryCap = 128ul << 20; // bytes
    nq::nqPool pool(options);
    for (const std::string job : {"stressed", "crash", "hang", "grow", "drawer"})
        pool.submit(job, [job](const nq::nqOutcome& outcome) {
            std::cout << job << ": " << (outcome ? outcome.text() : outcome.failureText()) << '\n';
        });
    return pool.drain() ? 0 : 1; // waits for all; false: some were not done
}
