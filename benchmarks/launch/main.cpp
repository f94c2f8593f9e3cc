// Launches the same worker by fork, by posix_spawn and by the library from a host with much memory
// and many threads, and prints how long the call takes and when the worker is connected.
#include "benchmarks/common/clock.h"
#include "benchmarks/common/fail.h"
#include "benchmarks/common/options.h"
#include "benchmarks/common/processes.h"
#include "benchmarks/limit/connection.h"

#include <nqProcess.h>

#include <condition_variable>
#include <cstring>
#include <iostream>
#include <mutex>
#include <optional>
#include <sstream>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace bench;

// Small pages, since the memory of a host that has run for a while consists of many small pieces.
void occupyMemory(std::size_t bytes)
{
    if (bytes == 0)
        return;
    void* const memory =
        ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    require(memory != MAP_FAILED, "occupy memory");
    ::madvise(memory, bytes, MADV_NOHUGEPAGE);
    std::memset(memory, 1, bytes);
}

/// Threads that sleep until the end.
class Sleepers {
public:
    explicit Sleepers(std::size_t count)
    {
        for (std::size_t i = 0; i < count; ++i)
            mThreads.emplace_back([this] {
                std::unique_lock lock(mMutex);
                mWake.wait(lock, [this] { return mIsOver; });
            });
    }
    ~Sleepers()
    {
        {
            const std::lock_guard lock(mMutex);
            mIsOver = true;
        }
        mWake.notify_all();
        for (std::thread& thread : mThreads)
            thread.join();
    }
    Sleepers(const Sleepers&) = delete;
    Sleepers& operator=(const Sleepers&) = delete;

private:
    std::mutex mMutex;
    std::condition_variable mWake;
    bool mIsOver = false;
    std::vector<std::thread> mThreads;
};

pid_t forkAndExecute(const std::string& executable, const std::string& argument)
{
    const pid_t pid = ::fork();
    require(pid >= 0, "fork");
    if (pid == 0) {
        ::execl(executable.c_str(), executable.c_str(), argument.c_str(), nullptr);
        ::_exit(127);
    }
    return pid;
}

struct Launcher {
    std::string how;
    std::string executable;
    std::string name;
    std::optional<nq::nqProcess> process;
    pid_t pid = 0;

    void launch()
    {
        if (how == "fork")
            pid = forkAndExecute(executable, name);
        else if (how == "posix_spawn")
            pid = spawn(executable, name);
        else if (!process.emplace().startProcess(
                     executable, {name}, false, nq::nqProcess::InheritedPriority))
            fail("the library cannot start a worker");
    }

    void waitForEnd()
    {
        if (process)
            process->waitForFinished(0xFFFFFFFF);
        else
            ::waitpid(pid, nullptr, 0);
    }
};

} // namespace

int main(int argc, char* argv[])
{
    const Options options(argc, argv, 1);
    occupyMemory(options.number("resident-mib", 0) << 20);
    const Sleepers sleepers(options.number("threads", 0));

    Launcher launcher;
    launcher.how = options.text("how", "ours");
    launcher.executable = options.text("worker", "");
    launcher.name = "nq-bench-launch-" + std::to_string(::getpid());
    const Address address(launcher.name);
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    require(::bind(listener, address.get(), address.size) == 0, "bind");
    require(::listen(listener, SOMAXCONN) == 0, "listen");

    std::ostringstream returned;
    std::ostringstream connected;
    const std::uint64_t rounds = options.number("rounds", 10);
    for (std::uint64_t round = 0; round < rounds; ++round) {
        const char* const separator = round == 0 ? "" : ", ";
        const std::int64_t begin = monotonicNanoseconds();
        launcher.launch();
        returned << separator << monotonicNanoseconds() - begin;
        const int worker = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        require(worker >= 0, "accept");
        connected << separator << monotonicNanoseconds() - begin;
        ::close(worker); // tells the worker to leave
        launcher.waitForEnd();
    }
    ::close(listener);
    std::cout << "{\"returned_ns\": [" << returned.str() << "], \"connected_ns\": ["
              << connected.str() << "]}\n";
    return 0;
}
