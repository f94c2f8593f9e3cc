#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

/// What the tests see of the machine around the library: processes, descriptors, files.
namespace end_to_end {

/// Longer than anything takes on a busy machine, and shorter than the limit of the test runner.
constexpr std::chrono::seconds generousLimit{60};

/// The helper worker of these tests.
std::string workerPath();

/// The helper host program of these tests.
std::string hostProgramPath();

/// The numbers of this process's open descriptors, each with what it refers to.
std::map<int, std::string> openDescriptors();

/// The processes whose parent is this process, those that nobody has reaped included.
std::vector<pid_t> children();

/// Gives this process an environment variable that everything started from here on inherits,
/// however often it forks and whoever becomes its parent.
void markDescendants();

/// The living processes that carry the mark of this process, without this process itself.
std::vector<pid_t> markedProcesses();

/// The command line of a process, for messages.
std::string commandLine(pid_t process);

/// Bytes of resident memory of this process.
std::size_t residentBytes();

/// Watches one process, a child or not, without reaping it. One that is gone already has ended.
/// Does without a pidfd where there is none, as under tools that do not know them.
class ProcessWatch {
public:
    explicit ProcessWatch(pid_t process);
    ~ProcessWatch();
    ProcessWatch(const ProcessWatch&) = delete;
    ProcessWatch& operator=(const ProcessWatch&) = delete;

    /// Whether the process has ended, or ends within `limit`.
    bool endsWithin(std::chrono::milliseconds limit) const;

    void kill(int signal) const;

private:
    bool isThere() const;

    pid_t mProcess;
    int mFd;
    std::string mStartedAt; // set only without a pidfd, and if the process was there
};

/// A folder of its own for one test, removed with everything in it.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string file(const std::string& name) const;

    /// A shell script in this folder. Returns its path.
    std::string addScript(const std::string& name, const std::string& body) const;

    /// A named pipe in this folder. Returns its path.
    std::string addFifo(const std::string& name) const;

private:
    std::filesystem::path mPath;
};

/// Makes `folder` the current directory until the end of the scope.
class CurrentFolder {
public:
    explicit CurrentFolder(const std::string& folder);
    ~CurrentFolder();
    CurrentFolder(const CurrentFolder&) = delete;
    CurrentFolder& operator=(const CurrentFolder&) = delete;

private:
    std::filesystem::path mBefore;
};

/// A program of its own, whose standard output and error the test reads. Killed at the end of the
/// scope when it is still there.
class ChildProgram {
public:
    ChildProgram(const std::string& path, const std::vector<std::string>& arguments);
    ~ChildProgram();
    ChildProgram(const ChildProgram&) = delete;
    ChildProgram& operator=(const ChildProgram&) = delete;

    pid_t pid() const
    {
        return mPid;
    }

    /// The next line of its output, without the line break; what is left of it at its end, which
    /// may be an empty text; or the text "(nothing within the limit)".
    std::string readLine();

    /// Reads until every holder of the program's standard output has ended. False when `limit`
    /// passes before.
    bool outputEndsWithin(std::chrono::milliseconds limit);

    /// All output, of this program and of those that it started, up to the end of the last of them.
    std::string readAllOutput();
    std::string readAllErrors();

    /// The exit status, or 128 and the signal; -1 when it does not end in generous time.
    int waitForEnd();

private:
    pid_t mPid = -1;
    bool mIsReaped = false;
    int mOutput = -1;
    int mErrors = -1;
    std::string mUnread; // output that no call has returned yet
};

} // namespace end_to_end
