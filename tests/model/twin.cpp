#include "tests/model/twin.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <sstream>
#include <utility>

namespace model {

namespace {

using std::chrono::nanoseconds;
using std::chrono::seconds;

bool endsWith(const std::string& line, const std::string& end)
{
    return line.size() >= end.size() &&
           line.compare(line.size() - end.size(), end.size(), end) == 0;
}

/// A question changes nothing, and when it is asked is the library's own affair, but for these: the
/// time of a job starts when it is handed out, memory is looked at in each step that has a cap, and
/// a launch's report is made of figures from before it is written.
bool hasItsPlace(const std::string& question)
{
    return question == "timer: start()" || question == "dirs: GetCurrentWorkingDirUtf8()" ||
           endsWith(question, ": getCurrentRamInUse()") || endsWith(question, ": getPid()");
}

using Lines = std::vector<std::string>;

std::string text(const Lines& lines)
{
    std::ostringstream all;
    for (const std::string& line : lines)
        all << "\n    " << line;
    return all.str();
}

/// What was done, with those questions in between that have their place.
Lines orderedCalls(const scripted::Machine& machine)
{
    Lines ordered;
    auto nextCall = machine.calls.begin();
    for (const std::string& line : machine.trace) {
        const bool isCall = nextCall != machine.calls.end() && line == *nextCall;
        if (isCall)
            ++nextCall;
        if (isCall || hasItsPlace(line))
            ordered.push_back(line);
    }
    return ordered;
}

/// A few lines around the first difference.
void compareCalls(std::ostream& report, const Lines& real, const Lines& modelled)
{
    if (real == modelled)
        return;
    constexpr std::ptrdiff_t before = 12;
    constexpr std::ptrdiff_t after = 4;
    const auto shorter = static_cast<std::ptrdiff_t>(std::min(real.size(), modelled.size()));
    const auto first =
        std::mismatch(real.begin(), real.begin() + shorter, modelled.begin()).first - real.begin();
    const auto excerpt = [first](const Lines& lines) {
        const auto size = static_cast<std::ptrdiff_t>(lines.size());
        return text(
            {lines.begin() + std::max<std::ptrdiff_t>(first - before, 0),
             lines.begin() + std::min(first + after, size)});
    };
    report << "\n  calls were (from call " << std::max<std::ptrdiff_t>(first - before, 0) << ")"
           << excerpt(real) << "\n  expected" << excerpt(modelled);
}

template <typename Real, typename Modelled>
void compare(
    std::ostream& report,
    const std::string& name,
    const char* what,
    const Real& real,
    const Modelled& modelled)
{
    if (!(real == modelled))
        report << "\n  " << name << what << " is " << real << ", expected " << modelled;
}

void compare(
    std::ostream& report,
    const std::string& name,
    const char* what,
    const Bytes& real,
    const Bytes& modelled)
{
    if (real == modelled)
        return;
    const auto end =
        real.begin() + static_cast<std::ptrdiff_t>(std::min(real.size(), modelled.size()));
    const auto first = std::mismatch(real.begin(), end, modelled.begin()).first - real.begin();
    report << "\n  " << name << what << " has " << real.size() << " bytes, expected "
           << modelled.size() << "; the first difference is at byte " << first;
}

void comparePipes(std::ostream& report, const scripted::Pipe& real, const scripted::Pipe& modelled)
{
    compare(report, real.name, ".incoming", real.untaken(), modelled.untaken());
    compare(report, real.name, ".outgoing", real.unsent(), modelled.unsent());
    compare(report, real.name, ".passedOn", real.passedOn, modelled.passedOn);
    compare(report, real.name, ".isConnected", real.isConnected, modelled.isConnected);
    compare(report, real.name, ".isDestroyed", real.isDestroyed, modelled.isDestroyed);
}

void compareProcesses(
    std::ostream& report, const scripted::Process& real, const scripted::Process& modelled)
{
    compare(report, real.name, ".state", real.state, modelled.state);
    compare(report, real.name, ".isDestroyed", real.isDestroyed, modelled.isDestroyed);
    compare(report, real.name, ".exePath", real.exePath, modelled.exePath);
    compare(
        report, real.name, ".workingDirectory", real.workingDirectory, modelled.workingDirectory);
    if (real.arguments != modelled.arguments)
        compare(report, real.name, ".arguments", text(real.arguments), text(modelled.arguments));
    compare(
        report,
        real.name,
        ".silenceOutput",
        real.silenceOutput.value_or(false),
        modelled.silenceOutput.value_or(false));
    compare(
        report,
        real.name,
        ".priority",
        real.priority.value_or(nq::nqProcess::IdlePriority),
        modelled.priority.value_or(nq::nqProcess::IdlePriority));
}

void compareSelects(
    std::ostream& report,
    const std::vector<scripted::Select>& real,
    const std::vector<scripted::Select>& modelled)
{
    compare(report, "number of selects", "", real.size(), modelled.size());
    for (std::size_t i = 0; i < std::min(real.size(), modelled.size()); ++i) {
        if (!(real[i] == modelled[i]))
            report << "\n  select has count " << real[i].count << " and time " << real[i].seconds
                   << " s " << real[i].microseconds << " us, expected count " << modelled[i].count
                   << " and time " << modelled[i].seconds << " s " << modelled[i].microseconds
                   << " us, or the sets differ";
    }
}

void compareLogs(
    std::ostream& report,
    const std::vector<scripted::Logged>& real,
    const std::vector<LogLine>& modelled)
{
    compare(report, "number of log entries", "", real.size(), modelled.size());
    for (std::size_t i = 0; i < std::min(real.size(), modelled.size()); ++i) {
        compare(report, "log level", "", real[i].entry.mLevel, modelled[i].level);
        compare(report, "log flush", "", real[i].flush, modelled[i].flush);
        compare(report, "log text", "", real[i].entry.mMessage, modelled[i].text);
    }
}

/// A peer in a hurry to end: answers now and then, and is lost after a few calls. Each copy goes
/// through the same steps.
struct LeavingPeer {
    std::uint64_t callsLeft;
    std::uint64_t answersEvery;
    Bytes answer;

    void operator()(scripted::Pipe& pipe)
    {
        if (callsLeft == 0 || --callsLeft == 0)
            pipe.lose();
        else if (callsLeft % answersEvery == 0)
            pipe.arrivals.push_back(answer);
    }
};

} // namespace

Twin::Twin(Random& random, Peers peers)
    : mRandom(random),
      mPeers(peers)
{
    const std::uint64_t mega = std::uint64_t{1} << 20;
    mLimits.maxRam = random.pick<std::uint64_t>({0, 0, 0, 1, 999, mega, 1536 * mega, 1023 * mega});
    mLimits.maxRamAfterJob = random.pick<std::uint64_t>({0, 0, 1, 500, mega, 100 * mega});
    mLimits.maxSeconds = random.pick<std::uint64_t>({0, 0, 1, 2, 10, 59, 125, 3600, 100'000});
    mUsualOutgoingLimit = random.pick<std::uint64_t>({4, 5, 7, 16, 100, 4096, mega});
    mFailedLaunchPercent = random.pick<std::uint64_t>({0, 0, 10, 40});
    machine.idealThreadCount = random.pick({-1, 0, 1, 2, 3, 4});
    machine.currentDirectory = random.pick<const char*>({"/home/user", "/", ""});
    for (std::size_t level = 0; level < world.levelIsEnabled.size(); ++level)
        world.levelIsEnabled.at(level) = random.percent(90);

    world.steadyTime = machine.steadyTime;
    world.idealThreadCount = machine.idealThreadCount;
    world.currentDirectory = machine.currentDirectory;
}

const Limits& Twin::limits() const
{
    return mLimits;
}

template <typename Act>
void Twin::toBoth(const Act& act)
{
    act(machine);
    act(world);
}

template <typename Act>
void Twin::toPipe(const Act& act)
{
    if (mUsedPipes.empty())
        return;
    const PipePair& pair = mPipes[mUsedPipes[mRandom.index(mUsedPipes.size())]];
    act(*pair.real);
    act(*pair.modelled);
}

template <typename Act>
void Twin::toProcess(const Act& act)
{
    if (mUsedProcesses.empty())
        return;
    const ProcessPair& pair = mProcesses[mUsedProcesses[mRandom.index(mUsedProcesses.size())]];
    act(*pair.real);
    act(*pair.modelled);
}

void Twin::randomEvent()
{
    const std::uint64_t what = mRandom.below(100);
    if (what < 30) {
        bytesArrive();
    } else if (what < 42) {
        const auto ram = randomRam();
        toProcess([ram](scripted::Process& process) { process.ramInUse = ram; });
    } else if (what < 58) {
        const auto time = mRandom.percent(75)
                              ? nanoseconds{mRandom.below(400'000'000)}
                              : nanoseconds{seconds{randomSeconds()}} -
                                    nanoseconds{mRandom.pick({0, 0, 1, 1'000'000'000})};
        toBoth([time](auto& side) { side.advance(std::max(time, nanoseconds{0})); });
    } else if (what < 75) {
        const auto flow = randomFlow();
        toPipe([flow](scripted::Pipe& pipe) { pipe.passedOnPerCall = flow; });
    } else if (what < 80) {
        const int socket = mRandom.pick({-1, -1, 0, 3, 10, 11, 12, 500, 1023});
        toPipe([socket](scripted::Pipe& pipe) { pipe.socket = socket; });
    } else if (what < 84) {
        const bool ends = mRandom.percent(50);
        toProcess([ends](scripted::Process& process) { process.endsWhenKilled = ends; });
    } else if (what < 87) {
        const bool ends = mRandom.percent(50);
        toProcess([ends](scripted::Process& process) { process.endsWhenWaitedFor = ends; });
    } else {
        somethingEnds();
    }
}

void Twin::somethingEnds()
{
    const std::uint64_t what = mRandom.below(100);
    if (what < 25) {
        toPipe([](scripted::Pipe& pipe) { pipe.endsWhenDrained = true; });
    } else if (what < 35) {
        toPipe([](scripted::Pipe& pipe) { pipe.isReadChannelClosed = true; });
    } else if (what < 42) {
        toPipe([](scripted::Pipe& pipe) { pipe.isConnected = false; });
    } else if (what < 52) {
        toPipe([](scripted::Pipe& pipe) {
            pipe.isWriteChannelClosed = true;
            pipe.dropUnsent();
        });
    } else if (what < 62) {
        // The write fails in the middle of a step, after everything else of that call.
        toPipe([](scripted::Pipe& pipe) {
            pipe.onEvents = [](scripted::Pipe& one) {
                one.isWriteChannelClosed = true;
                one.dropUnsent();
            };
        });
    } else if (what < 70) {
        toPipe([](scripted::Pipe& pipe) { pipe.lose(); });
    } else {
        toProcess([](scripted::Process& process) { process.state = nq::nqProcess::Ended; });
    }
}

std::uint32_t Twin::hostileLength()
{
    constexpr std::uint32_t most = std::numeric_limits<std::uint32_t>::max();
    return mRandom.pick<std::uint32_t>(
        {0, 1, 5, 4096, refusedBytes, most / 2, most / 2 + 1, most - 1, most});
}

Bytes Twin::nextFrame()
{
    if (mPeers == Peers::hostile && mRandom.percent(2)) {
        return mRandom.percent(50) ? common::header(hostileLength())
                                   : mRandom.bytes(1 + mRandom.index(20));
    }
    const std::size_t size =
        mRandom.percent(8) ? 0 : 1 + mRandom.index(mRandom.pick<std::size_t>({3, 40, 300}));
    return common::frame(mRandom.bytes(size));
}

Bytes Twin::nextPiece(Bytes& backlog)
{
    if (backlog.empty() || mRandom.percent(10))
        common::append(backlog, nextFrame());
    const std::size_t count = mRandom.percent(60)
                                  ? backlog.size()
                                  : 1 + mRandom.index(std::min<std::size_t>(backlog.size(), 9));
    return common::takeFront(backlog, count);
}

void Twin::bytesArrive()
{
    if (mUsedPipes.empty())
        return;
    PipePair& pair = mPipes[mUsedPipes[mRandom.index(mUsedPipes.size())]];
    const Bytes piece = nextPiece(pair.backlog);
    pair.real->arrivals.push_back(piece);
    pair.modelled->arrivals.push_back(piece);
}

std::uint64_t Twin::randomRam()
{
    const std::uint64_t around =
        mRandom.pick({mLimits.maxRam, mLimits.maxRamAfterJob, std::uint64_t{0}});
    switch (mRandom.below(6)) {
    case 0:
        return around + 1;
    case 1:
        return around == 0 ? 0 : around - 1;
    case 2:
        if (mRandom.percent(50)) {
            // A quarter of a unit: its text has to round an exact half.
            const auto shift = mRandom.pick({10, 20, 30});
            const std::uint64_t unit = std::uint64_t{1} << shift;
            return ((around >> shift) + 1 + mRandom.below(8)) * unit + unit / 4;
        }
        return around + mRandom.below(around + 1);
    case 3:
        return mRandom.percent(20) ? mRandom.below(~std::uint64_t{0}) >> mRandom.below(64) : 0;
    default:
        return around;
    }
}

std::uint64_t Twin::randomSeconds()
{
    const std::uint64_t limit = mLimits.maxSeconds;
    return mRandom.pick<std::uint64_t>(
        {0, 1, limit / 2, limit, limit + 1, limit + mRandom.below(100'000)});
}

std::uint64_t Twin::randomLimit()
{
    return mRandom.percent(15) ? mRandom.below(6) : mUsualOutgoingLimit;
}

std::uint64_t Twin::randomFlow()
{
    return mRandom.percent(60) ? ~std::uint64_t{0} : mRandom.pick<std::uint64_t>({0, 1, 3, 4, 50});
}

Bytes Twin::randomJob(bool mayBeEmpty)
{
    if (mayBeEmpty && mRandom.percent(20))
        return {};
    return mRandom.bytes(1 + mRandom.index(mRandom.pick<std::size_t>({1, 5, 60, 60, 3000})));
}

void Twin::planProcess()
{
    scripted::Process& process = machine.planProcess();
    process.ramInUse = mRandom.percent(90) ? 0 : randomRam();
    process.endsWhenKilled = mRandom.percent(60);
    process.endsWhenWaitedFor = mRandom.percent(80);
    if (mRandom.percent(mFailedLaunchPercent))
        process.stateAfterStart = mRandom.pick({nq::nqProcess::NotStarted, nq::nqProcess::Ended});
    if (mRandom.percent(10))
        process.startResult = mRandom.percent(50);
    world.plannedProcesses.push_back(std::make_shared<scripted::Process>(process));
    mProcesses.push_back({&process, world.plannedProcesses.back()});
}

void Twin::planPipe()
{
    scripted::Pipe& pipe = machine.planPipe();
    pipe.socket %= 1024;
    pipe.outgoingLimit = randomLimit();
    pipe.passedOnPerCall = randomFlow();
    pipe.smallestLoan = mRandom.pick<std::size_t>({1, 1, 3, 1 << 20});
    pipe.smallestRange = mRandom.pick<std::size_t>({1, 1, 3, 1 << 20});
    pipe.endsWhenDrained = mRandom.percent(3);
    world.plannedPipes.push_back(std::make_shared<scripted::Pipe>(pipe));
    mPipes.push_back({&pipe, world.plannedPipes.back(), {}});
}

void Twin::planAhead(std::size_t count)
{
    while (world.plannedProcesses.size() < count)
        planProcess();
    while (world.plannedPipes.size() < count)
        planPipe();
}

void Twin::randomLaunches()
{
    using scripted::Connection;
    if (mRandom.percent(mFailedLaunchPercent / 4)) {
        const auto outcome =
            mRandom.pick({Connection::timesOut, Connection::arrivesEmpty, Connection::arrives});
        toBoth([outcome](auto& side) { side.server.connections.push_back(outcome); });
    }
    if (mRandom.percent(mFailedLaunchPercent / 20)) {
        // A connection that comes after its launch has given up.
        toBoth([](auto& side) { side.server.pending.push_back(side.takePipe()); });
    }
    const bool listens = mRandom.percent(90);
    toBoth([listens](auto& side) { side.server.listens = listens; });
}

void Twin::randomSleep()
{
    if (mUsedPipes.empty() || !mRandom.percent(10))
        return;
    PipePair& pair = mPipes[mUsedPipes[mRandom.index(mUsedPipes.size())]];
    const Bytes piece = nextPiece(pair.backlog);
    const nanoseconds time{mRandom.below(1'000'000'000)};
    const int result = mRandom.pick({-1, 0, 1});
    machine.onSelect = [this, &real = *pair.real, piece, time, result] {
        real.arrivals.push_back(piece);
        machine.advance(time);
        return result;
    };
    world.onSelect = [this, modelled = pair.modelled, piece, time] {
        modelled->arrivals.push_back(piece);
        world.advance(time);
    };
}

void Twin::endSleep()
{
    // A piece that no sleep brought comes now, since a stream has no holes.
    if (machine.onSelect && machine.selects.empty())
        machine.onSelect();
    if (world.onSelect && world.selects.empty())
        world.onSelect();
    machine.onSelect = nullptr;
    world.onSelect = nullptr;
}

void Twin::letEverythingEnd(std::size_t jobs)
{
    endSleep();
    toBoth([](auto& side) {
        side.server.connections.clear();
        side.server.pending.clear();
    });
    planAhead(world.plannedPipes.size() + jobs + 16);
    const auto leave = [this](PipePair& pair) {
        // At least two calls, so that each worker can take a job and fail it.
        LeavingPeer peer{2 + mRandom.below(6), 1 + mRandom.below(4), {}};
        peer.answer = common::frame(mRandom.bytes(1 + mRandom.index(20)));
        pair.real->onEvents = peer;
        pair.modelled->onEvents = peer;
    };
    for (const std::size_t used : mUsedPipes) {
        // Its answers start where a frame starts.
        PipePair& pair = mPipes[used];
        pair.real->arrivals.push_back(pair.backlog);
        pair.modelled->arrivals.push_back(std::exchange(pair.backlog, {}));
        leave(pair);
    }
    for (std::size_t i = mTakenPipes; i < mPipes.size(); ++i)
        leave(mPipes[i]);
    for (std::size_t i = mTakenProcesses; i < mProcesses.size(); ++i) {
        for (scripted::Process* process : {mProcesses[i].real, mProcesses[i].modelled.get()}) {
            process->ramInUse = 0;
            process->stateAfterStart = nq::nqProcess::Running;
        }
    }
}

void Twin::endThat()
{
    for (std::size_t i = 0; i < mPipes.size(); ++i) {
        mPipes[i].real->onEvents = nullptr;
        mPipes[i].modelled->onEvents = nullptr;
    }
}

void Twin::takeStock()
{
    for (; mTakenPipes < world.pipes.size(); ++mTakenPipes)
        mUsedPipes.push_back(mTakenPipes);
    for (; mTakenProcesses < world.processes.size(); ++mTakenProcesses)
        mUsedProcesses.push_back(mTakenProcesses);
}

std::string Twin::difference()
{
    std::ostringstream report;
    compareCalls(report, orderedCalls(machine), world.calls);
    compareLogs(report, machine.logged, world.logged);
    compareSelects(report, machine.selects, world.selects);
    compare(report, "number of processes", "", machine.processes.size(), world.processes.size());
    compare(report, "number of pipes", "", machine.pipes.size(), world.pipes.size());
    report << differenceOfRecords();

    machine.calls.clear();
    machine.trace.clear();
    machine.logged.clear();
    machine.selects.clear();
    world.calls.clear();
    world.logged.clear();
    world.selects.clear();
    return report.str();
}

std::string Twin::differenceOfRecords()
{
    takeStock();
    std::ostringstream report;
    for (const std::size_t used : mUsedPipes) {
        comparePipes(report, *mPipes[used].real, *mPipes[used].modelled);
        mPipes[used].real->passedOn.clear();
        mPipes[used].modelled->passedOn.clear();
    }
    for (const std::size_t used : mUsedProcesses)
        compareProcesses(report, *mProcesses[used].real, *mProcesses[used].modelled);

    const auto isGone = [](const auto& pairs) {
        return [&pairs](std::size_t index) { return pairs[index].modelled->isDestroyed; };
    };
    mUsedPipes.erase(
        std::remove_if(mUsedPipes.begin(), mUsedPipes.end(), isGone(mPipes)), mUsedPipes.end());
    mUsedProcesses.erase(
        std::remove_if(mUsedProcesses.begin(), mUsedProcesses.end(), isGone(mProcesses)),
        mUsedProcesses.end());
    return report.str();
}

} // namespace model
