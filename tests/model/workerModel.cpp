#include "tests/model/workerModel.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

namespace model {

namespace {

using common::headerBytes;
using nq::nqScheduler;

/// What a table's row says about one condition.
enum class Is { no, yes, any };

bool fits(Is wanted, bool fact)
{
    return wanted == Is::any || (wanted == Is::yes) == fact;
}

/// What happens to a worker's process. The first row that fits decides.
enum class Sentence { none, tooMuchRam, timeout };

struct Verdict {
    const char* name;
    Is isKilled;
    Is isOverRam;
    Is isOverTime;
    Sentence sentence;
};

constexpr std::array<Verdict, 4> verdicts{{
    {"verdict: killed before, no second one", Is::yes, Is::any, Is::any, Sentence::none},
    {"verdict: over time", Is::no, Is::any, Is::yes, Sentence::timeout},
    {"verdict: over memory", Is::no, Is::yes, Is::no, Sentence::tooMuchRam},
    {"verdict: none", Is::no, Is::no, Is::no, Sentence::none},
}};

/// What becomes of a worker once its bytes have been taken in.
enum class Fate { lost, served };

struct AfterReceiving {
    const char* name;
    Is isReadClosed;
    Is isRunning;
    Is isConnected;
    Fate fate;
};

constexpr std::array<AfterReceiving, 4> fates{{
    {"fate: read closed and ended", Is::yes, Is::no, Is::any, Fate::lost},
    {"fate: read closed but still there", Is::yes, Is::yes, Is::yes, Fate::served},
    {"fate: healthy", Is::no, Is::any, Is::yes, Fate::served},
    {"fate: not connected", Is::any, Is::any, Is::no, Fate::lost},
}};

/// What a worker without a job gets.
enum class Task { none, droppedJob, job };

struct WhenReady {
    const char* name;
    Is isOutgoingEmpty;
    Is isKilled;
    Is hasPendingJob;
    Is isPendingJobEmpty;
    Task task;
};

constexpr std::array<WhenReady, 5> tasks{{
    {"ready: bytes still leave", Is::no, Is::any, Is::any, Is::any, Task::none},
    {"ready: killed", Is::yes, Is::yes, Is::any, Is::any, Task::none},
    {"ready: no job", Is::yes, Is::no, Is::no, Is::any, Task::none},
    {"ready: empty job", Is::yes, Is::no, Is::yes, Is::yes, Task::droppedJob},
    {"ready: job", Is::yes, Is::no, Is::yes, Is::no, Task::job},
}};

} // namespace

unsigned long Queues::jobCount() const
{
    return pending.size() + static_cast<unsigned long>(static_cast<long>(inProgress));
}

void Queues::pushResult(const Bytes& result)
{
    --inProgress;
    results.push_back(result);
}

void Queues::pushFailure(const Failure& failure)
{
    --inProgress;
    failures.push_back(failure);
}

Worker::Worker(
    World& world,
    Queues& queues,
    std::shared_ptr<scripted::Pipe> pipe,
    std::shared_ptr<scripted::Process> process,
    const Limits& limits)
    : mWorld(&world),
      mQueues(&queues),
      mPipe(std::move(pipe)),
      mProcess(std::move(process)),
      mLimits(limits),
      mPid(mProcess->pid)
{
    mWorld->say(mProcess->name + ": getPid()");
}

bool Worker::isReady() const
{
    return mIsReady;
}

bool Worker::isFinished() const
{
    return mIsFinished;
}

scripted::Pipe* Worker::pipe() const
{
    return mPipe.get();
}

scripted::Process& Worker::process() const
{
    return *mProcess;
}

void Worker::step()
{
    if (mPipe == nullptr || mIsFinished) {
        mIsFinished = true;
        return;
    }
    processEvents(*mWorld, *mPipe);

    const std::uint64_t ram = mLimits.maxRam == 0 ? 0 : readRam();
    const bool isOverRam = mLimits.maxRam != 0 && ram > mLimits.maxRam;
    const bool isOverTime =
        mLimits.maxSeconds != 0 && !mIsReady && elapsedSeconds() > mLimits.maxSeconds;
    for (const Verdict& row : verdicts) {
        if (!fits(row.isKilled, mIsKilled) || !fits(row.isOverRam, isOverRam) ||
            !fits(row.isOverTime, isOverTime))
            continue;
        ++mWorld->seen[row.name];
        if (isOverRam && isOverTime && !mIsKilled)
            ++mWorld->seen["verdict: over both"];
        if (row.sentence == Sentence::tooMuchRam)
            return condemn(
                nqScheduler::TooMuchRam,
                "using too much RAM (" + memoryText(ram) + "B)",
                "too much memory");
        if (row.sentence == Sentence::timeout)
            return condemn(
                nqScheduler::Timeout,
                "killing scheduler worker : timeout (" + secondsText(elapsedSeconds()) + ")",
                "timeout");
        break;
    }

    const bool completed = !isReadChannelClosed(*mPipe) && !mPipe->incoming.empty() && receive();

    const bool isReadClosed = isReadChannelClosed(*mPipe);
    const bool runs = !isReadClosed || isRunning(*mProcess);
    for (const AfterReceiving& row : fates) {
        if (!fits(row.isReadClosed, isReadClosed) || !fits(row.isRunning, runs) ||
            !fits(row.isConnected, isConnected(*mPipe)))
            continue;
        ++mWorld->seen[row.name];
        return row.fate == Fate::lost ? failJob() : send(completed);
    }
}

void Worker::closePipe()
{
    mQueues = nullptr;
    if (mPipe != nullptr)
        closeAndDestroy(*mWorld, *mPipe);
    mPipe = nullptr;
}

void Worker::end()
{
    closePipe();
    wait(*mWorld, *mProcess, 0xFFFFFFFF);
    mWorld->tell(told::ended(mPid, mEndReason, mLargestReading));
    destroy(*mWorld, *mProcess);
}

bool Worker::killFor(nqScheduler::FailReason reason, const std::string& message)
{
    if (mIsFinished || isLeaving())
        return false;
    condemn(reason, message, "killed by the host");
    return true;
}

bool Worker::isLeaving() const
{
    return mIsKilled || mPipe == nullptr;
}

std::int64_t Worker::pid() const
{
    return mPid;
}

std::uint64_t Worker::milliseconds() const
{
    if (mIsReady)
        return 0;
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(mWorld->steadyTime - mJobStart)
            .count());
}

void Worker::condemn(
    nqScheduler::FailReason reason, const std::string& message, const char* endReason)
{
    mEndReason = endReason;
    mReason = reason;
    mMessage = message;
    kill(*mWorld, *mProcess);
    mIsKilled = true;
}

void Worker::failJob()
{
    if (!mIsReady) {
        mWorld->log(
            0,
            false,
            "Job failed error (" + std::to_string(mReason) + ") " + mMessage + " (PID " +
                std::to_string(mPid) + ")");
        mQueues->pushFailure({common::text(mJob), mReason, mMessage});
        mWorld->tell(told::failed(mPid, mJob.size(), mReason, mMessage));
        mIsReady = true;
        mJob.clear();
    }
    if (!mIsKilled)
        mEndReason = "lost";
    mIsFinished = true;
}

void Worker::send(bool jobJustCompleted)
{
    if (!mIsReady)
        return stream();

    if (mLimits.maxRamAfterJob != 0 && jobJustCompleted) {
        const std::uint64_t ram = readRam();
        if (ram > mLimits.maxRamAfterJob)
            return restart(ram);
    }
    mSent = 0;

    const bool hasPending = !mQueues->pending.empty();
    const bool isPendingEmpty = hasPending && mQueues->pending.front().empty();
    for (const WhenReady& row : tasks) {
        if (!fits(row.isOutgoingEmpty, mPipe->outgoing.empty()) || !fits(row.isKilled, mIsKilled) ||
            !fits(row.hasPendingJob, hasPending) || !fits(row.isPendingJobEmpty, isPendingEmpty))
            continue;
        ++mWorld->seen[row.name];
        if (row.task != Task::none)
            takeNextJob();
        if (row.task == Task::job)
            dispatch();
        return;
    }
}

void Worker::restart(std::uint64_t ram)
{
    ++mWorld->seen["restarted after a job"];
    if (!mIsKilled)
        mEndReason = "memory after a job";
    closePipe();
    mIsFinished = true;
    mWorld->log(
        0,
        false,
        "restarting scheduler worker : using too much RAM after job processing (" +
            memoryText(ram) + "B) (no job lost) (PID " + std::to_string(mPid) + ")");
}

void Worker::takeNextJob()
{
    ++mQueues->inProgress;
    mJob = mQueues->pending.front();
    mQueues->pending.pop_front();
}

void Worker::dispatch()
{
    mIsReady = false;
    mReason = nqScheduler::UnexpectedCrash;
    mMessage = "Unexpected crash";
    mWorld->say("timer: start()");
    mJobStart = mWorld->steadyTime;
    mWorld->tell(told::handedOut(mPid, mJob.size(), mPipe->incoming.size()));

    if (canWrite()) {
        const std::size_t count = std::min(headerBytes, room());
        if (count < headerBytes)
            ++mWorld->seen["header cut"];
        write(common::header(static_cast<std::uint32_t>(mJob.size())), 0, count);
    }
    stream();
}

void Worker::stream()
{
    if (mSent >= mJob.size() || !canWrite())
        return;
    const std::size_t count = std::min(mJob.size() - mSent, room());
    write(mJob, mSent, count);
    mSent += count;
}

bool Worker::receive()
{
    if (mIsReady) {
        ++mWorld->seen["received while idle"];
        return false;
    }
    Bytes& incoming = mPipe->incoming;
    if (mResult.empty()) {
        mReceived = 0;
        if (incoming.size() < headerBytes) {
            ++mWorld->seen["received part of a header"];
            return false;
        }
        std::uint32_t length = 0;
        if (isConnected(*mPipe)) {
            std::memcpy(&length, incoming.data(), headerBytes);
            common::eraseFront(incoming, headerBytes);
        }
        if (length >= refusedBytes) {
            ++mWorld->seen["received a length that nobody has memory for"];
            close(*mWorld, *mPipe);
            throw std::bad_alloc();
        }
        mResult.resize(length);
        if (length == 0) {
            ++mWorld->seen["received an empty result"];
            return false;
        }
    }

    const std::size_t count = std::min(incoming.size(), mResult.size() - mReceived);
    if (isConnected(*mPipe)) {
        const auto end = incoming.begin() + static_cast<std::ptrdiff_t>(count);
        std::copy(incoming.begin(), end, mResult.begin() + static_cast<std::ptrdiff_t>(mReceived));
        incoming.erase(incoming.begin(), end);
        mReceived += count;
    }
    if (mReceived < mResult.size()) {
        ++mWorld->seen["received part of a result"];
        return false;
    }

    ++mWorld->seen["received a result"];
    mQueues->pushResult(mResult);
    mWorld->tell(told::result(mPid, mResult.size()));
    mResult.clear();
    mJob.clear();
    mIsReady = true;
    mReceived = 0;
    return true;
}

std::uint64_t Worker::readRam()
{
    mWorld->say(mProcess->name + ": getCurrentRamInUse()");
    mLargestReading = std::max(mLargestReading, mProcess->ramInUse);
    return mProcess->ramInUse;
}

std::uint64_t Worker::elapsedSeconds() const
{
    const std::chrono::duration<double> elapsed = mWorld->steadyTime - mJobStart;
    return static_cast<std::uint64_t>(elapsed.count());
}

bool Worker::canWrite() const
{
    return isConnected(*mPipe) && !mPipe->isWriteChannelClosed;
}

void Worker::write(const Bytes& bytes, std::size_t from, std::size_t count)
{
    const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(from);
    mPipe->outgoing.insert(
        mPipe->outgoing.end(), first, first + static_cast<std::ptrdiff_t>(count));
}

std::size_t Worker::room() const
{
    return mPipe->outgoingLimit - mPipe->outgoing.size();
}

std::string memoryText(std::uint64_t bytes)
{
    const std::string prefixes = "kMGTPE";
    auto value = static_cast<double>(bytes);
    std::string prefix;
    for (std::size_t i = prefixes.size(); i > 0; --i) {
        const double step = std::pow(1024.0, static_cast<double>(i));
        if (value >= step) {
            value /= step;
            prefix = prefixes.at(i - 1);
            break;
        }
    }

    // Three digits in all and one decimal at most; halves go down.
    const bool hasDecimal = value < 100.0;
    const double scale = hasDecimal ? 10.0 : 1.0;
    const auto scaled = static_cast<std::uint64_t>(std::fabs(std::ceil(value * scale - 0.5)));
    if (!hasDecimal)
        return std::to_string(scaled) + prefix;
    const std::string decimal = scaled % 10 == 0 ? "" : "." + std::to_string(scaled % 10);
    return std::to_string(scaled / 10) + decimal + prefix;
}

std::string secondsText(std::uint64_t seconds)
{
    struct Part {
        std::uint64_t value;
        const char* unit;
    };
    const std::array<Part, 4> parts{{
        {seconds / 86400, "d"},
        {seconds / 3600 % 24, "h"},
        {seconds / 60 % 60, "m"},
        {seconds % 60, "s"},
    }};
    // From an hour on, seconds are not shown; zeros in front and at the end never are.
    std::size_t first = 0;
    while (first < parts.size() && parts.at(first).value == 0)
        ++first;
    std::size_t end = first <= 1 ? 3 : 4;
    while (end > first && parts.at(end - 1).value == 0)
        --end;
    if (first >= end)
        return "0ms";
    std::string text;
    for (std::size_t i = first; i < end; ++i)
        text += (i == first ? "" : " ") + std::to_string(parts.at(i).value) + parts.at(i).unit;
    return text;
}

} // namespace model
