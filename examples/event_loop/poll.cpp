// Factorises numbers from standard input in a loop of its own: poll() waits for lines and the pool.
#include <nqPool.h>

#include <array>
#include <charconv>
#include <cstdint>
#include <iostream>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <system_error>
#include <unistd.h>

namespace {

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

/// Takes the whole lines out of `input`.
void submitLines(nq::nqPool& pool, std::string& input)
{
    for (std::size_t end; (end = input.find('\n')) != std::string::npos; input.erase(0, end + 1))
        pool.submit(input.substr(0, end), [line = input.substr(0, end)](const auto& outcome) {
            std::cout << line << ": " << (outcome ? outcome.text() : outcome.failureText())
                      << std::endl;
        });
}

} // namespace

int main(int argc, char* argv[])
{
    nq::runAsWorker(argc, argv, factorised);

    nq::nqPoolOptions options;
    options.jobTimeout = std::chrono::seconds(1); // acts without a tick of the loop's
    const int lines = ::dup(STDIN_FILENO); // -1 if that is closed and its number free for the pool
    nq::nqPool pool(options);
    std::array<pollfd, 2> sources{{{lines, POLLIN, 0}, {pool.waitDescriptor(), POLLIN, 0}}};
    std::string input;
    while (sources[0].fd >= 0 || pool.unfinishedCount() != 0) {
        if (::poll(sources.data(), sources.size(), -1) < 0)
            continue; // a signal
        if (sources[1].revents != 0)
            pool.pump(std::chrono::milliseconds(0));
        if (sources[0].revents != 0) {
            std::array<char, 4096> bytes;
            const ssize_t count = ::read(lines, bytes.data(), bytes.size());
            if (count > 0) {
                input.append(bytes.data(), static_cast<std::size_t>(count));
            } else {
                sources[0].fd = -1; // the end: poll() skips it
                input += input.empty() ? "" : "\n";
            }
            submitLines(pool, input);
        }
    }
    return 0;
}
