#pragma once

#include "nqNamedPipe.h"
#include "nqNamedPipeServer.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <poll.h>
#include <set>
#include <string>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
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

inline std::set<int> openDescriptors()
{
    std::set<int> numbers;
    DIR* const folder = ::opendir("/proc/self/fd");
    while (const dirent* entry = ::readdir(folder)) {
        const int number = std::atoi(entry->d_name);
        if (entry->d_name[0] != '.' && number != ::dirfd(folder))
            numbers.insert(number);
    }
    ::closedir(folder);
    return numbers;
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
        mDescriptors = openDescriptors();
    }

    void TearDown() override
    {
        EXPECT_EQ(openDescriptors(), mDescriptors);
        EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child process is left";
    }

    const std::set<int>& descriptorsAtStart() const
    {
        return mDescriptors;
    }

private:
    std::set<int> mDescriptors;
};

/// A descriptor of the test's own.
class Descriptor {
public:
    explicit Descriptor(int number = -1)
        : mNumber(number)
    {
    }

    Descriptor(Descriptor&& other) noexcept
        : mNumber(std::exchange(other.mNumber, -1))
    {
    }

    Descriptor& operator=(Descriptor&& other) noexcept
    {
        close();
        mNumber = std::exchange(other.mNumber, -1);
        return *this;
    }

    ~Descriptor()
    {
        close();
    }

    int get() const
    {
        return mNumber;
    }

    void close()
    {
        if (mNumber >= 0)
            ::close(std::exchange(mNumber, -1));
    }

private:
    int mNumber;
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
        pollfd reading{mReading.get(), POLLIN, 0};
        if (::poll(&reading, 1, ampleMs) != 1)
            return false;
        char byte = 0;
        return ::read(mReading.get(), &byte, 1) == 1;
    }

private:
    Descriptor mReading;
    Descriptor mWriting;
};

/// A child process that runs `body` and ends with the number that it returns.
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

    /// The exit code, or -1 when a signal ended it.
    int wait()
    {
        if (mPid <= 0)
            return -1;
        int status = 0;
        while (::waitpid(mPid, &status, 0) == -1 && errno == EINTR)
            continue;
        mPid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t mPid;
};

inline std::pair<sockaddr_un, socklen_t> rawAddress(const std::string& name)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    return {address, static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size())};
}

inline Descriptor rawSocket()
{
    return Descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

inline bool rawConnect(const Descriptor& socket, const std::string& name)
{
    const auto [address, size] = rawAddress(name);
    return ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), size) == 0;
}

inline bool rawListen(const Descriptor& socket, const std::string& name)
{
    const auto [address, size] = rawAddress(name);
    return ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), size) == 0 &&
           ::listen(socket.get(), 8) == 0;
}

inline bool rawSend(const Descriptor& socket, const std::string& bytes)
{
    const ssize_t sent = ::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    return sent == static_cast<ssize_t>(bytes.size());
}

/// One receive of whatever comes first; the empty text for the end of the stream or nothing.
inline std::string rawReceive(const Descriptor& socket)
{
    pollfd readable{socket.get(), POLLIN, 0};
    if (::poll(&readable, 1, ampleMs) != 1)
        return {};
    char bytes[4096];
    const ssize_t count = ::recv(socket.get(), bytes, sizeof bytes, 0);
    return count > 0 ? std::string(bytes, static_cast<std::size_t>(count)) : std::string();
}

/// Whether the other side has ended the stream, which is waited for.
inline bool rawSeesTheEnd(const Descriptor& socket)
{
    pollfd readable{socket.get(), POLLIN, 0};
    if (::poll(&readable, 1, ampleMs) != 1)
        return false;
    char byte = 0;
    return ::recv(socket.get(), &byte, 1, MSG_DONTWAIT) == 0;
}

inline void append(std::vector<char>& buffer, const std::string& bytes)
{
    buffer.insert(buffer.end(), bytes.begin(), bytes.end());
}

inline std::string text(const std::vector<char>& buffer)
{
    return std::string(buffer.begin(), buffer.end());
}

/// Takes `count` bytes from the front, as a consumer does.
inline std::string take(nq::nqNamedPipe& pipe, std::size_t count)
{
    auto& buffer = pipe.incomingBuffer();
    const auto end = buffer.begin() + static_cast<std::ptrdiff_t>(count);
    std::string taken(buffer.begin(), end);
    buffer.erase(buffer.begin(), end);
    return taken;
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

/// Changes the soft limit of descriptors and gives it back.
class DescriptorLimit {
public:
    DescriptorLimit()
    {
        ::getrlimit(RLIMIT_NOFILE, &mBefore);
    }

    ~DescriptorLimit()
    {
        ::setrlimit(RLIMIT_NOFILE, &mBefore);
    }

    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

    bool set(rlim_t soft) const
    {
        const rlimit wanted{soft, mBefore.rlim_max};
        return ::setrlimit(RLIMIT_NOFILE, &wanted) == 0;
    }

    /// Leaves no number free for a new descriptor.
    bool exhaust() const
    {
        const Descriptor lowestFree(::dup(STDERR_FILENO));
        return set(static_cast<rlim_t>(lowestFree.get()));
    }

    /// Leaves one.
    bool exhaustButOne() const
    {
        const Descriptor lowestFree(::dup(STDERR_FILENO));
        return set(static_cast<rlim_t>(lowestFree.get()) + 1);
    }

private:
    rlimit mBefore{};
};

/// Interrupts whatever the process waits in, again and again, for as long as it lives.
class SignalStorm {
public:
    SignalStorm()
    {
        struct sigaction action {};
        action.sa_handler = [](int) {}; // without SA_RESTART: system calls fail with EINTR
        ::sigaction(SIGALRM, &action, &mActionBefore);
        const itimerval often{{0, 5'000}, {0, 5'000}};
        ::setitimer(ITIMER_REAL, &often, nullptr);
    }

    ~SignalStorm()
    {
        const itimerval never{};
        ::setitimer(ITIMER_REAL, &never, nullptr);
        ::sigaction(SIGALRM, &mActionBefore, nullptr);
    }

    SignalStorm(const SignalStorm&) = delete;
    SignalStorm& operator=(const SignalStorm&) = delete;

private:
    struct sigaction mActionBefore {};
};

constexpr uid_t foreignUser = 65'534;

/// Whether this process may take on another user, as a test about foreigners needs.
inline bool mayChangeUser()
{
    return ::geteuid() == 0;
}

inline bool becomeForeignUser()
{
    return ::setresuid(foreignUser, foreignUser, foreignUser) == 0;
}

} // namespace pipe_test
