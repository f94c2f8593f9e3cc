#include <nqLog.h>
#include <nqScheduler.h>
#include <nqStringUtils.h>

#include <cstdio>
#include <string>

/// Feeds the library's messages to the program's own output.
class HostLog : public nq::nqLog {
public:
    void Write(LogEntry& entry, bool /*flush*/) override
    {
        std::printf("host log, level %d: %s\n", entry.mLevel, entry.mMessage.c_str());
    }
};

// Tells its limits as the library's messages do, installs a logger of its own and provokes a
// message: there is no such worker program.
int main()
{
    const std::string memory = nq::nqStringUtils::humanizeNumberGeneric<unsigned long>(
        1'610'612'736, 3, 1, true, true, false);
    const std::string time = nq::nqStringUtils::humanizeDuration<unsigned long>(125'000, 1, false);
    std::printf("limits %sB and %s\n", memory.c_str(), time.c_str());

    HostLog log;
    nq::nqLog::msInstance = &log;
    nq::nqScheduler scheduler("./no-such-worker", true, {}, false);
    return scheduler.startScheduler(1, 0) ? 1 : 0;
}
