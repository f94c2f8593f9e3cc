#include "benchmarks/common/job.h"

#include "benchmarks/common/clock.h"
#include "benchmarks/common/fail.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

namespace bench {

namespace {

constexpr char deathNoteVariable[] = "NQ_BENCH_DEATH_NOTE";
constexpr std::size_t numberOffset = 1; // behind the kind

using Number = std::uint64_t;

bool carriesNumber(std::size_t jobBytes)
{
    return jobBytes > numberOffset + sizeof(Number);
}

// Processor time and not wall time, so that a worker that is interrupted still does all its work.
void burnProcessorTime()
{
    const std::int64_t end = threadCpuNanoseconds() + workNanoseconds;
    while (threadCpuNanoseconds() < end) {
    }
}

[[noreturn]] void dieNow()
{
    const char* const path = std::getenv(deathNoteVariable);
    const int file = path == nullptr ? -1 : ::open(path, O_WRONLY | O_CLOEXEC);
    require(file >= 0, "open the death note");
    const std::int64_t now = monotonicNanoseconds();
    require(::pwrite(file, &now, sizeof now, 0) == sizeof now, "write the death note");
    ::kill(::getpid(), SIGKILL);
    std::abort();
}

} // namespace

void perform(const char* job)
{
    switch (static_cast<Kind>(*job)) {
    case Kind::echo:
        return;
    case Kind::work:
        burnProcessorTime();
        return;
    case Kind::hold:
        for (;;)
            ::pause();
    case Kind::die:
        dieNow();
    }
    fail("a job of unknown kind");
}

Ledger::Ledger(Kind kind, std::size_t bytes)
    : mKind(kind),
      mBytes(bytes)
{
}

std::size_t Ledger::jobBytes() const
{
    return mBytes;
}

void Ledger::stamp(char* job)
{
    const Number number = mNumber++;
    if (carriesNumber(mBytes))
        std::memcpy(job + numberOffset, &number, sizeof number);
    job[mBytes - 1] = static_cast<char>(number);
    job[0] = static_cast<char>(mNextIsFatal ? Kind::die : mKind);

    ++mUnderWay;
    if (mNextIsFatal)
        ++mFatalJobs;
    else
        mSum += number;
    mNextIsFatal = false;
}

void Ledger::makeNextFatal()
{
    mNextIsFatal = true;
}

void Ledger::check(const char* result, std::size_t size)
{
    if (size != mBytes || result[0] != static_cast<char>(mKind))
        fail("a result of the wrong size or kind");
    Number number = 0;
    if (carriesNumber(mBytes)) {
        std::memcpy(&number, result + numberOffset, sizeof number);
        if (result[size - 1] != static_cast<char>(number))
            fail("a result with a wrong last byte");
        mSum -= number;
    }
    --mUnderWay;
    if (++mChecked == mCallAfter)
        std::exchange(mCall, nullptr)();
}

void Ledger::callAfter(std::uint64_t count, std::function<void()> then)
{
    mCallAfter = count;
    mCall = std::move(then);
}

void Ledger::lose()
{
    if (mFatalJobs == 0)
        fail("a worker lost a job");
    --mFatalJobs;
    --mUnderWay;
}

void Ledger::requireBalance() const
{
    if (mUnderWay != 0 || mFatalJobs != 0 || (carriesNumber(mBytes) && mSum != 0))
        fail("jobs and results do not match");
}

// A file without a name leaves nothing behind, however this process ends.
DeathNote::DeathNote()
    : mFile(::memfd_create("death-note", MFD_CLOEXEC))
{
    require(mFile >= 0 && ::ftruncate(mFile, sizeof(std::int64_t)) == 0, "make the death note");
    void* const page = ::mmap(nullptr, sizeof(std::int64_t), PROT_READ, MAP_SHARED, mFile, 0);
    require(page != MAP_FAILED, "map the death note");
    mPage = static_cast<const std::int64_t*>(page);
    const std::string path = "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(mFile);
    ::setenv(deathNoteVariable, path.c_str(), 1);
}

DeathNote::~DeathNote()
{
    ::munmap(const_cast<std::int64_t*>(mPage), sizeof(std::int64_t));
    ::close(mFile);
}

std::int64_t DeathNote::diedAt() const
{
    return *static_cast<const volatile std::int64_t*>(mPage);
}

} // namespace bench
