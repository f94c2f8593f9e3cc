// A program that is its own worker: its pool reverses one job here and one on a thread.
#include <nqPool.h>
#include <nqPoolThread.h>

#include <future>
#include <iostream>
#include <string>
#include <string_view>

int main(int argc, char* argv[])
{
    nq::runAsWorker(
        argc, argv, [](std::string_view job) { return std::string(job.rbegin(), job.rend()); });

    std::cout << "version " << NQ_POOL_VERSION_STRING << '\n';
    nq::nqPoolOptions options;
    options.workers = 1;
    nq::nqPool pool(options);
    pool.submit("desserts", [](const nq::nqOutcome& outcome) {
        std::cout << "pool " << (outcome ? outcome.text() : outcome.failureText()) << '\n';
    });
    if (!pool.drain())
        return 1;

    nq::nqPoolThread thread(options);
    const nq::nqOutcome outcome = thread.submit("stressed").get();
    std::cout << "thread " << (outcome ? outcome.text() : outcome.failureText()) << '\n';
    return outcome ? 0 : 1;
}
