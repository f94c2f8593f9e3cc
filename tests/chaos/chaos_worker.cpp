// The worker of the chaos tests: each job says what it does wrong, and the board learns of it
// first.
//
// Arguments, with the pipe's name before or behind them: TAG BOARD WHEN. TAG makes the process
// known to whoever looks for survivors. BOARD is a board's path, or "-" for none; the worker then
// prints the pipe's name instead. WHEN says whether it enters itself into the board "before" or
// "after" it connects.

#include "nqWorker.h"
#include "tests/chaos/board.h"
#include "tests/chaos/job.h"
#include "tests/common/frame.h"
#include "tests/common/rawSocket.h"

#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using chaos::Behaviour;
using chaos::Job;
using common::frame;

constexpr int stepMs = 1000; // how often an idle worker looks at hasFinished
constexpr int slowSteps = 20;
constexpr int dribbleSteps = 5;
constexpr int longestWaitMs = 60'000; // a worker that waits for its end does not wait for ever
constexpr int badJobExitCode = 3;

void pauseFor(int milliseconds)
{
    poll(nullptr, 0, milliseconds);
}

/// Past the library, so that the bytes are out before what follows.
void sendRaw(const std::vector<char>& bytes)
{
    common::sendPastTheLibrary({bytes.data(), bytes.size()});
}

class ChaosWorker : public nq::nqWorker {
public:
    using nqWorker::nqWorker;

    void writeTo(chaos::Board& board, chaos::WorkerEntry& entry)
    {
        mBoard = &board;
        mEntry = &entry;
    }

    /// A job that does not arrive as it was sent is not answered, and so shows as a failure.
    void processJob(std::vector<char>& bytes, std::vector<char>& result) override
    {
        const std::optional<Job> job = chaos::decodeJob(bytes);
        if (!job)
            _exit(badJobExitCode);
        if (mBoard)
            mBoard->takers[job->id % chaos::Board::maxJobs] = getpid();
        result = chaos::encodeAnswer(*job);
        perform(*job, result);
    }

    /// How long to pause before the next step.
    int takePause()
    {
        if (mSlowSteps == 0)
            return 0;
        --mSlowSteps;
        return mPauseMs;
    }

private:
    void perform(const Job& job, std::vector<char>& result)
    {
        const int milliseconds = static_cast<int>(job.milliseconds);
        switch (job.behaviour) {
        case Behaviour::answer:
            return;
        case Behaviour::answerSlowly:
            return pauseFor(milliseconds);
        case Behaviour::readSlowly:
            mSlowSteps = slowSteps;
            mPauseMs = milliseconds;
            return;
        case Behaviour::dribbleAndDie:
            dribble(frame(result), milliseconds);
            isDoomed(job);
            _exit(0);
        case Behaviour::answerAndDie:
            sendRaw(frame(result));
            isDoomed(job);
            _exit(0);
        case Behaviour::answerHalfAndDie:
            sendRaw(firstHalf(frame(result)));
            isDoomed(job);
            _exit(0);
        case Behaviour::crash:
            isDoomed(job);
            std::raise(SIGSEGV);
            return;
        case Behaviour::abort:
            isDoomed(job);
            std::abort();
        case Behaviour::exit:
            isDoomed(job);
            _exit(0);
        case Behaviour::throwException:
            isDoomed(job);
            throw std::runtime_error("left the hook");
        case Behaviour::forkHelper:
            return forkHelper();
        case Behaviour::forkHelperAndDie:
            forkHelper();
            isDoomed(job);
            _exit(1);
        case Behaviour::closePipeAndLinger:
            isDoomed(job);
            shutdown(common::socketOfPipe(), SHUT_RDWR);
            pauseFor(milliseconds);
            _exit(0);
        case Behaviour::growAndAnswer:
            return grow(job);
        case Behaviour::growAndWait:
            grow(job);
            pauseFor(longestWaitMs);
            return;
        case Behaviour::hang:
            pauseFor(longestWaitMs);
            return;
        }
    }

    void isDoomed(const Job& job)
    {
        if (!mEntry)
            return;
        mEntry->doomedBy = job.id;
        mEntry->doomedAt = chaos::now();
    }

    static common::Bytes firstHalf(common::Bytes bytes)
    {
        return common::takeFront(bytes, bytes.size() / 2);
    }

    static void dribble(common::Bytes bytes, int milliseconds)
    {
        const std::size_t piece = std::max<std::size_t>(bytes.size() / dribbleSteps, 1);
        while (!bytes.empty()) {
            sendRaw(common::takeFront(bytes, std::min(piece, bytes.size())));
            pauseFor(milliseconds);
        }
    }

    static void forkHelper()
    {
        if (fork() == 0)
            for (;;)
                pause(); // with copies of the socket and of everything else
    }

    void grow(const Job& job)
    {
        if (mEntry)
            mEntry->hasGrown = true;
        mHoard.emplace_back(job.growBytes, 'x'); // written to, thus resident
    }

    chaos::Board* mBoard = nullptr; // null: nobody keeps account
    chaos::WorkerEntry* mEntry = nullptr;
    std::vector<std::vector<char>> mHoard;
    int mSlowSteps = 0;
    int mPauseMs = 0;
};

/// The next free entry of the board, with this process in it.
chaos::WorkerEntry& enter(chaos::Board& board)
{
    const std::uint32_t place = board.workerCount.fetch_add(1);
    if (place >= chaos::Board::maxWorkers)
        std::abort(); // the host notices that the count is beyond the end
    board.workers[place].pid = getpid();
    return board.workers[place];
}

void forbidCoreFiles()
{
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
}

/// A sanitizer would report a crash at length before the process ends.
void crashWithoutReport()
{
    std::signal(SIGSEGV, SIG_DFL);
}

int work(ChaosWorker& worker)
{
    while (!worker.hasFinished()) {
        worker.processWorker(stepMs);
        if (const int pause = worker.takePause(); pause > 0)
            pauseFor(pause);
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    constexpr int argumentCount = 5;
    if (argc != argumentCount)
        return 2;
    forbidCoreFiles();
    crashWithoutReport();
    std::vector<std::string> arguments(argv + 1, argv + argc);
    const bool isPipeLast = arguments.front().rfind("chaos-", 0) == 0;
    std::rotate(arguments.begin(), arguments.end() - (isPipeLast ? 1 : 0), arguments.end());
    const std::string& pipeName = arguments[0];
    if (arguments[2] == "-") {
        std::printf("pipe %s\n", pipeName.c_str());
        std::fflush(stdout);
        ChaosWorker worker(pipeName);
        return work(worker);
    }

    const chaos::BoardMapping board(arguments[2]);
    chaos::WorkerEntry* entry = arguments[3] == "before" ? &enter(*board.get()) : nullptr;
    ChaosWorker worker(pipeName);
    if (!entry)
        entry = &enter(*board.get());
    worker.writeTo(*board.get(), *entry);
    return work(worker);
}
