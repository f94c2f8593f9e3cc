#pragma once

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <string>
#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace common {

/// Every process of this machine, those that nobody has reaped included.
std::vector<pid_t> allProcesses();

/// The processes whose parent is this process, those that nobody has reaped included.
std::vector<pid_t> children();

/// The command line of a process, blanks between the arguments; empty for one that has ended.
std::string commandLine(pid_t process);

/// Bytes of resident memory of this process.
std::size_t residentBytes();

/// Watches one process, a child or not, without reaping it, and never comes to mean another one.
/// One that is gone already has ended. Does without a pidfd where there is none, as under tools
/// that do not know them.
class ProcessWatch {
public:
    explicit ProcessWatch(pid_t process);
    ~ProcessWatch();
    ProcessWatch(ProcessWatch&& other) noexcept;
    ProcessWatch& operator=(ProcessWatch&&) = delete;
    ProcessWatch(const ProcessWatch&) = delete;
    ProcessWatch& operator=(const ProcessWatch&) = delete;

    /// Whether the process has ended, or ends within `limit`.
    bool endsWithin(std::chrono::milliseconds limit) const;
    bool lives() const;

    /// False when the process is gone.
    bool kill(int signal) const;

private:
    bool isThere() const;

    pid_t mProcess;
    int mFd;
    std::string mStartedAt; // set only without a pidfd, and if the process was there
};

/// The exit code of a child, once it has ended; -1 when a signal ended it or it is no child.
int waitForExitCode(pid_t child);

/// A forked process that runs `body`, ends with the number that it returns, and does not outlive
/// the test.
class Child {
public:
    template <typename Body>
    explicit Child(Body body)
        : mPid(::fork())
    {
        if (mPid != 0)
            return;
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::_exit(body());
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child()
    {
        kill();
        wait();
    }

    pid_t pid() const
    {
        return mPid;
    }

    void kill() const
    {
        if (mPid > 0)
            ::kill(mPid, SIGKILL);
    }

    /// The exit code, or -1 when a signal ended it or it was waited for before.
    int wait()
    {
        if (mPid <= 0)
            return -1;
        const int exitCode = waitForExitCode(mPid);
        mPid = -1;
        return exitCode;
    }

private:
    pid_t mPid;
};

/// Whether this process may take on another user, as a test about foreigners needs.
bool mayChangeUser();
bool becomeForeignUser();

} // namespace common
