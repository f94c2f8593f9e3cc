// Reverses each line of standard input in a pool of two worker processes.
#include <nqScheduler.h>

#include <iostream>
#include <string>
#include <vector>

int main(int argc, char* argv[])
{
    if (argc != 2) {
        std::cerr << "usage: core-host WORKER < lines\n";
        return 2;
    }
    nq::nqScheduler scheduler(argv[1], false, {}, true);
    scheduler.setJobProcessTimeout(10);         // seconds for one job
    scheduler.setMaxCapMemory(256ul << 20);     // bytes of resident memory for one worker
    if (!scheduler.startScheduler(2, 10'000)) { // milliseconds for each worker to connect
        std::cerr << "the workers could not be started\n";
        return 1;
    }

    for (std::string line; std::getline(std::cin, line);) {
        if (!line.empty()) // an empty job is counted, but never sent
            scheduler.push({line.begin(), line.end()});
    }

    std::vector<char> bytes;
    nq::nqScheduler::FailReason reason{};
    std::string message;
    bool anyFailed = false;
    while (scheduler.jobCount() != 0 || scheduler.resultCount() != 0 ||
           scheduler.failCount() != 0) {
        scheduler.processScheduler(100);
        while (scheduler.pop(bytes))
            std::cout << std::string(bytes.begin(), bytes.end()) << '\n';
        while (scheduler.popFail(bytes, reason, message)) {
            std::cerr << "failed: " << std::string(bytes.begin(), bytes.end()) << ": " << message
                      << '\n';
            anyFailed = true;
        }
    }
    return anyFailed ? 1 : 0;
}
