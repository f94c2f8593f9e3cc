#pragma once

#include "tests/model/workerModel.h"

#include <cstdint>
#include <list>
#include <string>
#include <vector>

namespace model {

/// The model of a scheduler: configuration, queues, start, stop and pump.
class Scheduler {
public:
    Scheduler(
        World& world,
        std::string exePath,
        std::vector<std::string> arguments,
        bool silencesWorkers,
        bool prependsPipeName);

    struct Configuration {
        Limits limits;
        std::uint64_t maxAllocated = 0;
        std::string exePath;
        std::vector<std::string> arguments;
        bool prependsPipeName = true;
    };

    /// Null while the configuration is frozen.
    Configuration* changeableConfiguration();
    const Configuration& configuration() const;

    Queues queues;

    bool isStarted() const;
    bool start(unsigned long workerCount, int connectionTimeout);
    bool stop();
    void waitForFinished();
    void pump(int timeoutMs);
    bool kill(std::int64_t pid, nq::nqScheduler::FailReason reason, const std::string& message);
    bool heal();
    /// What workers() says, as lines.
    std::vector<std::string> workerLines();
    /// What destroying the scheduler does.
    void end();

    std::size_t workerCount() const;
    std::size_t busyWorkerCount() const;
    std::vector<std::int64_t> pids() const;

private:
    bool launch();
    void reportFailedLaunch(
        const std::string& reason,
        const std::vector<std::string>& arguments,
        scripted::Process& process);
    void sleep(int timeoutMs, std::vector<int> sockets);
    std::vector<std::string> commandLine() const;

    World* mWorld;
    Configuration mConfiguration;
    std::string mPipeName = "uuid-1";
    std::list<Worker> mWorkers;
    bool mSilencesWorkers;
    unsigned long mWorkerCount = 0;
    int mConnectionTimeout = 0;
    bool mIsStarted = false;
};

/// One worker as workers() shows it.
std::string
workerLine(std::int64_t pid, nq::nqWorkerStatus::State state, std::uint64_t ram, std::uint64_t ms);

} // namespace model
