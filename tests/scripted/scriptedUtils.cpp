#include "tests/scripted/scriptedMachine.h"

#include "system/nqDirUtils.h"
#include "system/nqHighResTimer.h"
#include "system/nqOwnerProcess.h"
#include "system/nqStringUtils.h"
#include "system/nqSystemUtils.h"
#include "system/nqThread.h"

#include <stdexcept>
#include <utility>

namespace nq {

namespace {

std::chrono::steady_clock::time_point scriptedNow()
{
    return std::chrono::steady_clock::time_point{scripted::machine().steadyTime};
}

} // namespace

std::string nqDirUtils::GetAbsolutePathUtf8(const std::string& path)
{
    scripted::machine().query("dirs: GetAbsolutePathUtf8(" + path + ")");
    if (path.empty() || path.front() == '/')
        return path;
    return scripted::machine().currentDirectory + "/" + path;
}

std::string nqDirUtils::ExtractFolder(const std::string& path)
{
    scripted::machine().query("dirs: ExtractFolder(" + path + ")");
    const auto slash = path.rfind('/');
    if (slash == std::string::npos)
        return {};
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string nqDirUtils::GetCurrentWorkingDirUtf8()
{
    scripted::machine().query("dirs: GetCurrentWorkingDirUtf8()");
    return scripted::machine().currentDirectory;
}

void nqHighResTimer::start()
{
    scripted::machine().query("timer: start()");
    mStart = scriptedNow();
    mIsStarted = true;
}

double nqHighResTimer::getElapsedTimeInSec() const
{
    scripted::machine().query("timer: getElapsedTimeInSec()");
    if (!mIsStarted)
        return 0;
    return std::chrono::duration<double>(scriptedNow() - mStart).count();
}

nqOwnerProcess::nqOwnerProcess() noexcept
    : mMark(scripted::machine().isForkedChild)
{
}

bool nqOwnerProcess::isThisProcess() const noexcept
{
    return mMark == std::uint64_t{scripted::machine().isForkedChild};
}

const std::locale nqStringUtils::msCplusLocale = std::locale::classic();

std::string nqSystemUtils::CreateUuid(bool withHyphens)
{
    scripted::Machine& machine = scripted::machine();
    machine.call(std::string("system: CreateUuid(") + (withHyphens ? "true" : "false") + ")");
    if (machine.uuidFails)
        throw std::runtime_error("scripted: no random bytes");
    return "uuid-" + std::to_string(++machine.uuidCount);
}

int nqSystemUtils::GetIdealThreadCount()
{
    scripted::machine().query("system: GetIdealThreadCount()");
    return scripted::machine().idealThreadCount;
}

std::uint64_t nqSystemUtils::GetMSecElapsedSinceEpoch()
{
    return scripted::machine().wallTimeMs;
}

std::string nqThread::CurrentThreadId()
{
    return scripted::machine().threadId;
}

nqThread::Uncancellable::Uncancellable()
    : mStateBefore(std::exchange(scripted::machine().isCancellable, false))
{
}

nqThread::Uncancellable::~Uncancellable()
{
    scripted::machine().isCancellable = mStateBefore != 0;
}

void nqThread::EndIfCancelled()
{
    scripted::Machine& machine = scripted::machine();
    if (machine.cancellable && machine.isCancellable)
        machine.cancellable->emplace_back("thread: EndIfCancelled()");
}

void nqSystemUtils::ReleaseFreeMemory()
{
    scripted::machine().call("utils: ReleaseFreeMemory()");
}

} // namespace nq
