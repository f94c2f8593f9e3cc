// The bare limit: the system calls without which no pool can do, and nothing else. It holds no
// queue and gives a worker its next job in the moment in which it answers.
#include "benchmarks/common/pool.h"

#include "benchmarks/common/fail.h"
#include "benchmarks/common/processes.h"
#include "benchmarks/limit/connection.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace bench {

namespace {

constexpr int maxEvents = 64;

struct Worker {
    pid_t pid = 0;
    int socket = -1;
    std::vector<char> job; // header and payload
    std::size_t sent = 0;  // bytes of it
    IncomingFrame result;

    void takeResult(Ledger& ledger)
    {
        ledger.check(result.payload(), result.payloadBytes());
        result.clear();
    }

    void makeRoomFor(std::size_t payloadBytes)
    {
        if (job.size() == headerBytes + payloadBytes)
            return;
        job.assign(headerBytes + payloadBytes, 'x');
        const auto length = static_cast<std::uint32_t>(payloadBytes);
        std::memcpy(job.data(), &length, sizeof length);
    }
};

class BarePool : public Pool {
public:
    explicit BarePool(const PoolOptions& options)
        : mExecutable(options.workerExecutable),
          mName("nq-bench-limit-" + std::to_string(::getpid())),
          mListener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)),
          mEpoll(::epoll_create1(EPOLL_CLOEXEC)),
          mWorkers(options.workers)
    {
        const Address address(mName);
        require(::bind(mListener, address.get(), address.size) == 0, "bind");
        require(::listen(mListener, SOMAXCONN) == 0, "listen");
        for (Worker& worker : mWorkers)
            launch(worker);
    }

    ~BarePool() override
    {
        for (Worker& worker : mWorkers)
            end(worker);
        ::close(mEpoll);
        ::close(mListener);
    }

    void run(Ledger& ledger, std::uint64_t count) override
    {
        for (Worker& worker : mWorkers)
            worker.makeRoomFor(ledger.jobBytes());
        if (mWorkers.size() == 1)
            runPingPong(ledger, count);
        else
            runEvents(ledger, count);
    }

private:
    bool isPingPong() const
    {
        return mWorkers.size() == 1;
    }

    void launch(Worker& worker)
    {
        worker.pid = spawn(mExecutable, mName);
        worker.socket = ::accept4(mListener, nullptr, nullptr, SOCK_CLOEXEC);
        require(worker.socket >= 0, "accept");
        enlargeSendBuffer(worker.socket);
        worker.result.clear();
        if (isPingPong())
            return;
        require(::fcntl(worker.socket, F_SETFL, O_NONBLOCK) == 0, "make a socket non-blocking");
        watch(worker, EPOLL_CTL_ADD, EPOLLIN);
    }

    static void end(Worker& worker)
    {
        ::close(worker.socket);
        ::waitpid(worker.pid, nullptr, 0);
    }

    void replace(Worker& worker)
    {
        end(worker);
        launch(worker);
    }

    void watch(Worker& worker, int operation, std::uint32_t events) const
    {
        epoll_event event{};
        event.events = events;
        event.data.ptr = &worker;
        require(::epoll_ctl(mEpoll, operation, worker.socket, &event) == 0, "watch a socket");
    }

    void runPingPong(Ledger& ledger, std::uint64_t count)
    {
        Worker& worker = mWorkers.front();
        for (std::uint64_t i = 0; i < count; ++i) {
            ledger.stamp(worker.job.data() + headerBytes);
            if (answer(worker)) {
                worker.takeResult(ledger);
            } else {
                ledger.lose();
                replace(worker);
            }
        }
    }

    static bool answer(Worker& worker)
    {
        if (!sendAll(worker.socket, worker.job.data(), worker.job.size()))
            return false;
        while (!worker.result.isComplete()) {
            if (!worker.result.receive(worker.socket, MSG_WAITALL))
                return false;
        }
        return true;
    }

    void runEvents(Ledger& ledger, std::uint64_t count)
    {
        std::uint64_t started = 0;
        std::uint64_t finished = 0;
        for (Worker& worker : mWorkers) {
            if (started++ < count)
                start(worker, ledger);
        }
        started = std::min<std::uint64_t>(started, count);

        epoll_event events[maxEvents];
        while (finished < count) {
            const int ready = ::epoll_wait(mEpoll, events, maxEvents, -1);
            for (int i = 0; i < ready; ++i) {
                Worker& worker = *static_cast<Worker*>(events[i].data.ptr);
                if ((events[i].events & EPOLLOUT) != 0)
                    continueSending(worker);
                if ((events[i].events & EPOLLIN) == 0 || !takeResult(worker, ledger))
                    continue;
                ++finished;
                if (started < count) {
                    ++started;
                    start(worker, ledger);
                }
            }
        }
    }

    void start(Worker& worker, Ledger& ledger)
    {
        ledger.stamp(worker.job.data() + headerBytes);
        worker.sent = 0;
        if (!sendSome(worker))
            watch(worker, EPOLL_CTL_MOD, EPOLLIN | EPOLLOUT);
    }

    void continueSending(Worker& worker)
    {
        if (sendSome(worker))
            watch(worker, EPOLL_CTL_MOD, EPOLLIN);
    }

    // True when all of the job is on its way.
    static bool sendSome(Worker& worker)
    {
        const std::size_t left = worker.job.size() - worker.sent;
        const ssize_t sent =
            ::send(worker.socket, worker.job.data() + worker.sent, left, MSG_NOSIGNAL);
        require(sent >= 0 || errno == EAGAIN, "send a job");
        if (sent > 0)
            worker.sent += static_cast<std::size_t>(sent);
        return worker.sent == worker.job.size();
    }

    static bool takeResult(Worker& worker, Ledger& ledger)
    {
        if (!worker.result.receive(worker.socket, 0))
            fail("a worker has gone");
        if (!worker.result.isComplete())
            return false;
        worker.takeResult(ledger);
        return true;
    }

    std::string mExecutable;
    std::string mName;
    int mListener;
    int mEpoll;
    std::vector<Worker> mWorkers;
};

} // namespace

std::unique_ptr<Pool> makePool(const PoolOptions& options)
{
    return std::make_unique<BarePool>(options);
}

} // namespace bench
