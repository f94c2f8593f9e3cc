// Shows how the limits of a pool act: runs workers that hang, grow, share and leave slowly, and
// prints the tables of docs/limits.md and docs/worker.md with this machine's figures. Fails when
// something acts otherwise than those pages say.
//
// usage: show_limits WORKER

#include <nqLog.h>
#include <nqScheduler.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

namespace {

using std::chrono::steady_clock;

constexpr unsigned long mebibyte = 1ul << 20;
constexpr int connectionTimeoutMs = 10'000;

const char* workerPath = nullptr;

void require(bool holds, const char* claim)
{
    if (holds)
        return;
    std::fprintf(stderr, "not so: %s\n", claim);
    std::exit(EXIT_FAILURE);
}

double secondsSince(steady_clock::time_point start)
{
    return std::chrono::duration<double>(steady_clock::now() - start).count();
}

struct Outcome {
    nq::nqScheduler::FailReason reason = nq::nqScheduler::NoFailure;
    std::string text; // the result, or the failure's message
    double seconds = 0;
    double longestPump = 0;
};

struct Memory {
    unsigned long residentMiB = 0;
    unsigned long dataMiB = 0;
};

Memory parse(const std::string& text)
{
    std::istringstream figures(text);
    unsigned long resident = 0;
    unsigned long data = 0;
    figures >> resident >> data;
    return {resident / 1024, data / 1024};
}

class Pool {
public:
    explicit Pool(const std::vector<std::string>& arguments = {})
        : mScheduler(workerPath, false, arguments, true)
    {
    }

    ~Pool()
    {
        mScheduler.clearPendingJobs();
    }

    nq::nqScheduler& scheduler()
    {
        return mScheduler;
    }

    void start(unsigned long workers = 1)
    {
        require(mScheduler.startScheduler(workers, connectionTimeoutMs), "the workers start");
    }

    /// One job from its push to its end.
    Outcome run(const std::string& job, int pumpMs = 10)
    {
        const auto start = steady_clock::now();
        Outcome outcome;
        mScheduler.push({job.begin(), job.end()});
        std::vector<char> bytes;
        for (;;) {
            const auto pumped = steady_clock::now();
            mScheduler.processScheduler(pumpMs);
            outcome.longestPump = std::max(outcome.longestPump, secondsSince(pumped));
            if (mScheduler.pop(bytes)) {
                outcome.text.assign(bytes.begin(), bytes.end());
                break;
            }
            if (mScheduler.popFail(bytes, outcome.reason, outcome.text))
                break;
        }
        outcome.seconds = secondsSince(start);
        return outcome;
    }

private:
    nq::nqScheduler mScheduler;
};

void showTimeouts()
{
    std::puts("\n| job time-out | pump's time-out | failed after | message |");
    std::puts("| --- | --- | --- | --- |");
    for (const int pumpMs : {10, 900}) {
        Pool pool;
        pool.scheduler().setJobProcessTimeout(1);
        pool.start();
        const Outcome outcome = pool.run("hang 0", pumpMs);
        require(outcome.reason == nq::nqScheduler::Timeout, "a hanging job is timed out");
        require(outcome.seconds >= 2, "a time-out of 1 acts after 2 seconds and not before");
        std::printf(
            "| 1 s | %d ms | %.2f s | `%s` |\n", pumpMs, outcome.seconds, outcome.text.c_str());
    }
}

void showMemoryCap()
{
    std::puts("\n| cap | growth | pump's time-out | failed after | message |");
    std::puts("| --- | --- | --- | --- | --- |");
    for (const int pumpMs : {10, 100, 900}) {
        Pool pool;
        pool.scheduler().setMaxCapMemory(100 * mebibyte);
        pool.start();
        const Outcome outcome = pool.run("grow 200", pumpMs);
        require(outcome.reason == nq::nqScheduler::TooMuchRam, "a growing worker meets the cap");
        std::printf(
            "| 100 MiB | 200 MiB/s | %d ms | %.2f s | `%s` |\n",
            pumpMs,
            outcome.seconds,
            outcome.text.c_str());
    }
}

void showKernelLimit()
{
    std::puts("\n| worker | resident | private writable (VmData) |");
    std::puts("| --- | --- | --- |");
    const auto print = [](const char* what, Memory memory) {
        std::printf("| %s | %lu MiB | %lu MiB |\n", what, memory.residentMiB, memory.dataMiB);
    };
    Pool pool;
    pool.scheduler().setMaxPhysicalMemory(64 * mebibyte);
    pool.start();
    print("just connected", parse(pool.run("memory 0").text));
    const Memory shared = parse(pool.run("share 200").text);
    require(shared.residentMiB >= 200 && shared.dataMiB < 64, "shared memory counts as resident");
    print("has written to 200 MiB of shared memory", shared);
    const Memory refused = parse(pool.run("allocate 0").text);
    require(refused.dataMiB <= 64, "private memory ends at the kernel's limit");
    print("has allocated until its limit of 64 MiB refused", refused);
}

void showReplacement()
{
    std::puts("\n| worker takes to leave | longest pump call |");
    std::puts("| --- | --- |");
    for (const int leavingMs : {0, 500}) {
        Pool pool;
        pool.scheduler().setMaxCapMemoryAfterProcessingAJob(32 * mebibyte);
        pool.start();
        const std::string before = pool.run("pid 0").text;
        pool.run("leave-slowly " + std::to_string(leavingMs));
        const Outcome fat = pool.run("keep 50", 1);
        require(fat.reason == nq::nqScheduler::NoFailure, "the result of a fat worker arrives");
        require(pool.run("pid 0").text != before, "a fat worker is replaced after its job");
        std::printf("| %d ms | %.0f ms |\n", leavingMs, fat.longestPump * 1e3);
    }
}

void showLoading()
{
    std::puts("\n| 300 ms of loading | start of 2 workers | first result after | connection "
              "time-out 100 ms |");
    std::puts("| --- | --- | --- | --- |");
    for (const std::string when : {"before", "after"}) {
        const std::string option = "--load=" + when + ":300";
        Pool pool({option});
        const auto start = steady_clock::now();
        pool.start(2);
        const double started = secondsSince(start);
        const Outcome first = pool.run("pid 0");
        Pool hasty({option});
        const bool starts = hasty.scheduler().startScheduler(1, 100);
        require(!starts || when == "after", "what is loaded before connecting delays the start");
        std::printf(
            "| %s constructing | %.2f s | %.3f s | %s |\n",
            when.c_str(),
            started,
            first.seconds,
            starts ? "starts" : "fails to start");
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: show_limits WORKER\n", stderr);
        return 2;
    }
    workerPath = argv[1];
    nq::nqLog log; // on standard error, so that standard output holds the tables alone
    nq::nqLog::msInstance = &log;
    showTimeouts();
    showMemoryCap();
    showKernelLimit();
    showReplacement();
    showLoading();
    return EXIT_SUCCESS;
}
