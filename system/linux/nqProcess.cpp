#include "system/nqProcess.h"

#include "system/linux/nqChild.h"
#include "system/linux/nqDescriptor.h"
#include "system/linux/nqLeash.h"
#include "system/linux/nqPlatformLog.h"
#include "system/linux/nqReaper.h"
#include "system/linux/nqSpawn.h"
#include "system/linux/nqSpawnFailure.h"
#include "system/linux/nqStartedProcess.h"
#include "system/linux/nqSystemCall.h"
#include "system/nqDirUtils.h"
#include "system/nqOwnerProcess.h"
#include "system/nqThread.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <optional>
#include <sys/resource.h>
#include <unistd.h>
#include <utility>

// How a process ends:
// - updateState() or waitForFinished() finds that it has ended and reaps it. From then on its pid
//   may be recycled, so nothing is done by pid any more.
// - enterEnded() follows: releasing the leash kills what is left of the group, and the roster entry
//   keeps servers from letting in anybody of it.
// - killProcess() only sends the signals; the two above find the end later.
// - updateState() does not reap a process that exited with status 0 while a server waits for it:
//   that would kill the background program it may have started.

namespace nq {

namespace {

// A killed process normally ends within a millisecond; one that frees gigabytes takes longer.
constexpr std::int64_t maxWaitOfDestructorMs = 1'000;

constexpr int lowPriorityNiceness = 10; // about a tenth of the usual share of a busy processor
constexpr int idlePriorityNiceness = 19;

int nicenessOf(nqProcess::ProcessPriority priority)
{
    switch (priority) {
    case nqProcess::InheritedPriority:
        return 0;
    case nqProcess::LowPriority:
        return lowPriorityNiceness;
    case nqProcess::IdlePriority:
        return idlePriorityNiceness;
    }
    return 0;
}

bool holdsNul(const std::string& text)
{
    return text.find('\0') != std::string::npos;
}

// The second number of a line of statm; 0 when there is none.
std::uint64_t residentPages(const char* position, const char* end)
{
    position = std::find(position, end, ' ');
    if (position == end)
        return 0;
    std::uint64_t pages = 0;
    std::from_chars(position + 1, end, pages);
    return pages;
}

std::chrono::microseconds durationOf(const timeval& time)
{
    return std::chrono::seconds(time.tv_sec) + std::chrono::microseconds(time.tv_usec);
}

// In kibibytes. The child of vfork borrows the host's memory until its exec, and the kernel counts
// this as the child's. The host's peak only grows, so that it may be read as late as this.
std::uint64_t peakOfItsOwn(const rusage& usage)
{
    rusage host{};
    if (::getrusage(RUSAGE_SELF, &host) != 0 || usage.ru_maxrss <= host.ru_maxrss)
        return 0;
    return static_cast<std::uint64_t>(usage.ru_maxrss);
}

nqDescriptor openMemoryStatistics(pid_t pid)
{
    const std::string path = "/proc/" + std::to_string(pid) + "/statm";
    nqDescriptor statistics(
        retryOnSignal([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); }));
    statistics.moveOutOfRangeOfSelect();
    return statistics;
}

// Only the reading end does not block: a program does not expect that of its standard error. False
// with errno when the kernel refuses.
bool openErrorPipe(nqDescriptor& reader, nqDescriptor& writer)
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return false;
    reader = nqDescriptor(ends[0]);
    writer = nqDescriptor(ends[1]);
    if (!reader.isOpen() || !writer.isOpen() || ::fcntl(reader.get(), F_SETFL, O_NONBLOCK) != 0)
        return false;
    reader.moveOutOfRangeOfSelect();
    return true;
}

// Borrows the texts. execve takes them as not const for historical reasons, and changes none.
std::vector<char*>
argumentVector(const std::string& executable, const std::vector<std::string>& arguments)
{
    std::vector<char*> texts{const_cast<char*>(executable.c_str())};
    for (const std::string& argument : arguments)
        texts.push_back(const_cast<char*>(argument.c_str()));
    texts.push_back(nullptr);
    return texts;
}

} // namespace

struct nqProcess::Private {
    nqOwnerProcess mOwner;            // a forked child's copy stands for no process
    std::string mWorkingDirectory;    // empty: the host's
    bool mStartWasCalled = false;     // whatever came of it
    ProcessState mState = NotStarted; // as last found
    int mStartError = 0;              // errno of a start that has failed
    pid_t mPid = 0;                   // kept after the end, for messages
    std::optional<nqChildEnd> mEnd;   // set when mState becomes Ended, if it is known
    std::optional<nqChild> mChild;    // set while mState is Running
    std::optional<nqLeash> mLeash;    // armed while mState is Running, else none
    bool mCapturesStandardError = false;
    nqOwnedDescriptor mStandardError; // the reading end, until it is taken
    nqDescriptor mMemoryStatistics;   // kept open, so that it never means another process
    std::optional<nqStartedProcess> mRosterEntry; // for servers, once it is being started

    bool start(nqSpawnRequest request);
    nqSpawnResult spawn(nqSpawnRequest& request);
    void enterEnded();
    ProcessState updateState();
    bool keepMemoryStatisticsOpen();
};

bool nqProcess::Private::start(nqSpawnRequest request)
{
    const nqSpawnResult result = spawn(request);
    if (result.mPid == 0) {
        mLeash.reset();
        mStartError = result.mError;
        logError(describeSpawnFailure(request, result));
        return false;
    }
    mPid = result.mPid;
    mRosterEntry->noteStart(mPid);
    mChild.emplace(mPid);
    mState = Running;
    mMemoryStatistics = openMemoryStatistics(mPid);
    return true;
}

nqSpawnResult nqProcess::Private::spawn(nqSpawnRequest& request)
{
    mLeash.emplace();
    nqSpawnResult result;
    result.mError = errno; // of the leash, if there is none
    request.mLeash = &*mLeash;
    if (!mLeash->isOpen())
        return result;
    if (!mCapturesStandardError)
        return nqSpawn(request);

    nqDescriptor reader;
    nqDescriptor writer; // closed here once the child has it
    if (!openErrorPipe(reader, writer)) {
        result.mError = errno;
        return result;
    }
    request.mStandardError = writer.get();
    result = nqSpawn(request);
    if (result.mPid != 0)
        mStandardError = nqOwnedDescriptor(reader.release());
    return result;
}

// The leader is reaped.
void nqProcess::Private::enterEnded()
{
    mState = Ended;
    mLeash.reset(); // kills what is left of the group
    mMemoryStatistics.close();
    mEnd = mChild->end();
    mChild.reset();
    mRosterEntry->noteEnd(mEnd);
}

// Reaps the process if it has ended, but not after status 0 while a server still waits for its
// connection.
nqProcess::ProcessState nqProcess::Private::updateState()
{
    if (mState != Running)
        return mState;
    if (!mOwner.isThisProcess())
        mState = Ended; // the process is the parent's, and left alone
    else if ((!mRosterEntry->isAwaited() || mChild->hasFailed()) && mChild->reapIfEnded())
        enterEnded();
    return mState;
}

// Tried again when it failed at the launch: a memory cap has to hold even if the host was short of
// descriptors for a moment. The process must run before and after, because a host that reaps it
// itself frees its pid for another.
bool nqProcess::Private::keepMemoryStatisticsOpen()
{
    if (mMemoryStatistics.isOpen() || updateState() != Running)
        return mMemoryStatistics.isOpen();
    nqDescriptor statistics = openMemoryStatistics(mPid);
    if (updateState() == Running)
        mMemoryStatistics = std::move(statistics);
    return mMemoryStatistics.isOpen();
}

nqProcess::nqProcess()
    : mPrivate(std::make_unique<Private>())
{
}

nqProcess::~nqProcess()
{
    const nqThread::Uncancellable untilDestroyed;
    if (mPrivate->updateState() == Running) {
        killProcess();
        if (mPrivate->mState == Running && !mPrivate->mChild->waitForEnd(maxWaitOfDestructorMs))
            nqReaper::takeOver(std::move(*mPrivate->mChild));
    }
    nqReaper::reapEnded();
}

void nqProcess::setWorkingDirectory(const std::string& directoryUtf8)
{
    mPrivate->mWorkingDirectory = directoryUtf8;
}

void nqProcess::captureStandardError()
{
    mPrivate->mCapturesStandardError = true;
}

nqOwnedDescriptor nqProcess::takeStandardError()
{
    return std::move(mPrivate->mStandardError);
}

bool nqProcess::startProcess(
    const std::string& exePathUtf8,
    const std::vector<std::string>& arguments,
    bool silenceOutput,
    ProcessPriority priority)
{
    nqReaper::reapEnded();
    if (!mPrivate->mOwner.isThisProcess() || std::exchange(mPrivate->mStartWasCalled, true))
        return false;
    // The kernel would cut such a text short.
    if (holdsNul(exePathUtf8) || holdsNul(mPrivate->mWorkingDirectory) ||
        std::any_of(arguments.begin(), arguments.end(), holdsNul)) {
        mPrivate->mStartError = EINVAL;
        logError("Cannot start a process: its path, folder or an argument holds a zero byte");
        return false;
    }

    const std::string executable = nqDirUtils::GetAbsolutePathUtf8(exePathUtf8);
    const std::vector<char*> argv = argumentVector(exePathUtf8, arguments);
    nqSpawnRequest request;
    request.mExecutable = executable.c_str();
    request.mArguments = argv.data();
    if (!mPrivate->mWorkingDirectory.empty())
        request.mWorkingDirectory = mPrivate->mWorkingDirectory.c_str();
    request.mSilenceOutput = silenceOutput;
    request.mNiceness = nicenessOf(priority);
    mPrivate->mRosterEntry.emplace(executable, arguments);
    if (mPrivate->start(request))
        return true;
    mPrivate->mRosterEntry.reset();
    return false;
}

nqProcess::ProcessState nqProcess::getState() const
{
    return mPrivate->updateState();
}

std::int64_t nqProcess::getPid() const
{
    return mPrivate->mPid;
}

std::optional<nqProcess::End> nqProcess::end() const
{
    constexpr std::uint64_t kibibyte = 1024;
    const std::optional<nqChildEnd>& found = mPrivate->mEnd;
    if (!found)
        return std::nullopt;
    End end;
    end.mExitStatus = found->mExitStatus;
    end.mSignal = found->mSignal;
    end.mDumpedCore = found->mDumpedCore;
    end.mUserTime = durationOf(found->mUsage.ru_utime);
    end.mSystemTime = durationOf(found->mUsage.ru_stime);
    end.mPeakMemory = peakOfItsOwn(found->mUsage) * kibibyte;
    return end;
}

int nqProcess::startError() const
{
    return mPrivate->mStartError;
}

std::uint64_t nqProcess::getCurrentRamInUse() const
{
    static const auto pageBytes = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
    if (!mPrivate->keepMemoryStatisticsOpen())
        return 0;
    char line[128]; // room for the first two of its seven numbers, whatever they are
    const ssize_t count = retryOnSignal(
        [&] { return ::pread(mPrivate->mMemoryStatistics.get(), line, sizeof(line), 0); });
    return count > 0 ? residentPages(line, line + count) * pageBytes : 0;
}

bool nqProcess::setWorkingSetMaxSize(std::uint64_t bytes)
{
    rlimit limit{};
    if (mPrivate->updateState() != Running ||
        ::prlimit(mPrivate->mPid, RLIMIT_DATA, nullptr, &limit) != 0)
        return false;
    limit.rlim_cur = std::min<rlim_t>(bytes, limit.rlim_max);
    return ::prlimit(mPrivate->mPid, RLIMIT_DATA, &limit, nullptr) == 0;
}

void nqProcess::killProcess()
{
    if (!mPrivate->mRosterEntry || !mPrivate->mOwner.isThisProcess())
        return;
    mPrivate->mRosterEntry->noteKill(); // first, so that an end found from here on is not logged
    if (mPrivate->updateState() == Running) {
        mPrivate->mLeash->killGroup();
        mPrivate->mChild->kill(); // by its own handle as well, whatever became of the group
    }
    mPrivate->mRosterEntry->killPeer();
}

bool nqProcess::waitForFinished(unsigned int timeoutMs)
{
    if (mPrivate->mState != Running || !mPrivate->mOwner.isThisProcess())
        return true;
    if (timeoutMs == withoutLimit)
        mPrivate->mChild->waitForEnd();
    else if (!mPrivate->mChild->waitForEnd(timeoutMs))
        return false;
    mPrivate->enterEnded();
    return true;
}

} // namespace nq
