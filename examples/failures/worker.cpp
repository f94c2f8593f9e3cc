// Does as the job's text says: "crash", "hang" and "leak" end badly, "retire" is answered and is
// the last, all else is answered.
#include <nqWorker.h>

#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::size_t leakBytes = std::size_t{1} << 20;
constexpr std::chrono::milliseconds leakInterval{4}; // leaves the host time to see it grow

[[noreturn]] void hang()
{
    for (;;)
        ::pause();
}

[[noreturn]] void leak()
{
    std::vector<std::string> leaked;
    for (;;) {
        leaked.emplace_back(leakBytes, 'x');
        std::this_thread::sleep_for(leakInterval);
    }
}

} // namespace

class MoodyWorker : public nq::nqWorker {
public:
    using nqWorker::nqWorker;

    void processJob(std::vector<char>& job, std::vector<char>& result) override
    {
        const std::string text(job.begin(), job.end());
        if (text == "crash")
            std::abort();
        if (text == "hang")
            hang();
        if (text == "leak")
            leak();
        if (text == "retire")
            setFinished(true); // the result still has to leave, see main
        const std::string pid = std::to_string(::getpid());
        result.assign(pid.begin(), pid.end());
    }
};

int main(int argc, char* argv[])
{
    if (argc != 2)
        return 2; // started by hand: a scheduler gives the name of its pipe
    MoodyWorker worker(argv[1]);
    while (!worker.hasFinished() || worker.isSending())
        worker.processWorker(1000);
    return 0;
}
