// The worker of show_limits. A job is a command, a blank and a number; an option `--load=before:MS`
// or
// `--load=after:MS` makes it take MS milliseconds for loading, before or after it connects.

#include <nqWorker.h>

#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <new>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr std::size_t mebibyte = std::size_t{1} << 20;

void workFor(long milliseconds)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

/// A field of /proc/self/status in KiB, such as VmRSS.
std::string statusField(const std::string& name)
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind(name + ':', 0) == 0)
            return std::to_string(std::stoul(line.substr(name.size() + 1)));
    return "0";
}

std::string memory()
{
    return statusField("VmRSS") + ' ' + statusField("VmData");
}

class ShowingWorker : public nq::nqWorker {
public:
    using nqWorker::nqWorker;

    void processJob(std::vector<char>& job, std::vector<char>& result) override
    {
        std::istringstream text(std::string(job.begin(), job.end()));
        std::string command;
        long number = 0;
        text >> command >> number;
        const std::string answer = perform(command, number);
        result.assign(answer.begin(), answer.end());
    }

    long leavingMs() const
    {
        return mLeavingMs;
    }

private:
    std::string perform(const std::string& command, long number)
    {
        if (command == "pid")
            return std::to_string(::getpid());
        if (command == "memory")
            return memory();
        if (command == "share")
            return share(static_cast<std::size_t>(number));
        if (command == "allocate")
            return allocateUntilRefused();
        if (command == "leave-slowly")
            mLeavingMs = number;
        if (command == "keep")
            keep(static_cast<std::size_t>(number));
        if (command == "grow")
            growForEver(static_cast<std::size_t>(number));
        if (command == "hang")
            workFor(3'600'000);
        return memory();
    }

    void keep(std::size_t mebibytes)
    {
        mKept.emplace_back(mebibytes * mebibyte, 'x');
    }

    /// By the clock, so that the rate holds on a busy machine too.
    [[noreturn]] void growForEver(std::size_t mebibytesPerSecond)
    {
        const auto start = std::chrono::steady_clock::now();
        for (std::size_t kept = 0;;) {
            const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
            const double due = elapsed.count() * static_cast<double>(mebibytesPerSecond);
            for (; static_cast<double>(kept) < due; ++kept)
                keep(1);
            workFor(1);
        }
    }

    static std::string share(std::size_t mebibytes)
    {
        const std::size_t bytes = mebibytes * mebibyte;
        void* const shared =
            ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (shared == MAP_FAILED)
            throw std::bad_alloc();
        std::memset(shared, 1, bytes);
        return memory();
    }

    std::string allocateUntilRefused()
    {
        try {
            for (;;)
                keep(1);
        } catch (const std::bad_alloc&) {
            return memory();
        }
    }

    std::vector<std::vector<char>> mKept;
    long mLeavingMs = 0;
};

long loadMs(int argc, char** argv, const std::string& when)
{
    const std::string option = "--load=" + when + ':';
    for (int i = 1; i < argc; ++i)
        if (std::string(argv[i]).rfind(option, 0) == 0)
            return std::stol(argv[i] + option.size());
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2)
        return 2;
    workFor(loadMs(argc, argv, "before"));
    ShowingWorker worker(argv[1]);
    workFor(loadMs(argc, argv, "after"));
    while (!worker.hasFinished())
        worker.processWorker(1000);
    workFor(worker.leavingMs());
    return 0;
}
