#include "tools/nqrun/run.h"

#include "tools/nqrun/error.h"
#include "tools/nqrun/io.h"
#include "tools/nqrun/process_tree.h"
#include "tools/nqrun/stop_signals.h"
#include "tools/nqrun/text.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace nqrun {

namespace {

using Clock = std::chrono::steady_clock;
using Reason = nq::nqAttempt::Reason;

// The keeper of a command ends it in time; the pool steps in when a keeper does not answer, because
// a process of its command cannot be ended, say.
constexpr std::chrono::seconds keeperGrace{10};
constexpr std::chrono::seconds orphanLimit{5};
constexpr std::size_t lastWordsBytes = 2048;
constexpr std::size_t mostWaiting = 100'000; // items whose output waits for an earlier one's
constexpr std::size_t usuallyInQueue = 1000;
constexpr std::size_t mostBytesInQueue = std::size_t{256} << 20; // they are in memory here as well

unsigned workersOf(const Options& options)
{
    return options.jobs != 0 ? options.jobs : std::max(std::thread::hardware_concurrency(), 1u);
}

// Two files for each item that is on its way, and what the pool needs for each worker.
std::uint64_t raiseOpenFiles()
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return 0;
    const std::uint64_t former = limit.rlim_cur;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    return former;
}

std::chrono::milliseconds timeoutOf(const Options& options)
{
    return std::chrono::ceil<std::chrono::milliseconds>(options.limits.timeout);
}

nq::nqPoolOptions poolOptions(const Options& options)
{
    nq::nqPoolOptions pool;
    pool.workers = workersOf(options);
    pool.name = options.command.empty() ? options.worker : options.command.front();
    pool.metricsFile = options.metrics;
    pool.traceFile = options.trace;
    pool.timelineFile = options.timeline;
    pool.statusFile = options.status;
    if (!options.worker.empty()) {
        pool.worker = options.worker;
        pool.memoryCap = options.limits.memory;
        pool.jobTimeout = timeoutOf(options);
    } else if (options.limits.timeout.count() > 0) {
        pool.jobTimeout = timeoutOf(options) + keeperGrace;
    }
    return pool;
}

// Of a pipe or a device nothing is kept that could be resumed.
bool isKept(const std::string& joblog)
{
    struct stat about {};
    return !joblog.empty() && (::stat(joblog.c_str(), &about) != 0 || S_ISREG(about.st_mode));
}

// The command that submits an item again, from its standard input.
std::vector<std::string> submission(const Options& options, const Item& item)
{
    std::error_code problem;
    const std::string program = std::filesystem::read_symlink("/proc/self/exe", problem).string();
    std::vector<std::string> words = {
        problem ? "nqrun" : program,
        "--redis",
        options.cluster.redis,
        "--queue",
        options.cluster.queue};
    if (!options.cluster.passwordFile.empty())
        words.insert(words.end(), {"--password-file", options.cluster.passwordFile});
    if (item.text.empty())
        words.insert(words.end(), {":::", ""});
    else
        words.insert(words.end(), {"--pipe", "--block", "64M"}); // all of it is one item
    return words;
}

Joblog::Run joblogRun(const Options& options)
{
    Joblog::Run run;
    run.command = options.command;
    if (!options.worker.empty())
        run.command = {options.worker};
    run.kind = !options.worker.empty() ? "worker" : options.isShell ? "shell" : "arguments";
    if (options.hasCluster()) {
        run.command = {options.cluster.queue};
        run.kind = "queue";
    }
    if (options.items.asBlocks)
        run.kind += options.items.blockLines != 0
                        ? ", blocks of " + std::to_string(options.items.blockLines) + " lines"
                        : ", blocks of " + std::to_string(options.items.blockBytes) + " bytes";
    return run;
}

// A command line for a file of lines and columns.
std::string onOneLine(const std::vector<std::string>& arguments)
{
    std::string line;
    for (const std::string& argument : arguments) {
        line += line.empty() ? "" : " ";
        const bool isPlain = argument.find_first_of("\n\r\t") == argument.npos;
        if (isPlain) {
            line += shellQuoted(argument);
            continue;
        }
        line += "$'";
        for (const char byte : argument) {
            if (byte == '\n' || byte == '\r' || byte == '\t')
                line += byte == '\n' ? "\\n" : byte == '\r' ? "\\r" : "\\t";
            else
                line += (byte == '\'' || byte == '\\' ? "\\" : "") + std::string(1, byte);
        }
        line += '\'';
    }
    return line;
}

std::uint64_t sizeOf(int file)
{
    struct stat about {};
    return ::fstat(file, &about) == 0 ? static_cast<std::uint64_t>(about.st_size) : 0;
}

const char* wordFor(End end)
{
    switch (end) {
    case End::Exited:
        return "exit";
    case End::Signalled:
        return "signal";
    case End::TimedOut:
        return "timeout";
    case End::MemoryCap:
        return "memory";
    case End::NotStarted:
        return "not started";
    case End::OutputLost:
    case End::None:
        break;
    }
    return "lost";
}

const char* wordFor(Reason reason)
{
    switch (reason) {
    case Reason::Crashed:
        return "signal";
    case Reason::Exited:
        return "exit";
    case Reason::MemoryCap:
        return "memory";
    case Reason::Timeout:
    case Reason::Deadline:
        return "timeout";
    case Reason::Exception:
        return "exception";
    case Reason::None:
    case Reason::ResultLost:
    case Reason::NoWorker:
    case Reason::Cancelled:
    case Reason::Stopped:
    case Reason::Lost:
        break;
    }
    return "lost";
}

std::uint64_t hashOf(std::string_view bytes)
{
    std::uint64_t hash = 0xcbf29ce484222325U; // FNV-1a
    for (const char byte : bytes)
        hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001b3U;
    return hash;
}

std::string fingerprint(std::string_view bytes)
{
    std::array<char, 24> text{};
    std::snprintf(
        text.data(), text.size(), "%016llx", static_cast<unsigned long long>(hashOf(bytes)));
    return text.data();
}

} // namespace

RunResult dryRun(const Options& options)
{
    const CommandTemplate commands(options.command, options.isShell, options.items.asBlocks);
    Items items(options.items);
    Item item;
    for (;;) {
        const Items::Next next = items.next(item);
        if (next == Items::Next::End)
            break;
        if (next == Items::Next::Wait) {
            pollfd stream{items.descriptor(), POLLIN, 0};
            ::poll(&stream, 1, -1);
            continue;
        }
        if (!options.shard.holds(item.index))
            continue;
        if (writeAll(STDOUT_FILENO, commandLine(commands.arguments(item)) + '\n'))
            continue;
        if (errno == EPIPE)
            return {0, SIGPIPE};
        throw Error("standard output cannot be written: " + lastError());
    }
    return {};
}

Run::Run(const Options& options)
    : mOptions(options),
      mFormerChildren(childrenOf(::getpid())),
      mLimits(options.limits),
      mItems(options.items),
      mProgress(!options.isQuiet),
      mDelivery(
          options.keepOrder,
          options.hasTags,
          [this] { mProgress.clear(); },
          [this](Finished&& finished) { onDelivered(std::move(finished)); })
{
    if (!options.command.empty()) {
        mTemplate.emplace(options.command, options.isShell, options.items.asBlocks);
        const std::string program = mTemplate->program();
        if (!program.empty())
            mProgram = findProgram(program);
    }
    adoptOrphans(); // keepers whose worker was ended; without it they are init's
    mLimits.openFiles = raiseOpenFiles();
    const bool resumes = options.resumes || options.resumesFailed;
    if (options.hasCluster()) {
        if (isKept(options.joblog))
            mSent.emplace(options.joblog + ".queue", resumes);
        mPool = makeClusterPool(
            options.cluster, mSent ? mSent->client() : std::string(), timeoutOf(options));
    } else {
        mPool = makeLocalPool(poolOptions(options));
    }
    if (!options.results.empty()) {
        std::error_code problem;
        std::filesystem::create_directories(options.results, problem);
        if (problem)
            throw Error(
                "the folder " + shown(options.results) +
                " for results cannot be made: " + problem.message());
    }
    if (!options.keepFailed.empty())
        mScripts.emplace(options.keepFailed);
    // Last, so that no log is made by a run that cannot begin.
    if (!options.joblog.empty())
        mJoblog.emplace(options.joblog, options.joblogFormat, joblogRun(options), resumes);
    if (mSent)
        mSent->begin();
    mAwaitsLeft = mSent && resumes;
    setRoom();
}

void Run::setRoom()
{
    const unsigned workers = workersOf(mOptions);
    mRoom = workers + workers / 2 + 2; // so that no worker waits for the next item
    if (mOptions.halt.when != Halt::When::Never)
        mRoom = workers; // or the next item would run before the end of this one is known
    if (!mOptions.hasCluster())
        return;
    mRoom = mOptions.jobs != 0 ? mOptions.jobs : usuallyInQueue;
    mRoomBytes = mostBytesInQueue;
}

Run::~Run()
{
    mPhase = Phase::Ending; // what still comes of jobs goes nowhere
    mPool.reset();
    awaitOrphans(mFormerChildren, orphanLimit);
}

RunResult Run::run()
{
    try {
        loop();
        mDelivery.flush();
    } catch (const OutputClosed&) {
        mResult.signal =
            StopSignals::wish() == StopSignals::Wish::End ? StopSignals::signal() : SIGPIPE;
    }
    mPhase = Phase::Ending;
    mPool->stop();
    const std::string remark = mPool->closingRemark();
    mPool.reset();
    awaitOrphans(mFormerChildren, orphanLimit);
    sync();
    mProgress.clear();
    try {
        if (!remark.empty())
            mDelivery.say("nqrun: " + remark);
        if (mResult.signal != SIGPIPE)
            summarize();
    } catch (const OutputClosed&) {
        mResult.signal = StopSignals::signal();
    }
    return mResult;
}

void Run::loop()
{
    for (;;) {
        startItems();
        if (takeUpOutcomes())
            startItems();
        if (mAttempts.empty() && mTakenUp.empty() && (mPhase != Phase::Going || mHasAllItems))
            return;
        wait();
        mPool->pump(std::chrono::milliseconds(0));
        if (const std::optional<std::string> news = mPool->news())
            mDelivery.say("nqrun: " + *news);
        obeySignals();
        if (mJoblog && mJoblog->syncDue() && Clock::now() >= *mJoblog->syncDue())
            sync();
        showProgress();
    }
}

// What a line of the log is about is on disk before the line is.
void Run::sync()
{
    if (!mJoblog)
        return;
    struct stat about {};
    if (::fstat(STDOUT_FILENO, &about) == 0 && S_ISREG(about.st_mode))
        checkSync(::fdatasync(STDOUT_FILENO), "standard output");
    if (!mOptions.results.empty()) {
        const Descriptor folder(::open(mOptions.results.c_str(), O_RDONLY | O_CLOEXEC));
        checkSync(::syncfs(folder.number()), "--results " + shown(mOptions.results));
    }
    mJoblog->sync();
}

void Run::startItems()
{
    mWaitsForItems = false;
    while (mPhase == Phase::Going && !mHasAllItems && hasRoom()) {
        Attempt attempt;
        switch (mItems.next(attempt.item)) {
        case Items::Next::End:
            mHasAllItems = true;
            mPool->expectJobs(mStarted);
            return;
        case Items::Next::Wait:
            mWaitsForItems = true;
            return;
        case Items::Next::Item:
            break;
        }
        if (!mOptions.shard.holds(attempt.item.index) || isLogged(attempt.item))
            continue;
        attempt.ordinal = mStarted++;
        if (!takeUp(attempt))
            start(std::move(attempt));
    }
}

bool Run::hasRoom() const
{
    // With -k the first of those that wait may be one that is taken up.
    const bool mustReadOn = !mTakenUp.empty() && mSent->hasLeft();
    return mAttempts.size() < mRoom && (mDelivery.waiting() < mostWaiting || mustReadOn) &&
           (mRoomBytes == 0 || mAttemptBytes < mRoomBytes);
}

// Moves from an item that a run before has sent, and whose outcome is still to come.
bool Run::takeUp(Attempt& attempt)
{
    const std::optional<SentItems::Job> sent =
        mSent ? mSent->takeLeft(attempt.item.index) : std::nullopt;
    if (!sent)
        return false;
    if (sent->check != hashOf(attempt.item.text))
        throw Error(
            "the joblog " + shown(mOptions.joblog) + " is of other items: the item " +
            std::to_string(attempt.item.index) + " that is still in the queue is not " +
            nameOf(attempt.item));
    if (!mAwaitsLeft)
        return false;
    attempt.number = sent->attempt;
    mTakenUp.emplace(sent->id, std::move(attempt));
    return true;
}

// The queue keeps an outcome only until it has been fetched: none is before all items have been
// read that it may belong to. An unknown one is of an item that is logged already.
bool Run::takeUpOutcomes()
{
    bool hasAny = false;
    while (mAwaitsLeft && mPhase == Phase::Going && (mHasAllItems || !mSent->hasLeft())) {
        if (std::optional<nq::nqOutcome> outcome = mPool->nextLeft()) {
            if (auto known = mTakenUp.extract(outcome->id))
                onOutcome(std::move(known.mapped()), std::move(*outcome));
            hasAny = true;
            continue;
        }
        if (mPool->hasLeft())
            break;
        mAwaitsLeft = false;
        // The queue has never had these, or has lost them.
        for (auto& [job, attempt] : std::exchange(mTakenUp, {}))
            start(std::move(attempt));
    }
    return hasAny;
}

bool Run::isLogged(const Item& item)
{
    if (!mJoblog)
        return false;
    const Logged state = mJoblog->history().stateOf(item.index);
    if (state == Logged::No)
        return false;
    if (!mJoblog->history().isOf(item.index, identityOf(item)))
        throw Error(
            "the joblog " + shown(mOptions.joblog) + " is of other items" +
            (mJoblog->format() == JoblogFormat::Parallel ? ", or of another command" : "") +
            ": its item " + std::to_string(item.index) + " is not " + nameOf(item));
    if (state == Logged::Failed && mOptions.resumesFailed)
        return false;
    if (mSent)
        mSent->forget(item.index);
    ++mSkipped;
    return true;
}

std::string Run::nameOf(const Item& item) const
{
    if (mOptions.items.asBlocks)
        return "block " + std::to_string(item.index);
    return shown(item.text, 200);
}

std::string Run::identityOf(const Item& item) const
{
    if (mJoblog && mJoblog->format() == JoblogFormat::Parallel)
        return mTemplate ? onOneLine(mTemplate->arguments(item))
                         : onOneLine(
                               {mOptions.hasCluster() ? mOptions.cluster.queue : mOptions.worker,
                                item.text});
    if (mOptions.items.asBlocks)
        return std::to_string(item.text.size()) + " bytes " + fingerprint(item.text);
    return item.text;
}

void Run::start(Attempt&& attempt)
{
    nq::nqJobOptions jobOptions;
    jobOptions.hostAttempt = attempt.number;
    jobOptions.hostAttempts = mOptions.retries + 1;
    jobOptions.label = mOptions.items.asBlocks ? nameOf(attempt.item) : attempt.item.text;
    const std::uint64_t serial = attempt.serial = ++mSerial;
    std::string bytes;
    if (mTemplate) {
        attempt.slot = mSlots.take();
        Command command;
        command.serial = serial;
        command.files = attempt.slot.files();
        command.limits = mLimits;
        command.arguments = mTemplate->arguments(attempt.item);
        command.program = mProgram.empty() ? command.arguments.front() : mProgram;
        command.hasInput = mOptions.items.asBlocks;
        if (command.hasInput)
            command.input = attempt.item.text;
        bytes = command.encoded();
    } else {
        bytes = attempt.item.text;
    }
    Attempt& placed = place(std::move(attempt));
    placed.job = mPool->submit(bytes, jobOptions, [this, serial](nq::nqOutcome&& outcome) {
        onOutcome(takeOut(serial), std::move(outcome));
    });
    if (placed.job == 0)
        throw Error("the pool takes no more commands");
    if (mSent)
        mSent->note(placed.item.index, {placed.job, placed.number, hashOf(placed.item.text)});
}

Run::Attempt& Run::place(Attempt&& attempt)
{
    mAttemptBytes += attempt.item.text.size();
    const std::uint64_t serial = attempt.serial;
    return mAttempts.emplace(serial, std::move(attempt)).first->second;
}

Run::Attempt Run::takeOut(std::uint64_t serial)
{
    Attempt attempt = std::move(mAttempts.extract(serial).mapped());
    mAttemptBytes -= attempt.item.text.size();
    return attempt;
}

void Run::wait()
{
    std::array<pollfd, 3> sources = {
        {{mPool->waitDescriptor(), POLLIN, 0},
         {StopSignals::descriptor(), POLLIN, 0},
         {mWaitsForItems ? mItems.descriptor() : -1, POLLIN, 0}}};
    std::optional<Clock::time_point> due = mProgress.due();
    if (mJoblog && mJoblog->syncDue() && (!due || *mJoblog->syncDue() < *due))
        due = mJoblog->syncDue();
    if (const auto news = mPool->newsDue(); news && (!due || *news < *due))
        due = news;
    int limit = -1;
    if (due) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(*due - Clock::now());
        limit = static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 60'000));
    }
    ::poll(sources.data(), sources.size(), limit); // whatever comes of it, the loop looks
}

void Run::onOutcome(Attempt&& attempt, nq::nqOutcome&& outcome)
{
    if (mPhase == Phase::Ending)
        return;
    if (outcome.state == nq::nqOutcome::State::Cancelled && mPhase == Phase::Going) {
        // The run before had taken it out of the queue when it was killed.
        start(std::move(attempt));
        return;
    }
    if (outcome.state == nq::nqOutcome::State::Cancelled) {
        mDelivery.skip(attempt.ordinal);
        if (mSent)
            mSent->forget(attempt.item.index);
        return; // not logged; the files of its slot are not used again
    }
    if (outcome.reason == Reason::NoWorker)
        throw Error("no worker process can be started: " + outcome.message);
    Finished finished = describe(attempt, outcome);
    // One that an interruption keeps from its next attempt is to be run again by --resume.
    finished.isFinal = finished.isDone || attempt.number > mOptions.retries;
    if (finished.isFinal || mPhase != Phase::Going) {
        conclude(std::move(attempt), std::move(finished), outcome);
        return;
    }
    if (!mOptions.isQuiet)
        mDelivery.say(
            failureLine(finished) + "; attempt " + std::to_string(attempt.number) + " of " +
            std::to_string(mOptions.retries + 1) + ", trying again");
    if (mJoblog)
        mJoblog->write(finished);
    if (finished.isSlotFree)
        mSlots.giveBack(std::move(attempt.slot), true);
    attempt.slot = OutputSlot();
    ++attempt.number;
    start(std::move(attempt));
}

void Run::conclude(Attempt&& attempt, Finished&& finished, const nq::nqOutcome& outcome)
{
    if (finished.isDone)
        ++mDone;
    else
        ++mResult.failed;
    if (mScripts && finished.isDone)
        mScripts->remove(finished.index);
    else if (mScripts)
        keepScript(attempt, finished);
    const bool isOverHalt = mOptions.halt.isReached(mResult.failed, mDone);
    const bool isSlotFree = finished.isSlotFree;
    if (mTemplate) {
        const bool hasContent = finished.outputBytes + finished.errorBytes != 0;
        mDelivery.take(std::move(finished), attempt.slot);
        if (isSlotFree)
            mSlots.giveBack(std::move(attempt.slot), hasContent);
    } else if (!finished.isDone || !mOptions.results.empty()) {
        if (finished.isDone) {
            std::array<char, 32> name{};
            std::snprintf(
                name.data(),
                name.size(),
                "/%06llu",
                static_cast<unsigned long long>(finished.index));
            writeWhole(mOptions.results + name.data(), outcome.text(), 0666);
        }
        mDelivery.take(std::move(finished), std::string_view());
    } else {
        std::string line(outcome.text());
        if (line.empty() || line.back() != '\n')
            line += '\n';
        mDelivery.take(std::move(finished), line);
    }
    if (isOverHalt && mPhase == Phase::Going) {
        mIsToEnd = mOptions.halt.when == Halt::When::Now;
        mIsHalted = true;
        finish(mIsToEnd || mOptions.isQuiet ? "" : "--halt");
    }
}

// What a worker says of its job has the time in it, and so have limits.
std::string Run::failureLine(const Finished& finished) const
{
    std::string line = "nqrun: " + finished.name + ": " + finished.failure;
    if (mTemplate && (finished.outcome == "exit" || finished.outcome == "signal"))
        line += " after " + durationText(std::chrono::microseconds(finished.ran));
    return line;
}

// An item is told of and logged once all of its output has been written.
void Run::onDelivered(Finished&& finished)
{
    if (!finished.isDone && !mOptions.isQuiet) {
        std::string line = failureLine(finished);
        if (finished.attempt > 1)
            line += ", attempt " + std::to_string(finished.attempt);
        mDelivery.say(line);
    }
    if (mJoblog)
        mJoblog->write(finished);
    if (mSent)
        mSent->forget(finished.index);
}

void Run::keepScript(const Attempt& attempt, const Finished& finished) const
{
    FailedCommand command;
    command.isWorkersJob = !mOptions.worker.empty();
    command.hasInput = mTemplate && mOptions.items.asBlocks;
    command.input = attempt.item.text;
    if (mTemplate) {
        command.arguments = mTemplate->arguments(attempt.item);
    } else if (mOptions.hasCluster()) {
        command.arguments = submission(mOptions, attempt.item);
        command.hasInput = !attempt.item.text.empty();
    } else {
        command.arguments = {mOptions.worker};
    }
    mScripts->write(finished, command);
}

Finished Run::describe(const Attempt& attempt, const nq::nqOutcome& outcome) const
{
    Finished finished;
    finished.ordinal = attempt.ordinal;
    finished.index = attempt.item.index;
    finished.name = nameOf(attempt.item);
    finished.attempt = attempt.number;
    if (mJoblog)
        finished.identity = identityOf(attempt.item);
    if (mTemplate)
        describeCommand(finished, attempt, outcome);
    else
        describeJob(finished, outcome);
    if (finished.isDone)
        finished.outcome = "done";
    return finished;
}

void Run::describeCommand(
    Finished& finished, const Attempt& attempt, const nq::nqOutcome& outcome) const
{
    Report report;
    const std::string bytes = readAt(attempt.slot.report.number(), 0, sizeof report);
    if (bytes.size() == sizeof report)
        std::memcpy(&report, bytes.data(), sizeof report);
    const bool isOfThis = bytes.size() == sizeof report && report.serial == attempt.serial;
    const bool isTold = outcome || outcome.toldByWorker;
    if (!isOfThis || !isTold) {
        // The worker was lost; what the command has printed until then is there.
        finished.outcome = wordFor(End::None);
        finished.failure = outcome.toldByWorker ? outcome.message : outcome.failureText();
        finished.ran = outcome.ran.count();
        finished.outputBytes = sizeOf(attempt.slot.output.number());
        finished.errorBytes = sizeOf(attempt.slot.error.number());
    } else {
        finished.isSlotFree = report.hasSurvivors == 0;
        finished.isDone = report.isDone();
        finished.outcome = wordFor(report.end);
        finished.status = report.shellStatus();
        finished.signal = report.end == End::Signalled ? report.code : 0;
        finished.startedAt = report.startedAt;
        finished.ran = report.ran;
        finished.peakMemory = report.peakMemory;
        finished.outputBytes = report.outputBytes;
        finished.errorBytes = report.errorBytes;
        if (!finished.isDone)
            finished.failure = outcome.message;
    }
    if (finished.isDone)
        return;
    const std::uint64_t count = std::min<std::uint64_t>(finished.errorBytes, 2 * lastWordsBytes);
    finished.lastWords = lastLines(
        readAt(attempt.slot.error.number(), finished.errorBytes - count, count), lastWordsBytes);
}

void Run::describeJob(Finished& finished, const nq::nqOutcome& outcome)
{
    finished.isDone = static_cast<bool>(outcome);
    finished.ran = outcome.ran.count();
    finished.startedAt = std::chrono::duration_cast<std::chrono::microseconds>(
                             std::chrono::system_clock::now().time_since_epoch())
                             .count() -
                         finished.ran;
    finished.peakMemory = outcome.peakMemory.value_or(0);
    if (finished.isDone)
        return;
    finished.outcome = wordFor(outcome.reason);
    finished.failure = outcome.failureText();
    finished.status = outcome.exitStatus.value_or(0);
    finished.signal = outcome.reason == Reason::Crashed ? outcome.signal.value_or(0) : 0;
    finished.lastWords = lastLines(outcome.lastWords, lastWordsBytes);
}

void Run::obeySignals()
{
    if (mIsToEnd)
        end();
    const StopSignals::Wish wish = StopSignals::wish();
    if (wish == StopSignals::Wish::None)
        return;
    StopSignals::empty();
    mResult.signal = StopSignals::signal();
    if (wish == StopSignals::Wish::End)
        end();
    else if (mPhase == Phase::Going)
        finish("interrupted");
}

// Nothing new is started, and what waits for a worker does not get one.
void Run::finish(const std::string& why)
{
    mPhase = Phase::Finishing;
    for (const auto& [job, attempt] : std::exchange(mTakenUp, {})) // the next run takes them up
        mDelivery.skip(attempt.ordinal);
    std::vector<nq::nqJobId> jobs;
    for (const auto& [serial, attempt] : mAttempts)
        jobs.push_back(attempt.job);
    const std::optional<std::size_t> count = mPool->cancelWaiting(jobs);
    if (count != 0 && !why.empty())
        mDelivery.say(
            "nqrun: " + why + ": nothing new is started; waiting for " +
            (count ? countText(*count, "running item") : "the items that agents have") +
            " (Ctrl-C ends " + (count == 1 ? "it" : "them") + " now)");
}

void Run::end()
{
    if (mPhase == Phase::Ending)
        return;
    mPhase = Phase::Ending;
    mPool->stop();
    mAttempts.clear();
    mTakenUp.clear();
}

void Run::summarize()
{
    if (mResult.signal != 0)
        mDelivery.say(
            "nqrun: interrupted by " + signalText(mResult.signal) + ": " + std::to_string(mDone) +
            " done, " + std::to_string(mResult.failed) + " failed" +
            (mJoblog ? "; --resume goes on from " + shown(mOptions.joblog) : std::string()));
    else if (mOptions.isQuiet)
        return;
    else if (mStarted == 0 && mSkipped == 0)
        mDelivery.say("nqrun: there are no items");
    else if (mResult.failed != 0 || mSkipped != 0 || mIsHalted)
        mDelivery.say(
            std::string("nqrun: ") + (mIsHalted ? "ended by --halt: " : "") +
            std::to_string(mDone) + " done, " + std::to_string(mResult.failed) + " failed" +
            (mSkipped != 0 ? ", " + std::to_string(mSkipped) + " in the joblog already"
                           : std::string()) +
            (mScripts && mResult.failed != 0
                 ? "; scripts to run them again are in " + shown(mOptions.keepFailed)
                 : std::string()));
}

void Run::showProgress()
{
    const auto due = mProgress.due();
    if (!due || Clock::now() < *due)
        return;
    Tally tally;
    tally.done = mDone;
    tally.failed = mResult.failed;
    tally.skipped = mSkipped;
    tally.isStopping = mPhase != Phase::Going;
    if (const auto total = mItems.estimatedTotal())
        tally.total = *total / static_cast<double>(mOptions.shard.count);
    using Workers = std::vector<nq::nqPoolWorkerStatus>;
    const std::optional<Workers> workers = mPool->workers();
    if (!workers)
        tally.queued = mAttempts.size() + mTakenUp.size();
    for (const nq::nqPoolWorkerStatus& worker : workers.value_or(Workers())) {
        if (worker.job == 0)
            continue;
        ++tally.running;
        if (worker.timeInJob <= tally.slowestTime)
            continue;
        tally.slowestTime = worker.timeInJob;
        for (const auto& [serial, attempt] : mAttempts) {
            if (attempt.job == worker.job)
                tally.slowest = nameOf(attempt.item);
        }
    }
    mDelivery.beginLine();
    mProgress.show(tally);
}

} // namespace nqrun
