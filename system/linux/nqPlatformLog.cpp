#include "system/linux/nqPlatformLog.h"

#include "system/nqLog.h"
#include "system/nqSystemUtils.h"
#include "system/nqThread.h"

namespace nq {

void logError(const std::string& message) noexcept
{
    const nqThread::Uncancellable untilWritten;
    try {
        nqLog* const logger = nqLog::msInstance;
        if (logger != nullptr && !logger->isLevelEnabled(nqLog::Error))
            return;
        nqLog::LogEntry entry;
        entry.mMessage = message;
        entry.mThreadId = nqThread::CurrentThreadId();
        entry.mTimestampMs = nqSystemUtils::GetMSecElapsedSinceEpoch();
        entry.mLevel = nqLog::Error;
        entry.computeLogPrefix(true);
        if (logger != nullptr)
            logger->Write(entry, true);
        else
            nqLog::WriteToStandardOutput(entry);
    } catch (...) {
        // The host's logger may throw anything; the line is lost.
    }
}

} // namespace nq
