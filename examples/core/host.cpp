// Reverses each line of standard input in two worker processes, on the bare scheduler.
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
    // Whole seconds, and one more has to pass: 2 would end a job at 3 seconds, 10 does at 11.
    scheduler.setJobProcessTimeout(10);
    // Bytes resident, whether the worker has a job or not. Both limits act only in a pump.
    scheduler.setMaxCapMemory(256ul << 20);
    // More workers than twice the hardware threads, and than 4, would start nothing at all. Each
    // has 10,000 milliseconds to connect; a replacement too, and nothing is pumped meanwhile.
    if (!scheduler.startScheduler(2, 10'000)) {
        std::cerr << "the workers could not be started\n";
        return 1;
    }

    for (std::string line; std::getline(std::cin, line);) {
        if (!line.empty()) // an empty job would be counted and never sent
            scheduler.push({line.begin(), line.end()});
    }

    std::vector<char> bytes;
    nq::nqScheduler::FailReason reason{};
    std::string message;
    bool anyFailed = false;
    while (scheduler.jobCount() != 0 || scheduler.resultCount() != 0 ||
           scheduler.failCount() != 0) {
        scheduler.processScheduler(100); // milliseconds to wait for news, unless a result waits
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
