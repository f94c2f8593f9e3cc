#pragma once

#include "nqLog.h"
#include "nqScheduler.h"
#include "tests/common/failure.h"

#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace end_to_end {

/// Installs itself as the process's logger and keeps what it is given. Any thread may log.
class CapturingLog : public nq::nqLog {
public:
    struct Line {
        int level;
        std::string message;
        bool flush;
    };

    CapturingLog();
    ~CapturingLog() override;

    void Write(LogEntry& entry, bool flush) override;

    /// Called, on the logging thread, with each message before the library goes on.
    std::function<void(const std::string& message)> onMessage;

    std::vector<Line> lines() const;

    /// The messages alone, oldest first.
    std::vector<std::string> messages() const;

private:
    mutable std::mutex mMutex;
    std::vector<Line> mLines;
};

using common::Failure;

/// How a test's host uses a scheduler: it pumps, pops as it pumps, and keeps what it popped.
class Pool {
public:
    /// The helper worker with `arguments`, silenced, the pipe's name before them.
    explicit Pool(const std::vector<std::string>& arguments = {});

    /// Any executable.
    Pool(const std::string& exePath, const std::vector<std::string>& arguments);

    nq::nqScheduler& scheduler()
    {
        return mScheduler;
    }

    /// Starts with a generous time for each worker to connect.
    bool start(unsigned long nbWorkers);

    void push(std::string_view job);

    /// One pump, and everything there is to pop.
    void pump(int timeoutMs);

    /// Pumps until `done`. False when that does not happen in generous time.
    bool pumpUntil(const std::function<bool()>& done);

    /// Pumps until `count` answers and failures have come in all.
    bool collect(std::size_t count);

    /// Pushes one job and pumps until it has come back. Its answer, or its failure's message in
    /// brackets.
    std::string ask(std::string_view job);

    const std::vector<std::string>& answers() const
    {
        return mAnswers;
    }
    const std::vector<Failure>& failures() const
    {
        return mFailures;
    }

private:
    void popAll();

    nq::nqScheduler mScheduler;
    std::vector<std::string> mAnswers;
    std::vector<Failure> mFailures;
};

} // namespace end_to_end
