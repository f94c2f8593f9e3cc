// The worker of the fault host.

#include "jobs.h"

#include "nqWorker.h"

#include <csignal>
#include <cstdlib>
#include <poll.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr int stepMs = 100;
constexpr int timeToBeNoticedMs = 5'000; // on a machine that is busy with other things

class FaultWorker : public nq::nqWorker {
public:
    using nqWorker::nqWorker;

    void processJob(std::vector<char>& job, std::vector<char>& result) override
    {
        switch (job.front()) {
        case faults::crashJob:
            std::raise(SIGKILL);
            break;
        case faults::forkJob:
            leaveHelper();
            break;
        case faults::growJob:
            grow();
            break;
        case faults::hangJob:
            hang();
        default:
            break;
        }
        result.swap(job);
    }

private:
    [[noreturn]] static void hang()
    {
        for (;;)
            pause();
    }

    static void leaveHelper()
    {
        if (fork() == 0)
            hang();
        _exit(EXIT_SUCCESS);
    }

    static void grow()
    {
        const std::vector<char> large(2 * faults::memoryCapBytes, 'x');
        poll(nullptr, 0, timeToBeNoticedMs);
    }
};

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2)
        return EXIT_FAILURE;
    FaultWorker worker(argv[1]);
    while (!worker.hasFinished())
        worker.processWorker(stepMs);
    return EXIT_SUCCESS;
}
