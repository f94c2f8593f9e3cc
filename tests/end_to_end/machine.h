#pragma once

#include "tests/common/descriptors.h"
#include "tests/common/files.h"
#include "tests/common/processes.h"
#include "tests/common/waiting.h"

#include <chrono>
#include <string>
#include <sys/types.h>
#include <vector>

/// What the tests see of the machine around the library: processes, descriptors, files.
namespace end_to_end {

using common::children;
using common::CurrentFolder;
using common::generousLimit;
using common::openDescriptors;
using common::ProcessWatch;
using common::residentBytes;
using common::TemporaryFolder;

/// The helper worker of these tests.
std::string workerPath();

/// The helper host program of these tests.
std::string hostProgramPath();

/// Gives this process an environment variable that everything started from here on inherits,
/// however often it forks and whoever becomes its parent.
void markDescendants();

/// The living processes that carry the mark of this process, without this process itself.
std::vector<pid_t> markedProcesses();

/// The command line of a process, for messages.
std::string commandLine(pid_t process);

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
