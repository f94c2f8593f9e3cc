// What a queued job takes of a pool's memory, and how long one job at a time takes there and back,
// through a pool and through one that has its own thread.
#include "benchmarks/common/clock.h"
#include "benchmarks/common/fail.h"
#include "benchmarks/common/options.h"
#include "benchmarks/common/processes.h"

#include <nqPool.h>
#include <nqPoolThread.h>

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace bench;

constexpr std::size_t jobBytes = 64;

nq::nqPoolOptions optionsFor(const Options& options)
{
    nq::nqPoolOptions made;
    made.worker = options.text("worker", "");
    made.plainWorker = options.number("plain", 0) != 0;
    made.workers = 1;
    return made;
}

std::vector<char> echoJob()
{
    return std::vector<char>(jobBytes, 'e');
}

/// None of the jobs is run: nobody pumps.
void measureQueued(const Options& options)
{
    const std::uint64_t jobs = options.number("jobs", 1'000'000);
    nq::nqPool pool(optionsFor(options));
    const std::vector<char> job = echoJob();
    pool.submit(job);
    const std::uint64_t residentBefore = residentBytesOf(::getpid());
    for (std::uint64_t i = 0; i < jobs; ++i)
        pool.submit(job);
    const auto grown = static_cast<double>(residentBytesOf(::getpid()) - residentBefore);
    std::cout << "{\"jobs\": " << jobs << ", \"bytes_per_job\": "
              << grown / static_cast<double>(jobs) - static_cast<double>(jobBytes) << "}\n";
}

/// The median of single round trips.
std::int64_t medianOf(std::uint64_t trips, const std::function<void()>& trip)
{
    std::vector<std::int64_t> all;
    all.reserve(trips);
    for (std::uint64_t i = 0; i < trips / 10; ++i)
        trip();
    for (std::uint64_t i = 0; i < trips; ++i) {
        const std::int64_t begin = monotonicNanoseconds();
        trip();
        all.push_back(monotonicNanoseconds() - begin);
    }
    const auto middle = all.begin() + static_cast<std::ptrdiff_t>(all.size() / 2);
    std::nth_element(all.begin(), middle, all.end());
    return *middle;
}

/// A thread that answers by a condition variable.
class Answerer {
public:
    ~Answerer()
    {
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mIsOver = true;
        }
        mAsked.notify_one();
        mThread.join();
    }

    void ask()
    {
        std::unique_lock<std::mutex> lock(mMutex);
        mIsAsked = true;
        mAsked.notify_one();
        mAnswered.wait(lock, [this] { return !mIsAsked; });
    }

private:
    void run()
    {
        std::unique_lock<std::mutex> lock(mMutex);
        for (;;) {
            mAsked.wait(lock, [this] { return mIsAsked || mIsOver; });
            if (mIsOver)
                return;
            mIsAsked = false;
            mAnswered.notify_one();
        }
    }

    std::mutex mMutex;
    std::condition_variable mAsked;
    std::condition_variable mAnswered;
    bool mIsAsked = false;
    bool mIsOver = false;
    std::thread mThread{[this] { run(); }};
};

void requireDone(const nq::nqOutcome& outcome)
{
    if (!outcome)
        fail("a job was lost");
}

std::int64_t measurePool(const Options& options, std::uint64_t trips)
{
    nq::nqPool pool(optionsFor(options));
    const std::vector<char> job = echoJob();
    return medianOf(trips, [&] {
        pool.submit(job);
        requireDone(pool.next().value());
    });
}

std::int64_t measureThread(const Options& options, std::uint64_t trips)
{
    nq::nqPoolThread pool(optionsFor(options));
    const std::vector<char> job = echoJob();
    return medianOf(trips, [&] { requireDone(pool.submit(job).get()); });
}

std::int64_t measureCondition(std::uint64_t trips)
{
    Answerer answerer;
    return medianOf(trips, [&] { answerer.ask(); });
}

void measureRoundTrip(const Options& options)
{
    const std::uint64_t trips = options.number("trips", 20'000);
    const std::string through = options.text("through", "");
    std::int64_t median = 0;
    if (through == "condition")
        median = measureCondition(trips);
    else if (through == "pool")
        median = measurePool(options, trips);
    else if (through == "thread")
        median = measureThread(options, trips);
    else
        fail("a round trip goes through condition, pool or thread");
    std::cout << "{\"median_ns\": " << median << "}\n";
}

} // namespace

int main(int argc, char* argv[])
{
    if (argc < 2)
        fail("usage: bench-pool-costs queued|round-trip [--name value]...");
    const std::string what = argv[1];
    const Options options(argc, argv, 2);
    useProcessors(options.text("processors", ""));
    if (what == "queued")
        measureQueued(options);
    else if (what == "round-trip")
        measureRoundTrip(options);
    else
        fail("no such measurement");
    return 0;
}
