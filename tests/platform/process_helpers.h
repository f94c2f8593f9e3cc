#pragma once

#include "system/nqProcess.h"
#include "tests/common/descriptors.h"
#include "tests/common/files.h"
#include "tests/common/waiting.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <poll.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace nq::test {

constexpr unsigned int withoutLimit = 0xFFFFFFFF;
constexpr int hangLimitMs = 60'000; // reached by a hang only, however loaded the machine is

inline const std::string workerProgram = NQ_PROCESS_WORKER_PROGRAM;

using common::contentOf;

inline std::string procFile(pid_t pid, const std::string& name)
{
    return contentOf("/proc/" + std::to_string(pid) + "/" + name);
}

inline std::string procLink(pid_t pid, const std::string& name)
{
    return std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/" + name);
}

/// The value of one line of /proc/<pid>/status.
inline std::string statusLine(pid_t pid, const std::string& key)
{
    const std::string status = procFile(pid, "status");
    const std::size_t start = status.find("\n" + key + ":\t") + key.size() + 3;
    return status.substr(start, status.find('\n', start) - start);
}

/// True on a simulated processor.
inline bool runsUnderValgrind()
{
    const char* preloaded = std::getenv("LD_PRELOAD");
    return preloaded != nullptr && std::strstr(preloaded, "vgpreload") != nullptr;
}

/// True where vfork copies memory like fork.
inline bool vforkIsAFork()
{
#ifdef __SANITIZE_THREAD__
    return true;
#else
    return runsUnderValgrind();
#endif
}

/// True when this test run goes without pidfds.
inline bool pidfdsAreRefused()
{
    const char* preloaded = std::getenv("LD_PRELOAD");
    return preloaded != nullptr && std::strstr(preloaded, "no_pidfd_shim") != nullptr;
}

/// A pipe that children get as standard output. Its end tells that none of them is left, whoever
/// forked them.
class OutputPipe {
public:
    OutputPipe()
    {
        if (::pipe2(mEnds, O_CLOEXEC) != 0)
            std::abort();
    }
    ~OutputPipe()
    {
        closeWriter();
        ::close(mEnds[0]);
    }
    OutputPipe(const OutputPipe&) = delete;
    OutputPipe& operator=(const OutputPipe&) = delete;

    int writer() const
    {
        return mEnds[1];
    }

    void closeWriter()
    {
        if (mEnds[1] >= 0)
            ::close(std::exchange(mEnds[1], -1));
    }

    /// Runs `start` while this pipe stands in for one of this process's output streams.
    template <typename Start>
    bool during(Start start, int stream = STDOUT_FILENO)
    {
        const int saved = ::fcntl(stream, F_DUPFD_CLOEXEC, 3);
        ::dup2(mEnds[1], stream);
        const bool started = start();
        ::dup2(saved, stream);
        ::close(saved);
        return started;
    }

    /// The next line, without its end; what came before the end of the pipe, if that comes first.
    std::string readLine()
    {
        std::string line;
        char letter = 0;
        while (common::becomesReadable(mEnds[0]) && ::read(mEnds[0], &letter, 1) == 1 &&
               letter != '\n')
            line += letter;
        return line;
    }

    /// True when the last holder disappears within the time; what they wrote is dropped.
    bool endsWithin(int milliseconds)
    {
        closeWriter();
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
        char dropped[256];
        while (common::becomesReady(mEnds[0], POLLIN, end)) {
            if (::read(mEnds[0], dropped, sizeof(dropped)) == 0)
                return true;
        }
        return false;
    }

private:
    int mEnds[2] = {-1, -1};
};

/// Starts the worker program in one of its ways to behave, with its output in `output`.
inline bool startWorker(nqProcess& process, OutputPipe& output, const std::string& behaviour)
{
    return output.during([&] {
        return process.startProcess(
            workerProgram, {behaviour}, false, nqProcess::InheritedPriority);
    });
}

/// Waits until a child has ended, and leaves it to be reaped by others.
inline void waitWithoutReaping(std::int64_t pid)
{
    siginfo_t ended{};
    while (::waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT) != 0 &&
           errno == EINTR) {
    }
}

/// Every test leaves neither a child nor a descriptor behind. Looked at in constructor and
/// destructor, so that what a derived fixture owns comes and goes in between.
class ProcessTest : public ::testing::Test {
protected:
    ProcessTest()
        : mDescriptorsBefore(common::openDescriptors())
    {
    }

    ~ProcessTest() override
    {
        EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
        EXPECT_EQ(common::openDescriptors(), mDescriptorsBefore);
    }

private:
    std::map<int, std::string> mDescriptorsBefore;
};

} // namespace nq::test
