// A host that is its own worker, for what a test cannot do to itself.
//
//   own_program_host serve FIFO   each line of FIFO is a job, whose outcome is a line of the output
//   own_program_host forgetful    the same without runAsWorker()
//
// It ends with 3, and the refusal on standard error, when it is refused a pool.
#include "nqPool.h"
#include "tests/pool_end_to_end/test_work.h"

#include <fstream>
#include <iostream>
#include <string>
#include <string_view>

namespace {

constexpr int wasRefused = 3;

void serve(const std::string& fifo)
{
    nq::nqPoolOptions options;
    options.workers = 1;
    nq::nqPool pool(options);
    std::ifstream jobs(fifo);
    for (std::string job; std::getline(jobs, job);) {
        pool.submit(job, [](const nq::nqOutcome& outcome) {
            std::cout << (outcome ? outcome.text() : outcome.failureText()) << std::endl;
        });
        pool.drain();
    }
}

} // namespace

int main(int argc, char* argv[])
{
    const std::string_view scenario = argc > 1 ? argv[1] : "";
    if (scenario != "forgetful")
        nq::runAsWorker<pool_end_to_end::TestWork>(argc, argv);
    try {
        serve(argc > 2 ? argv[2] : "/dev/null");
    } catch (const nq::nqPoolError& refusal) {
        std::cerr << refusal.what() << std::endl;
        return wasRefused;
    }
    return 0;
}
