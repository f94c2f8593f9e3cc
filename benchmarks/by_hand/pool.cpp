// The pool as it is commonly written with Boost.Asio: a queue of jobs, a session for each worker,
// asynchronous reads and writes on one thread, a new process for one that has gone.
#include "benchmarks/common/pool.h"

#include "benchmarks/by_hand/whole.h"
#include "benchmarks/common/job_memory.h"
#include "benchmarks/common/processes.h"

#include <array>
#include <boost/asio.hpp>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace bench {

namespace {

using boost::asio::local::stream_protocol;
using Bytes = std::vector<char>;
using boost::system::error_code;

struct Session {
    explicit Session(boost::asio::io_context& context)
        : socket(context)
    {
    }

    pid_t pid = 0;
    stream_protocol::socket socket;
    bool isIdle = false;
    Bytes job;
    Bytes result;
    std::uint32_t length = 0; // of the frame under way, in either direction
};

class AsioPool : public Pool {
public:
    explicit AsioPool(const PoolOptions& options)
        : mExecutable(options.workerExecutable),
          mName("nq-bench-asio-" + std::to_string(::getpid())),
          mMaxInFlight(options.workers + jobsAhead),
          mAcceptor(mContext, stream_protocol::endpoint(std::string(1, '\0') + mName)),
          mJobs(options.movesJobs)
    {
        for (std::size_t i = 0; i < options.workers; ++i) {
            mSessions.push_back(std::make_unique<Session>(mContext));
            Session& session = *mSessions.back();
            session.pid = spawn(mExecutable, mName);
            mAcceptor.accept(session.socket);
            session.socket.set_option(boost::asio::socket_base::send_buffer_size(sendBufferBytes));
            session.isIdle = true;
        }
    }

    ~AsioPool() override
    {
        for (const auto& session : mSessions) {
            boost::system::error_code ignored;
            session->socket.close(ignored);
            ::waitpid(session->pid, nullptr, 0);
        }
    }

    void run(Ledger& ledger, std::uint64_t count) override
    {
        std::uint64_t submitted = 0;
        std::uint64_t finished = 0;
        const auto refill = [&] {
            for (; submitted < count && submitted - finished < mMaxInFlight; ++submitted) {
                mJobs.pushNext(
                    ledger, [this](auto&& job) { submit(std::forward<decltype(job)>(job)); });
            }
            if (finished == count)
                mContext.stop();
        };
        mOnResult = [&](Bytes& result) {
            ledger.check(result.data(), result.size());
            mJobs.takeBack(result);
            ++finished;
            refill();
        };
        mOnFailure = [&] {
            ledger.lose();
            ++finished;
            refill();
        };
        mContext.restart();
        refill();
        mContext.run();
    }

private:
    void submit(Bytes job)
    {
        mPending.push_back(std::move(job));
        dispatch();
    }

    void dispatch()
    {
        for (const auto& session : mSessions) {
            if (mPending.empty())
                return;
            if (session->isIdle)
                start(*session);
        }
    }

    void start(Session& session)
    {
        session.isIdle = false;
        session.job = std::move(mPending.front());
        mPending.pop_front();
        session.length = static_cast<std::uint32_t>(session.job.size());
        const std::array<boost::asio::const_buffer, 2> frame{
            boost::asio::buffer(&session.length, sizeof session.length),
            boost::asio::buffer(session.job)};
        boost::asio::async_write(
            session.socket, frame, Whole(), [this, &session](error_code error, std::size_t) {
                if (error)
                    lose(session);
                else
                    readHeader(session);
            });
    }

    void readHeader(Session& session)
    {
        boost::asio::async_read(
            session.socket,
            boost::asio::buffer(&session.length, sizeof session.length),
            [this, &session](error_code error, std::size_t) {
                if (error)
                    lose(session);
                else
                    readPayload(session);
            });
    }

    void readPayload(Session& session)
    {
        session.result.resize(session.length);
        boost::asio::async_read(
            session.socket,
            boost::asio::buffer(session.result),
            Whole(),
            [this, &session](error_code error, std::size_t) {
                if (error) {
                    lose(session);
                    return;
                }
                // The next result comes into the memory of the job that this one answers.
                Bytes result = std::exchange(session.result, std::exchange(session.job, {}));
                session.isIdle = true;
                mOnResult(result);
                dispatch();
            });
    }

    void lose(Session& session)
    {
        session.socket.close();
        ::waitpid(session.pid, nullptr, 0);
        session.pid = spawn(mExecutable, mName);
        mAcceptor.async_accept(session.socket, [this, &session](error_code error) {
            session.isIdle = !error;
            dispatch();
        });
        mOnFailure();
    }

    std::string mExecutable;
    std::string mName;
    std::uint64_t mMaxInFlight;
    boost::asio::io_context mContext{1};
    stream_protocol::acceptor mAcceptor;
    std::vector<std::unique_ptr<Session>> mSessions;
    std::deque<Bytes> mPending;
    JobMemory mJobs;
    std::function<void(Bytes&)> mOnResult;
    std::function<void()> mOnFailure;
};

} // namespace

std::unique_ptr<Pool> makePool(const PoolOptions& options)
{
    return std::make_unique<AsioPool>(options);
}

} // namespace bench
