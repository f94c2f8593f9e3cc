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
#include <limits>
#include <optional>
#include <sys/resource.h>
#include <unistd.h>
#include <utility>

namespace nq {

namespace {

constexpr unsigned int noTimeLimit = std::numeric_limits<unsigned int>::max();

// A killed process normally ends within a millisecond, later when it has gigabytes to give back.
constexpr std::int64_t maxWaitOfDestructorMs = 1'000;

constexpr int lowPriorityNiceness = 10; // half of the way down: runs at a tenth of the usual share
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

// The second number of a statm line; 0 when there is none.
std::uint64_t residentPages(const char* position, const char* end)
{
    position = std::find(position, end, ' ');
    if (position == end)
        return 0;
    std::uint64_t pages = 0;
    std::from_chars(position + 1, end, pages);
    return pages;
}

nqDescriptor openMemoryStatistics(pid_t pid)
{
    const std::string path = "/proc/" + std::to_string(pid) + "/statm";
    nqDescriptor statistics(
        retryOnSignal([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); }));
    statistics.moveOutOfRangeOfSelect();
    return statistics;
}

} // namespace

struct nqProcess::Private {
    nqOwnerProcess mOwner;              // for a forked child, its copy stands for no process
    std::string mWorkingDirectory;      // empty: the host's
    bool mStartWasCalled = false;       // whatever came of it
    ProcessState mProcess = NotStarted; // changed by start() and enterEnded() only
    pid_t mPid = 0;                     // kept after the end, for messages
    std::optional<nqChild> mChild;      // set while mProcess is Running
    std::optional<nqLeash> mLeash;      // armed while mProcess is Running, else none
    nqDescriptor mMemoryStatistics;     // kept open, so that it never means another process
    std::optional<nqStartedProcess> mForServers; // what servers know of it, from its start on

    bool start(nqSpawnRequest request);
    void enterEnded();
    bool reapIfEnded();
    bool openMissingMemoryStatistics();
};

bool nqProcess::Private::start(nqSpawnRequest request)
{
    mLeash.emplace();
    nqSpawnResult result;
    result.mError = errno;
    request.mLeash = &*mLeash;
    if (mLeash->isMade())
        result = nqSpawn(request);
    if (result.mPid == 0) {
        mLeash.reset();
        logError(describeSpawnFailure(request, result));
        return false;
    }
    mPid = result.mPid;
    mForServers->noteStart(mPid);
    mChild.emplace(mPid);
    mProcess = Running;
    mMemoryStatistics = openMemoryStatistics(mPid);
    return true;
}

// The leader is gone. What it forked into its group goes with it, and a connection from there is
// nobody's any more.
void nqProcess::Private::enterEnded()
{
    mProcess = Ended;
    mLeash.reset();
    mMemoryStatistics.close();
    const std::optional<nqChildEnd> end = mChild->end();
    mChild.reset();
    mForServers->noteEnd(end);
}

// True when it does not run, or not any more. One that has left without an error while a server
// waits for its connection counts as running: it may have put its program into the background.
bool nqProcess::Private::reapIfEnded()
{
    if (mProcess != Running)
        return true;
    if (!mOwner.isThisProcess())
        mProcess = Ended; // without a look at what is the parent's
    else if ((!mForServers->isAwaited() || mChild->hasFailed()) && mChild->reapIfEnded())
        enterEnded();
    return mProcess != Running;
}

// What could not be opened at the launch is tried again: a limit that was set has to hold, though
// the host was short of descriptors for a moment. The child must live before and after, since a
// host that reaps it itself frees its number for another process.
bool nqProcess::Private::openMissingMemoryStatistics()
{
    if (mMemoryStatistics.isOpen() || reapIfEnded())
        return mMemoryStatistics.isOpen();
    nqDescriptor statistics = openMemoryStatistics(mPid);
    if (!reapIfEnded())
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
    if (!mPrivate->reapIfEnded()) {
        killProcess();
        if (mPrivate->mProcess == Running && !mPrivate->mChild->waitForEnd(maxWaitOfDestructorMs))
            nqReaper::takeOver(std::move(*mPrivate->mChild));
    }
    nqReaper::reapEnded();
}

void nqProcess::setWorkingDirectory(const std::string& directoryUtf8)
{
    mPrivate->mWorkingDirectory = directoryUtf8;
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
    // The kernel would silently cut such a text short.
    if (holdsNul(exePathUtf8) || holdsNul(mPrivate->mWorkingDirectory) ||
        std::any_of(arguments.begin(), arguments.end(), holdsNul)) {
        logError("Cannot start a process: its path, folder or an argument holds a zero byte");
        return false;
    }

    const std::string executable = nqDirUtils::GetAbsolutePathUtf8(exePathUtf8);
    // execve takes its texts as not const for historical reasons and leaves them alone.
    std::vector<char*> texts{const_cast<char*>(exePathUtf8.c_str())};
    for (const std::string& argument : arguments)
        texts.push_back(const_cast<char*>(argument.c_str()));
    texts.push_back(nullptr);

    nqSpawnRequest request;
    request.mExecutable = executable.c_str();
    request.mArguments = texts.data();
    if (!mPrivate->mWorkingDirectory.empty())
        request.mWorkingDirectory = mPrivate->mWorkingDirectory.c_str();
    request.mSilenceOutput = silenceOutput;
    request.mNiceness = nicenessOf(priority);
    mPrivate->mForServers.emplace(executable, arguments);
    if (mPrivate->start(request))
        return true;
    mPrivate->mForServers.reset();
    return false;
}

nqProcess::ProcessState nqProcess::getState() const
{
    mPrivate->reapIfEnded();
    return mPrivate->mProcess;
}

std::int64_t nqProcess::getPid() const
{
    return mPrivate->mPid;
}

std::uint64_t nqProcess::getCurrentRamInUse() const
{
    static const auto pageBytes = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
    if (!mPrivate->openMissingMemoryStatistics())
        return 0;
    char line[128]; // seven numbers of at most twenty digits in theory; the second stands well
                    // inside
    const ssize_t count = retryOnSignal(
        [&] { return ::pread(mPrivate->mMemoryStatistics.get(), line, sizeof(line), 0); });
    return count > 0 ? residentPages(line, line + count) * pageBytes : 0;
}

bool nqProcess::setWorkingSetMaxSize(std::uint64_t bytes)
{
    rlimit limit{};
    if (mPrivate->reapIfEnded() || ::prlimit(mPrivate->mPid, RLIMIT_DATA, nullptr, &limit) != 0)
        return false;
    limit.rlim_cur = std::min<rlim_t>(bytes, limit.rlim_max);
    return ::prlimit(mPrivate->mPid, RLIMIT_DATA, &limit, nullptr) == 0;
}

void nqProcess::killProcess()
{
    if (!mPrivate->mForServers || !mPrivate->mOwner.isThisProcess())
        return;
    mPrivate->mForServers->noteKill(); // first: that it ends from here on is no news for the log
    if (!mPrivate->reapIfEnded()) {
        mPrivate->mLeash->killGroup();
        mPrivate->mChild->kill(); // by a handle of its own, whatever became of the group
    }
    mPrivate->mForServers->killPeer();
}

bool nqProcess::waitForFinished(unsigned int timeoutMs)
{
    if (mPrivate->mProcess != Running || !mPrivate->mOwner.isThisProcess())
        return true;
    if (timeoutMs == noTimeLimit)
        mPrivate->mChild->waitForEnd();
    else if (!mPrivate->mChild->waitForEnd(timeoutMs))
        return false;
    mPrivate->enterEnded();
    return true;
}

} // namespace nq
