#include "examples/contact_sheet/host_log.h"

namespace sheet {

HostLog::HostLog(Progress& progress, bool verbose)
    : mProgress(progress)
{
    setLevelEnabled(Info, verbose);
    setLevelEnabled(Notice, verbose);
    msInstance = this;
}

void HostLog::Write(LogEntry& entry, bool flush)
{
    mProgress.clear();
    nqLog::Write(entry, flush);
}

} // namespace sheet
