#include "pool/nqPoolWarning.h"

#include "system/nqLog.h"

#include <chrono>
#include <cstdint>

namespace nq {

void warn(const std::string& message)
{
    nqLog* const log = nqLog::msInstance;
    if (log == nullptr || !log->isLevelEnabled(nqLog::Warning))
        return;
    nqLog::LogEntry entry;
    entry.mMessage = message;
    entry.mLevel = nqLog::Warning;
    entry.mTimestampMs =
        static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                       std::chrono::system_clock::now().time_since_epoch())
                                       .count());
    entry.computeLogPrefix(false);
    log->Write(entry, true);
}

} // namespace nq
