// The library's worker: the README's loop and a hook that gives the job back.
#include "benchmarks/common/fail.h"
#include "benchmarks/common/job.h"

#include <nqWorker.h>

#include <vector>

namespace {

class BenchmarkWorker : public nq::nqWorker {
public:
    using nqWorker::nqWorker;

    void processJob(std::vector<char>& job, std::vector<char>& result) override
    {
        bench::perform(job.data());
        result.swap(job);
    }
};

} // namespace

int main(int argc, char* argv[])
{
    if (argc != 2)
        bench::fail("usage: worker NAME");
    BenchmarkWorker worker(argv[1]);
    while (!worker.hasFinished())
        worker.processWorker(1000);
    return 0;
}
