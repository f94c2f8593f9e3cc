// A host that is killed at a moment that it does not know. Its state says what it is most of the
// time doing by then, over and over until it is killed.
//
// killed_host TAG STATE SEED. Its workers carry TAG on their command line and print their pipe's
// name.

#include "nqScheduler.h"
#include "tests/chaos/job.h"
#include "tests/common/random.h"

#include <cstdlib>
#include <string>
#include <vector>

namespace {

using chaos::Behaviour;
using chaos::Job;

constexpr unsigned long workers = 3;
constexpr int connectionMs = 20'000;
constexpr int pumpMs = 10;
constexpr unsigned long jobsAtATime = 8;

class Host {
public:
    Host(const std::string& tag, std::uint64_t seed)
        : mRandom(seed),
          mScheduler(NQ_CHAOS_WORKER, false, {tag, "-", "after"}, true)
    {
    }

    [[noreturn]] void beIdle()
    {
        start();
        for (;;)
            mScheduler.processScheduler(pumpMs);
    }

    [[noreturn]] void beBusy()
    {
        start();
        for (;;)
            pump({Behaviour::answer, Behaviour::answerSlowly, Behaviour::readSlowly});
    }

    /// Replacements come and go, with and without a job, and helpers are anywhere.
    [[noreturn]] void loseWorkers()
    {
        start();
        for (;;)
            pump(
                {Behaviour::answer,
                 Behaviour::forkHelper,
                 Behaviour::forkHelperAndDie,
                 Behaviour::crash,
                 Behaviour::answerAndDie});
    }

    [[noreturn]] void startAndStop()
    {
        for (;;) {
            start();
            mScheduler.stopScheduler();
        }
    }

    /// Workers that are told to leave are slow to do so, some with a helper.
    [[noreturn]] void stopSlowly()
    {
        for (;;) {
            start();
            for (unsigned long i = 0; i < workers; ++i)
                push({Behaviour::forkHelper, Behaviour::readSlowly});
            mScheduler.stopScheduler();
            drain();
        }
    }

private:
    void start()
    {
        if (!mScheduler.startScheduler(workers, connectionMs))
            std::abort();
    }

    void push(std::initializer_list<Behaviour> behaviours)
    {
        constexpr std::uint32_t longestPauseMs = 20;
        constexpr std::uint64_t largestPayload = 300'000;
        Job job;
        job.id = ++mLastId;
        job.behaviour = mRandom.pick(behaviours);
        job.milliseconds = 1 + static_cast<std::uint32_t>(mRandom.below(longestPauseMs));
        job.payloadBytes = mRandom.below(largestPayload);
        job.answerBytes = mRandom.below(largestPayload);
        mScheduler.push(chaos::encode(job));
    }

    void pump(std::initializer_list<Behaviour> behaviours)
    {
        while (mScheduler.jobCount() < jobsAtATime)
            push(behaviours);
        mScheduler.processScheduler(pumpMs);
        drain();
    }

    void drain()
    {
        std::vector<char> bytes;
        std::string message;
        nq::nqScheduler::FailReason reason{};
        while (mScheduler.pop(bytes)) {
        }
        while (mScheduler.popFail(bytes, reason, message)) {
        }
    }

    common::SeededRandom mRandom;
    nq::nqScheduler mScheduler;
    std::uint64_t mLastId = 0;
};

} // namespace

int main(int argc, char** argv)
{
    constexpr int argumentCount = 4;
    if (argc != argumentCount)
        return 2;
    const std::string state = argv[2];
    Host host(argv[1], std::stoull(argv[3]));
    if (state == "idle")
        host.beIdle();
    if (state == "busy")
        host.beBusy();
    if (state == "losing")
        host.loseWorkers();
    if (state == "starting")
        host.startAndStop();
    if (state == "stopping")
        host.stopSlowly();
    return 2;
}
