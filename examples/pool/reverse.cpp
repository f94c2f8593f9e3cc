// Reverses each line of standard input in worker processes, which are this program too.
#include <nqPool.h>

#include <iostream>
#include <string>
#include <string_view>

std::string reversed(std::string_view text)
{
    return {text.rbegin(), text.rend()};
}

int main(int argc, char* argv[])
{
    // In a worker process: runs the function for each job, never returns.
    nq::runAsWorker(argc, argv, [](std::string_view job) { return reversed(job); });

    nq::nqPoolOptions options; // the program itself is the worker unless told otherwise
    options.workers = 4;       // 0: one for each processor
    options.jobTimeout = std::chrono::milliseconds(500);
    options.memoryCap = 256ul << 20;
    nq::nqPool pool(options);

    for (std::string line; std::getline(std::cin, line);)
        pool.submit(line, [line](const nq::nqOutcome& outcome) {
            std::cout << line << ": " << (outcome ? outcome.text() : outcome.failureText()) << '\n';
        });
    return pool.drain() ? 0 : 1;
}
