#include <nqScheduler.h>
#include <nqSchedulerAPIVersion.h>

#include <cstdio>
#include <string>

// Sends one job to the worker whose path is the only argument and prints the answer.
int main(int argumentCount, char** arguments)
{
    if (argumentCount != 2)
        return 2;
    std::printf(
        "version %s, headers %s\n",
        nqSchedulerAPI::Version::GetDescStringMajorMinorRelease(false),
        NQ_VERSION_STRING);

    nq::nqScheduler scheduler(arguments[1], false, {}, false);
    scheduler.setJobProcessTimeout(60);
    if (!scheduler.startScheduler(1, 60'000))
        return 1;

    const std::string text = "desserts";
    scheduler.push({text.begin(), text.end()});
    std::vector<char> answer;
    while (!scheduler.pop(answer)) {
        if (scheduler.failCount() > 0)
            return 1;
        scheduler.processScheduler(100);
    }
    std::printf("answer %s\n", std::string(answer.begin(), answer.end()).c_str());
    return scheduler.stopScheduler() ? 0 : 1;
}
