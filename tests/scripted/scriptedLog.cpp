#include "tests/scripted/scriptedMachine.h"

#include "system/nqLog.h"

#include <array>

namespace nq {

namespace {

constexpr int levelCount = nqLog::Disabled;

bool isFlagged(int level)
{
    return level >= 0 && level < levelCount;
}

} // namespace

struct nqLog::Private {
    std::array<bool, levelCount> isEnabled{true, true, true, true};
};

nqLog* nqLog::msInstance = nullptr;

void nqLog::LogEntry::computeLogPrefix(bool withThreadId)
{
    scripted::machine().call(
        std::string("entry: computeLogPrefix(") + (withThreadId ? "true" : "false") + ")");
    scripted::machine().prefixed = *this;
    mPrefix = scripted::machine().logPrefix;
}

nqLog::nqLog()
    : mPrivate(std::make_unique<Private>())
{
}

nqLog::nqLog(const std::string& /*filePathUtf8*/)
    : nqLog()
{
}

nqLog::~nqLog()
{
    if (msInstance == this)
        msInstance = nullptr;
}

void nqLog::setLevelEnabled(int level, bool enabled)
{
    if (isFlagged(level))
        mPrivate->isEnabled[static_cast<std::size_t>(level)] = enabled;
}

bool nqLog::isLevelEnabled(int level) const
{
    return isFlagged(level) && mPrivate->isEnabled[static_cast<std::size_t>(level)];
}

void nqLog::Write(LogEntry& entry, bool flush)
{
    scripted::machine().call("log: " + entry.mMessage);
    scripted::machine().logged.push_back({entry, flush});
}

void nqLog::WriteToSystemLog(const LogEntry& entry)
{
    scripted::machine().call("system log: " + entry.mMessage);
    scripted::machine().systemLog.push_back(entry);
}

void nqLog::WriteToStandardOutput(const LogEntry& entry)
{
    scripted::machine().call("standard output: " + entry.mPrefix + entry.mMessage);
}

} // namespace nq
