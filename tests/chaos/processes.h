#pragma once

#include <cstddef>
#include <string>
#include <sys/types.h>
#include <vector>

namespace chaos {

/// A handle on one process, which never comes to mean another one.
class ProcessHandle {
public:
    explicit ProcessHandle(pid_t process);
    ~ProcessHandle();
    ProcessHandle(ProcessHandle&& other) noexcept;
    ProcessHandle& operator=(ProcessHandle&&) = delete;
    ProcessHandle(const ProcessHandle&) = delete;
    ProcessHandle& operator=(const ProcessHandle&) = delete;

    /// Whether the process exists and has not ended.
    bool lives() const;

    /// Whether it has ended, or ends within the time.
    bool endsWithin(int milliseconds) const;

    /// False when the process is gone.
    bool send(int signal) const;

private:
    int mFd;
};

/// The command line of a process, blanks between the arguments; empty for a zombie.
std::string commandLine(pid_t process);

/// The living processes, this one excepted, one of whose arguments holds `text`.
std::vector<pid_t> processesWith(const std::string& text);

/// How many descriptors this process has open.
std::size_t openDescriptorCount();

/// Bytes of resident memory of this process.
std::size_t residentBytes();

} // namespace chaos
