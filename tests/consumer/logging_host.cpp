#include <nqLog.h>
#include <nqScheduler.h>

#include <cstdio>

/// Feeds the library's messages to the program's own output.
class HostLog : public nq::nqLog {
public:
    void Write(LogEntry& entry, bool /*flush*/) override
    {
        std::printf("host log, level %d: %s\n", entry.mLevel, entry.mMessage.c_str());
    }
};

// Installs a logger of its own and provokes a message: there is no such worker program.
int main()
{
    HostLog log;
    nq::nqLog::msInstance = &log;
    nq::nqScheduler scheduler("./no-such-worker", true, {}, false);
    return scheduler.startScheduler(1, 0) ? 1 : 0;
}
