#pragma once

#include "system/nqLog.h"
#include "system/nqProcess.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// The platform library as plain data, for tests of what stands on it.
///
/// A test owns one Machine. Pipes, processes and the server of system/ act out the records in it
/// and add each call to its logs, so that a fault is one assignment and an order of calls across
/// objects is one comparison. Nothing here waits, starts a process or opens a descriptor.
namespace scripted {

/// What one wait set does, and what became of it. A fresh record has a descriptor.
struct WaitSet {
    int descriptor = 5;
    bool isReady = false;
    bool isDestroyed = false;
};

/// What one pipe does, and what became of it. A fresh record is an open, healthy connection.
struct Pipe {
    std::string name; ///< "pipe 1", in the order of creation

    int socket = -1;
    bool isConnected = true;
    bool isReadChannelClosed = false;
    bool isWriteChannelClosed = false;
    /// The peer has hung up: the end shows as soon as the incoming buffer is empty.
    bool endsWhenDrained = false;
    std::vector<char> incoming;
    std::vector<char> outgoing;
    std::uint64_t outgoingLimit = std::uint64_t{1} << 20;

    /// Ranges from these sizes on are lent, and filled, in their own memory.
    std::size_t smallestLoan = std::size_t{16} << 10;
    std::size_t smallestRange = std::size_t{16} << 10;
    bool fillsAtOnce = false; ///< a range takes the next of the arrivals when it is given
    const char* lent = nullptr;
    std::size_t lentSize = 0;
    char* range = nullptr; ///< its first untaken byte
    std::size_t rangeSize = 0;
    std::size_t filled = 0;

    /// Bytes that reach the incoming buffer; each processNamedPipeEvents delivers one element.
    std::deque<std::vector<char>> arrivals;
    /// How many outgoing bytes one processNamedPipeEvents passes on; 0 is a peer that never reads.
    std::uint64_t passedOnPerCall = std::numeric_limits<std::uint64_t>::max();
    /// Runs at the end of each processNamedPipeEvents; may change this record, or throw.
    std::function<void(Pipe&)> onEvents;
    /// Result of connectToNamedPipeServerUtf8; when false the pipe stays not connected.
    bool connects = true;

    std::vector<char> passedOn; ///< every byte that reached the peer
    /// The peer has had its chance since bytes were appended, and left some.
    bool isCongested = false;
    WaitSet* reportsTo = nullptr; ///< until it is closed
    bool isDestroyed = false;

    /// The connection is gone: nothing to read, nothing to write, no descriptor.
    void lose();
    bool isAtItsEnd() const;
    std::size_t unsentBytes() const;
    std::size_t untakenBytes() const;
    /// The bytes themselves, wherever they lie.
    std::vector<char> unsent() const;
    std::vector<char> untaken() const;
    void dropUnsent();
};

/// What one child process does, and what it was asked. A fresh record starts well, ends when it is
/// killed and ends when it is waited for.
struct Process {
    std::string name; ///< "process 4242"
    std::int64_t pid = 0;

    nq::nqProcess::ProcessState state = nq::nqProcess::NotStarted;
    nq::nqProcess::ProcessState stateAfterStart = nq::nqProcess::Running;
    std::optional<bool> startResult; ///< what startProcess says when it is not the truth
    std::uint64_t ramInUse = 0;
    std::optional<nq::nqProcess::End> end; ///< what is known once it has ended
    int startError = 0;
    bool endsWhenKilled = true;
    bool endsWhenWaitedFor = true;

    std::string workingDirectory;
    std::string exePath;
    std::vector<std::string> arguments;
    std::optional<bool> silenceOutput;
    bool capturesStandardError = false;
    int standardError = 100; ///< the reading end, if it is captured
    std::optional<nq::nqProcess::ProcessPriority> priority;
    int ramReads = 0;
    bool isDestroyed = false;
};

/// How one waitForNewConnection ends.
enum class Connection {
    arrives,     ///< true, and the pipe is pending
    timesOut,    ///< false
    arrivesEmpty ///< true, but nothing is pending
};

/// The server end of the scheduler.
struct Server {
    bool listens = true;                       ///< result of listenUtf8
    std::deque<Connection> connections;        ///< outcomes of coming waits; arrives when empty
    std::deque<std::shared_ptr<Pipe>> pending; ///< accepted and not yet taken, oldest first
};

/// One call of select.
struct Select {
    int count = 0;
    std::vector<int> readSet;
    bool hasWriteSet = false;
    std::vector<int> exceptionSet;
    long seconds = -1;
    long microseconds = -1;

    friend bool operator==(const Select& left, const Select& right);
};

/// One entry that reached a logger.
struct Logged {
    nq::nqLog::LogEntry entry;
    bool flush = false;
};

/// Everything the platform knows. At most one exists at a time; it must outlive what is tested.
struct Machine {
    Machine();
    ~Machine();
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    /// What was done, one line per call in order: "process 4242: killProcess()".
    std::vector<std::string> calls;
    /// The same with the questions asked in between: "process 4242: getState()".
    std::vector<std::string> trace;
    std::function<void(const std::string&)> onQuery; ///< runs after each question's line in it

    /// While it is there: those calls that a cancellation of the thread may strike, and the points
    /// made for it.
    std::optional<std::vector<std::string>> cancellable;
    bool isCancellable = true; ///< the state of the thread

    std::vector<std::shared_ptr<Process>> processes; ///< in the order of creation
    std::vector<std::shared_ptr<Pipe>> pipes;        ///< in the order of creation
    std::vector<std::shared_ptr<WaitSet>> waitSets;  ///< in the order of creation
    Server server;

    std::vector<Logged> logged;
    std::vector<nq::nqLog::LogEntry> systemLog;
    nq::nqLog::LogEntry prefixed;        ///< the last one that asked for its prefix, as it was then
    std::string logPrefix = "prefix | "; ///< what computeLogPrefix fills in

    std::vector<Select> selects;
    std::function<int()> onSelect; ///< effect and result of select; a time-out when not set

    std::chrono::nanoseconds steadyTime{std::chrono::hours{1}};
    std::uint64_t wallTimeMs = 1'750'000'000'000;
    int idealThreadCount = 8;
    std::string currentDirectory = "/home/user";
    std::string threadId = "4711";
    bool isForkedChild = false; ///< what was made before is that of the parent
    bool uuidFails = false;
    bool waitSetFails = false; ///< the next one has no descriptor
    bool serverConstructionFails = false;
    int uuidCount = 0;

    /// The record of the next process object, to be changed by the test before it is used.
    Process& planProcess();
    /// The record of the next pipe that is created or that arrives at the server.
    Pipe& planPipe();

    void advance(std::chrono::nanoseconds time);

    /// The calls so far, forgetting them.
    std::vector<std::string> takeCalls();
    /// How often `line` stands in the trace.
    std::ptrdiff_t count(const std::string& line) const;
    /// The messages of `logged`.
    std::vector<std::string> messages() const;

    /// For the classes of system/.
    void call(const std::string& line);
    void query(const std::string& line);
    std::shared_ptr<Process> takeProcess();
    std::shared_ptr<Pipe> takePipe();
    /// Makes `pipe` the record of the next pipe object: how an accepted connection gets its object.
    void adoptPipe(std::shared_ptr<Pipe> pipe);
    std::shared_ptr<Pipe> pipeForNewObject();

private:
    std::deque<std::shared_ptr<Process>> mPlannedProcesses;
    std::deque<std::shared_ptr<Pipe>> mPlannedPipes;
    std::shared_ptr<Pipe> mAdoptedPipe;
    std::int64_t mNextPid = 4242;
    int mNextSocket = 10;
    int mPipeCount = 0;
};

/// The machine of the running test.
Machine& machine();

} // namespace scripted
