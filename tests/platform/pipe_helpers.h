#pragma once

#include "nqLog.h"
#include "nqNamedPipe.h"
#include "nqNamedPipeServer.h"
#include "tests/common/descriptors.h"
#include "tests/common/frame.h"
#include "tests/common/processes.h"
#include "tests/common/rawSocket.h"
#include "tests/common/signalStorm.h"
#include "tests/common/waiting.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <poll.h>
#include <set>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

/// What the tests of the pipes share: peers made of bare system calls, forked processes, and a
/// check that nothing is left behind.
namespace pipe_test {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

using common::append;
using common::becomeForeignUser;
using common::Child;
using common::Descriptor;
using common::DescriptorLimit;
using common::mayChangeUser;
using common::openDescriptorNumbers;
using common::rawConnect;
using common::rawListen;
using common::rawReceive;
using common::rawSeesTheEnd;
using common::rawSend;
using common::rawSocket;
using common::SignalStorm;
using common::text;

constexpr int ampleMs = 60'000; // only a test that fails waits for so long
constexpr std::size_t mebibyte = std::size_t{1} << 20;

// What a pipe holds of bytes that nobody takes.
constexpr std::size_t incomingLimit = std::size_t{256} << 10;

inline milliseconds elapsedSince(steady_clock::time_point start)
{
    return std::chrono::duration_cast<milliseconds>(steady_clock::now() - start);
}

/// A pipe name that no other test, and no test running beside this one, uses.
inline std::string freshName()
{
    static int count = 0;
    return "nq-pipe-test-" + std::to_string(::getpid()) + "-" + std::to_string(++count);
}

inline bool isOpen(int descriptor)
{
    return ::fcntl(descriptor, F_GETFD) != -1;
}

/// Fails the test that leaves a descriptor or a child process behind.
class LeavesNothingBehind : public testing::Test {
protected:
    void SetUp() override
    {
        mDescriptors = openDescriptorNumbers();
    }

    void TearDown() override
    {
        EXPECT_EQ(openDescriptorNumbers(), mDescriptors);
        EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child process is left";
    }

    const std::set<int>& descriptorsAtStart() const
    {
        return mDescriptors;
    }

private:
    std::set<int> mDescriptors;
};

/// Installs itself as the process's logger and keeps what the platform library logs.
class CapturingLog : public nq::nqLog {
public:
    CapturingLog()
    {
        msInstance = this;
    }

    void Write(LogEntry& entry, bool flush) override
    {
        EXPECT_EQ(entry.mLevel, Error);
        EXPECT_TRUE(flush);
        mMessages.push_back(entry.mMessage);
    }

    std::vector<std::string> mMessages;
};

/// Something that one process tells another once.
class Event {
public:
    Event()
    {
        int ends[2] = {-1, -1};
        if (::pipe2(ends, O_CLOEXEC) != 0)
            std::abort();
        mReading = Descriptor(ends[0]);
        mWriting = Descriptor(ends[1]);
    }

    void raise()
    {
        while (::write(mWriting.get(), "!", 1) == -1 && errno == EINTR)
            continue;
    }

    /// False when nothing has been told for very long.
    bool await()
    {
        char byte = 0;
        return common::becomesReadable(mReading.get()) && ::read(mReading.get(), &byte, 1) == 1;
    }

private:
    Descriptor mReading;
    Descriptor mWriting;
};

/// Takes `count` bytes from the front, as a consumer does.
inline std::string take(nq::nqNamedPipe& pipe, std::size_t count)
{
    return text(common::takeFront(pipe.incomingBuffer(), count));
}

inline std::string takeAll(nq::nqNamedPipe& pipe)
{
    return take(pipe, pipe.incomingBuffer().size());
}

/// Lets the pipe work, waiting for activity, until `condition` holds; false when it never does.
template <typename Condition>
bool pumpUntil(nq::nqNamedPipe& pipe, Condition condition)
{
    const auto start = steady_clock::now();
    while (!condition()) {
        if (elapsedSince(start) > milliseconds(ampleMs))
            return false;
        pipe.processNamedPipeEvents(10, true);
    }
    return true;
}

inline bool pumpUntilClosed(nq::nqNamedPipe& pipe)
{
    return pumpUntil(pipe, [&] { return !pipe.isConnected(); });
}

inline std::unique_ptr<nq::nqNamedPipe> acceptOne(nq::nqNamedPipeServer& server)
{
    server.waitForNewConnection(ampleMs, nullptr);
    return server.takePendingConnection();
}

/// A pipe and, at its other end, a socket that does just what the test says.
struct PipeToRawSocket {
    PipeToRawSocket()
    {
        nq::nqNamedPipeServer server;
        const std::string name = freshName();
        if (server.listenUtf8(name) && rawConnect(mPeer, name))
            mPipe = acceptOne(server);
    }

    Descriptor mPeer = rawSocket();
    std::unique_ptr<nq::nqNamedPipe> mPipe;
};

/// One wait of the pipe that is answered at once, so that the next one expects a quick answer.
/// False when the answer does not come.
inline bool isAnsweredAtOnce(PipeToRawSocket& link)
{
    link.mPipe->processNamedPipeEvents(0, true); // finds nothing
    if (!rawSend(link.mPeer, "answer"))
        return false;
    link.mPipe->processNamedPipeEvents(ampleMs, true);
    return takeAll(*link.mPipe) == "answer";
}

/// Two pipes that are connected with each other.
struct PipePair {
    PipePair()
    {
        nq::nqNamedPipeServer server;
        const std::string name = freshName();
        if (server.listenUtf8(name) && mClient.connectToNamedPipeServerUtf8(name))
            mServerSide = acceptOne(server);
    }

    nq::nqNamedPipe mClient;
    std::unique_ptr<nq::nqNamedPipe> mServerSide;
};

} // namespace pipe_test
