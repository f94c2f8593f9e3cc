#pragma once

#include "include/nqScheduler.h"
#include "tests/common/failure.h"
#include "tests/model/world.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

namespace model {

using common::Failure;

/// The queues between a host and its workers.
struct Queues {
    std::deque<Bytes> pending;
    std::deque<Bytes> results;
    std::deque<Failure> failures;
    int inProgress = 0;

    unsigned long jobCount() const;
    void pushResult(const Bytes& result);
    void pushFailure(const Failure& failure);
};

/// What one worker may use; 0 is no limit.
struct Limits {
    std::uint64_t maxRam = 0;
    std::uint64_t maxSeconds = 0;
    std::uint64_t maxRamAfterJob = 0;
};

/// The model of one worker record. Its decisions stand in tables in the source.
class Worker {
public:
    Worker(
        World& world,
        Queues& queues,
        std::shared_ptr<scripted::Pipe> pipe,
        std::shared_ptr<scripted::Process> process,
        const Limits& limits);

    bool isReady() const;
    bool isFinished() const;
    /// Null once it was closed.
    scripted::Pipe* pipe() const;
    scripted::Process& process() const;

    std::int64_t pid() const;
    std::uint64_t milliseconds() const; ///< in its job; 0 without one

    void step();
    /// What the host may do to it. False when it is not there to be killed.
    bool killFor(nq::nqScheduler::FailReason reason, const std::string& message);
    /// Whether it has been killed or told to leave.
    bool isLeaving() const;
    void closePipe();
    /// What destroying the record does.
    void end();

private:
    /// A verdict's reason, and what follows from it.
    void
    condemn(nq::nqScheduler::FailReason reason, const std::string& message, const char* endReason);
    void failJob();
    void send(bool jobJustCompleted);
    void restart(std::uint64_t ram);
    void takeNextJob();
    void dispatch();
    void stream();
    bool receive();
    std::uint64_t readRam();
    std::uint64_t elapsedSeconds() const;
    bool canWrite() const;
    void write(const Bytes& bytes, std::size_t from, std::size_t count);
    std::size_t room() const;

    World* mWorld;
    Queues* mQueues;
    std::shared_ptr<scripted::Pipe> mPipe;
    std::shared_ptr<scripted::Process> mProcess;
    Limits mLimits;
    std::int64_t mPid;

    Bytes mJob;
    Bytes mResult;
    nq::nqScheduler::FailReason mReason = nq::nqScheduler::NoFailure;
    std::string mMessage;
    std::chrono::nanoseconds mJobStart{};
    std::size_t mSent = 0;
    std::size_t mReceived = 0;
    bool mIsReady = true;
    bool mIsFinished = false;
    bool mIsKilled = false;
    const char* mEndReason = "stopped"; // unless something else comes first
    std::uint64_t mLargestReading = 0;
};

/// Memory and time as the messages show them.
std::string memoryText(std::uint64_t bytes);
std::string secondsText(std::uint64_t seconds);

} // namespace model
