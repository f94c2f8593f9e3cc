// Gives a pool jobs that crash, hang and leak, and others among them that are answered. Shows what
// a host gets to see of each, and that the pool is whole again afterwards.
#include <nqScheduler.h>

#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

namespace {

using nq::nqScheduler;

constexpr unsigned long workerCount = 3;
constexpr unsigned long timeoutSeconds = 1; // a worker is killed once a full second more has passed
constexpr unsigned long memoryCapBytes = 64ul << 20;

const char* nameOf(nqScheduler::FailReason reason)
{
    switch (reason) {
    case nqScheduler::NoFailure:
        return "NoFailure";
    case nqScheduler::UnexpectedCrash:
        return "UnexpectedCrash";
    case nqScheduler::TooMuchRam:
        return "TooMuchRam";
    case nqScheduler::Timeout:
        return "Timeout";
    }
    return "unknown";
}

void printFailures(nqScheduler& scheduler)
{
    std::vector<char> job;
    nqScheduler::FailReason reason{};
    std::string message;
    while (scheduler.popFail(job, reason, message))
        std::cout << "failed: job \"" << std::string(job.begin(), job.end()) << "\", "
                  << nameOf(reason) << ", \"" << message << "\"" << std::endl;
}

/// Prints the failures as they come. Returns the answers, which are the pids of the workers.
std::vector<std::string> run(nqScheduler& scheduler, const std::vector<std::string>& jobs)
{
    for (const std::string& job : jobs)
        scheduler.push({job.begin(), job.end()});

    std::vector<std::string> answers;
    std::vector<char> answer;
    while (scheduler.jobCount() != 0) {
        scheduler.processScheduler(20);
        while (scheduler.pop(answer))
            answers.emplace_back(answer.begin(), answer.end());
        printFailures(scheduler);
    }
    return answers;
}

/// With every worker idle, one pass of the pump hands each of them one job.
void printWorkers(nqScheduler& scheduler)
{
    std::vector<std::string> pids = run(scheduler, std::vector<std::string>(workerCount, "work"));
    std::sort(pids.begin(), pids.end());
    pids.erase(std::unique(pids.begin(), pids.end()), pids.end());
    std::cout << pids.size() << " workers:";
    for (const std::string& pid : pids)
        std::cout << ' ' << pid;
    std::cout << std::endl;
}

} // namespace

int main(int argc, char* argv[])
{
    if (argc != 2) {
        std::cerr << "usage: failures-host WORKER\n";
        return 2;
    }
    nqScheduler scheduler(argv[1], false, {}, true);
    scheduler.setJobProcessTimeout(timeoutSeconds);
    scheduler.setMaxCapMemory(memoryCapBytes);
    if (!scheduler.startScheduler(workerCount, 10'000)) {
        std::cerr << "the workers could not be started\n";
        return 1;
    }

    printWorkers(scheduler);
    std::vector<std::string> jobs{"crash", "hang", "leak"}; // one for each worker
    jobs.insert(jobs.end(), 9, "work");
    const std::size_t answered = run(scheduler, jobs).size();
    std::cout << answered << " other jobs answered" << std::endl;
    printWorkers(scheduler);
    const std::size_t last = run(scheduler, {"retire"}).size();
    std::cout << last << " last answer of a worker that has left" << std::endl;
    return 0;
}
