// The worker: a job is a line, its result is the line reversed.
#include <nqWorker.h>

#include <vector>

class ReversingWorker : public nq::nqWorker {
public:
    using nqWorker::nqWorker;

    void processJob(std::vector<char>& job, std::vector<char>& result) override
    {
        result.assign(job.rbegin(), job.rend()); // an empty one would never complete its job
    }
};

int main(int argc, char* argv[])
{
    if (argc != 2)
        return 2; // started by hand: a scheduler gives the name of its pipe
    ReversingWorker worker(argv[1]);
    while (!worker.hasFinished())
        worker.processWorker(1000);
    return 0;
}
