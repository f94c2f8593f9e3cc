#include <nqWorker.h>

/// Answers every job with its bytes in reverse order.
class ReversingWorker : public nq::nqWorker {
public:
    using nqWorker::nqWorker;

    void processJob(std::vector<char>& job, std::vector<char>& result) override
    {
        result.assign(job.rbegin(), job.rend());
    }

    void endOfWork() override
    {
        setFinished(true);
    }
};

int main(int argumentCount, char** arguments)
{
    if (argumentCount < 2)
        return 2;
    ReversingWorker worker(arguments[argumentCount - 1]);
    while (!worker.hasFinished())
        worker.processWorker(100);
    return 0;
}
