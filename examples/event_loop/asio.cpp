// Factorises numbers from standard input in Asio's loop, which waits for lines and for the pool.
#include <nqPool.h>

#include <boost/asio.hpp>

#include <charconv>
#include <cstdint>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <unistd.h>

namespace {

namespace asio = boost::asio;
using Stream = asio::posix::stream_descriptor;

std::string factorised(std::string_view job)
{
    std::uint64_t number = 0;
    const char* const end = job.data() + job.size();
    const auto read = std::from_chars(job.data(), end, number);
    if (read.ec != std::errc() || read.ptr != end)
        throw std::invalid_argument("not a number of 64 bits"); // fails the job with this text
    for (std::uint64_t factor = 2; factor <= number / factor; ++factor)
        if (number % factor == 0)
            return std::to_string(factor) + " * " + std::to_string(number / factor);
    return number < 2 ? "no prime factor" : "prime";
}

/// Each line becomes a job; ends the loop with the last outcome after the last line.
class Session {
public:
    Session(asio::io_context& loop, int lines, nq::nqPool& pool)
        : mPool(pool),
          mInput(loop),
          mNews(loop, ::dup(pool.waitDescriptor())) // Asio closes what it is given
    {
        boost::system::error_code ignored; // reading from none is the end of input
        mInput.assign(lines, ignored);
        readLine();
        waitForNews();
    }

private:
    void readLine()
    {
        asio::async_read_until(
            mInput, asio::dynamic_buffer(mText), '\n', [this](auto error, std::size_t size) {
                if (error)
                    return endOfInput();
                submit(mText.substr(0, size - 1));
                mText.erase(0, size);
                readLine();
            });
    }

    void waitForNews()
    {
        mNews.async_wait(Stream::wait_read, [this](auto error) {
            if (error)
                return;
            mPool.pump(std::chrono::milliseconds(0));
            if (!mHasEnded || mPool.unfinishedCount() != 0)
                waitForNews();
        });
    }

    void submit(const std::string& line)
    {
        mPool.submit(line, [line](const nq::nqOutcome& outcome) {
            std::cout << line << ": " << (outcome ? outcome.text() : outcome.failureText())
                      << std::endl;
        });
    }

    void endOfInput()
    {
        if (!mText.empty())
            submit(mText);
        mHasEnded = true;
        if (mPool.unfinishedCount() == 0)
            mNews.cancel();
    }

    nq::nqPool& mPool;
    Stream mInput;
    Stream mNews;
    std::string mText; // the beginning of a line
    bool mHasEnded = false;
};

} // namespace

int main(int argc, char* argv[])
try {
    nq::runAsWorker(argc, argv, factorised);

    nq::nqPoolOptions options;
    options.jobTimeout = std::chrono::seconds(1); // acts without a timer of the loop's
    const int lines = ::dup(STDIN_FILENO); // -1 if that is closed and its number free for the pool
    nq::nqPool pool(options);
    asio::io_context loop;
    const Session session(loop, lines, pool);
    loop.run();
    return 0;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 2;
}
