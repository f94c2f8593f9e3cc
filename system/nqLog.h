#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace nq {

/// The process-wide logger: one enable flag for each level, and a Write that a host may override to
/// feed its own logging.
///
/// A host installs one by storing its address in msInstance, and keeps it alive until the last
/// scheduler is gone. Without one, the library's messages go to standard output. Installing and the
/// flags belong to one thread, before logging starts; Write of this class may be called from any
/// thread, since each entry is one write of one whole line.
class [[gnu::visibility("default")]] nqLog
{
public:
    /// The levels index the enable flags. Disabled is no flag: it marks a message nobody wants.
    enum Level : int { Info = 0, Notice = 1, Warning = 2, Error = 3, Disabled = 4 };

    /// One message on its way to a logger.
    struct [[gnu::visibility("default")]] LogEntry
    {
        std::string mMessage;
        std::string mSecondText;    ///< more detail, usually empty
        std::string mSystemLogText; ///< what the system log shows instead of the message, if any
        std::string mPrefix;        ///< see computeLogPrefix
        std::string mThreadId;
        std::uint64_t mTimestampMs = 0; ///< milliseconds since the epoch
        int mLevel = Disabled;

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

    /// All levels start enabled. A level outside 0 to 3 is refused in silence.
    void setLevelEnabled(int level, bool enabled);

    /// False for every level outside 0 to 3.
    bool isLevelEnabled(int level) const;

    /// Records one entry, whose texts an override may change or take, as one line: prefix, message,
    /// and the second text in brackets if there is one. Line breaks in the texts become blanks.
    /// With `flush` the entry must have left the process on return, which this class's version
    /// always does; an override that buffers must look at it.
    virtual void Write(LogEntry & entry, bool flush);

    /// Hands the entry's system-log text to syslog under the matching severity.
    static void WriteToSystemLog(const LogEntry& entry);

private:
    struct State;
    std::unique_ptr<State> mState;
};

} // namespace nq
