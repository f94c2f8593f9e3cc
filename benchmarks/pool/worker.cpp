// A worker as the pool library's documents show it, which gives the job back.
#include "benchmarks/common/job.h"

#include <nqPoolWorker.h>

#include <string_view>

int main(int argc, char* argv[])
{
    return nq::runWorker(argc, argv, [](std::string_view job) {
        bench::perform(job.data());
        return job;
    });
}
