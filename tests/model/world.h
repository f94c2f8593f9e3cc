#pragma once

#include "tests/common/frame.h"
#include "tests/scripted/scriptedMachine.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

/// A plain model of the scheduler and of what it stands on, to compare the library with.
namespace model {

using common::Bytes;

/// How often each kind of thing happened.
using Seen = std::map<std::string, long>;

/// Memory of this many bytes and more is refused while a record is stepped, so that a length that a
/// hostile peer announces costs what it costs on a host that does not have that memory. Nothing
/// else that happens in a round is nearly as large.
constexpr std::size_t refusedBytes = std::size_t{1} << 20;

/// One log entry as far as a host can tell entries apart.
struct LogLine {
    int level;
    bool flush;
    std::string text;
};

/// The platform that the model acts on: the same records as the scripted machine holds, and the
/// same answers. Member names agree with the machine's, so that one event can be applied to both.
struct World {
    std::vector<std::shared_ptr<scripted::Process>> processes;
    std::vector<std::shared_ptr<scripted::Pipe>> pipes;
    scripted::Server server;
    std::chrono::nanoseconds steadyTime{};
    int idealThreadCount = 8;
    std::string currentDirectory;
    std::function<void()> onSelect;
    std::array<bool, 4> levelIsEnabled{true, true, true, true};

    std::deque<std::shared_ptr<scripted::Process>> plannedProcesses;
    std::deque<std::shared_ptr<scripted::Pipe>> plannedPipes;

    std::vector<std::string> calls; ///< in order, with those questions that have their place
    std::vector<LogLine> logged;
    std::vector<scripted::Select> selects;
    bool isObserved = false;
    std::vector<std::string> told; ///< to the observer
    Seen seen;                     ///< how often each row of the model's tables was used

    void say(const std::string& line);
    void log(int level, bool flush, const std::string& text);
    void tell(const std::string& line);
    void advance(std::chrono::nanoseconds time);

    std::shared_ptr<scripted::Process> takeProcess();
    std::shared_ptr<scripted::Pipe> takePipe();
};

/// What an observer is told, as lines.
namespace told {
std::string launched(std::int64_t pid);
std::string launchFailed(std::int64_t pid, const std::string& reason);
std::string handedOut(std::int64_t pid, std::size_t bytes, std::size_t unread);
std::string result(std::int64_t pid, std::size_t bytes);
std::string failed(std::int64_t pid, std::size_t bytes, int reason, const std::string& message);
std::string ended(std::int64_t pid, const std::string& reason, std::uint64_t largestReading);
} // namespace told

/// What the platform does when it is asked.
void processEvents(World& world, scripted::Pipe& pipe);
bool isConnected(const scripted::Pipe& pipe);
bool isReadChannelClosed(const scripted::Pipe& pipe);
bool hasPendingWrite(const scripted::Pipe& pipe);
void close(World& world, scripted::Pipe& pipe);
void closeAndDestroy(World& world, scripted::Pipe& pipe);

bool isRunning(const scripted::Process& process);
void kill(World& world, scripted::Process& process);
void wait(World& world, scripted::Process& process, unsigned int timeoutMs);
void destroy(World& world, scripted::Process& process);

} // namespace model
