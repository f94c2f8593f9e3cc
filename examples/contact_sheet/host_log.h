#pragma once

#include "examples/contact_sheet/progress.h"

#include <nqLog.h>

namespace sheet {

/// Feeds the library's log into this program's standard error, where it must not tear up the
/// progress line. Without a logger of the host's own, the library logs to standard output.
class HostLog : public nq::nqLog {
public:
    /// Becomes the library's logger. Shows warnings and errors, with `verbose` everything: that a
    /// job failed is no news, since it stands in the report. Borrows `progress`.
    HostLog(Progress& progress, bool verbose);

    void Write(LogEntry& entry, bool flush) override;

private:
    Progress& mProgress;
};

} // namespace sheet
