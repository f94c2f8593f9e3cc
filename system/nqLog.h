#pragma once

#include "nqExport.h"

#include <cstdint>
#include <memory>
#include <string>

namespace nq {

/// The process-wide logger: one enable flag for each level, and a Write that a host may override to
/// feed its own logging.
///
/// A host installs one by storing its address in msInstance, and keeps it alive until the last
/// scheduler is gone. Without one, the library's messages go to standard output.
///
/// @par Threads
/// Installing and the flags belong to one thread, before logging starts; Write of this class may be
/// called from any thread, since each entry is one write of one whole line.
///
/// @par Blocking
/// Write() and WriteToStandardOutput() block while their file or stream is full, on a non-blocking
/// one for a second at most. WriteToSystemLog() blocks as long as syslog does.
///
/// @par Errors
/// What cannot be written is dropped: a line of the log must not take the host down. No write of
/// this class raises a signal, neither SIGPIPE nor SIGXFSZ, and the host's handlers, mask and
/// pending signals stay as they are. Only allocation exceptions pass through. Cancellation of the
/// thread acts after the write.
class NQ_API nqLog {
public:
    /// The levels index the enable flags.
    enum Level : int {
        Info = 0,    ///< part of the work: a job that failed, a worker restarted after one
        Notice = 1,  ///< not used by the scheduler
        Warning = 2, ///< a call that was refused
        Error = 3,   ///< what could not be done: listening, launching a worker
        Disabled = 4 ///< no flag: marks a message that nobody wants
    };

    /// One message on its way to a logger.
    struct NQ_API LogEntry {
        std::string mMessage;       ///< what happened
        std::string mSecondText;    ///< more detail, usually empty
        std::string mSystemLogText; ///< what the system log shows instead of the message, if any
        std::string mPrefix;        ///< see computeLogPrefix
        std::string mThreadId;      ///< see nqThread::CurrentThreadId
        std::uint64_t mTimestampMs = 0; ///< milliseconds since the epoch
        int mLevel = Disabled;          ///< one of Level

        /// Fills mPrefix from the stamp, the level and, if `withThreadId`, the thread:
        /// "2025-06-30 14:03:59.042 | warning | thread 4711 | ", in local time. Needs no logger.
        void computeLogPrefix(bool withThreadId);
    };

    /// The logger that receives every message; null by default. Not owned.
    static nqLog* msInstance;

    /// Writes to standard error.
    nqLog();

    /// Appends to a file, which is created if missing. A file that cannot be opened leaves a logger
    /// that writes to standard error.
    explicit nqLog(const std::string& filePathUtf8);

    /// Leaves msInstance null when it still points here.
    virtual ~nqLog();

    nqLog(const nqLog&) = delete;
    nqLog& operator=(const nqLog&) = delete;

    /// Enables or disables one level; all are enabled at the start. Ignores a level outside 0 to 3.
    void setLevelEnabled(int level, bool enabled);

    /// Whether messages of `level` are wanted; false for every level outside 0 to 3.
    bool isLevelEnabled(int level) const;

    /// Records one entry, whose texts an override may change or take, as one line: prefix, message,
    /// and the second text in brackets if there is one. Line breaks in the texts become blanks.
    /// With `flush` the entry must have left the process on return, which this class's version
    /// always does; an override that buffers must look at it.
    virtual void Write(LogEntry& entry, bool flush);

    /// Hands the entry's system-log text to syslog under the matching severity. Any thread may
    /// call.
    static void WriteToSystemLog(const LogEntry& entry);

    /// Writes prefix, message and a newline to standard output, after what the host has printed so
    /// far: std::cout and stdout are flushed first. The line itself bypasses their buffers, so that
    /// nothing of it stays there when it cannot be written. Needs no logger. Any thread may call
    /// that may print.
    static void WriteToStandardOutput(const LogEntry& entry);

private:
    struct Private;
    std::unique_ptr<Private> mPrivate;
};

} // namespace nq
