#pragma once

#include "tests/common/files.h"

#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

namespace cluster {

/// A program that a test has started, with what it prints. It ends with the test, however that
/// ends.
class Program {
public:
    /// `environment`: "NAME=VALUE".
    explicit Program(
        const std::vector<std::string>& command, const std::vector<std::string>& environment = {});
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    pid_t pid() const
    {
        return mPid;
    }

    void signal(int number) const;

    /// Waits until it has printed `text`, on either stream. False when it ends or takes longer than
    /// anything does.
    bool says(const std::string& text);

    /// All that it has printed.
    const std::string& printed();

    /// Waits for its end. The exit code, or -1 when a signal has ended it.
    int wait();

private:
    bool readSome(int timeoutMs);

    pid_t mPid = -1;
    int mOutput = -1;
    std::string mPrinted;
};

/// A Redis server on a socket in a folder of its own.
class RedisServer {
public:
    explicit RedisServer(
        const std::vector<std::string>& options = {},
        const std::vector<std::string>& environment = {});

    /// For Redis's clients.
    std::string url() const;
    std::string socket() const;

    void kill();  ///< as a crash does
    void start(); ///< again, with what it has kept
    void signal(int number) const;

    /// The answer to a command, parts of an array in lines.
    std::string ask(const std::vector<std::string>& command) const;

    /// Whether tests can have one at all.
    static bool isInstalled();

private:
    common::TemporaryFolder mFolder;
    std::vector<std::string> mOptions;
    std::vector<std::string> mEnvironment;
    std::unique_ptr<Program> mProgram;
};

} // namespace cluster
