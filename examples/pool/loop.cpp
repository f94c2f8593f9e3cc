// Reverses lines as they come, in a loop of its own: it waits for standard input and for the pool.
#include <nqPool.h>

#include <array>
#include <cerrno>
#include <iostream>
#include <poll.h>
#include <string>
#include <string_view>
#include <unistd.h>

namespace {

/// Hands each whole line of `input` to the pool, and leaves what has no end yet.
void submitLines(nq::nqPool& pool, std::string& input)
{
    std::size_t begin = 0;
    for (std::size_t end; (end = input.find('\n', begin)) != std::string::npos; begin = end + 1)
        pool.submit(input.substr(begin, end - begin), [](const nq::nqOutcome& outcome) {
            std::cout << (outcome ? outcome.text() : outcome.failureText()) << std::endl;
        });
    input.erase(0, begin);
}

} // namespace

int main(int argc, char* argv[])
{
    nq::runAsWorker(
        argc, argv, [](std::string_view job) { return std::string(job.rbegin(), job.rend()); });

    nq::nqPool pool;
    const int news = pool.waitDescriptor(); // once: it stays the same
    std::array<pollfd, 2> sources{{{STDIN_FILENO, POLLIN, 0}, {news, POLLIN, 0}}};
    std::string input;
    while (sources[0].fd >= 0 || pool.unfinishedCount() != 0) {
        if (::poll(sources.data(), sources.size(), -1) < 0 && errno != EINTR)
            return 1;
        if (sources[1].revents != 0)
            pool.pump(std::chrono::milliseconds(0));
        if (sources[0].revents != 0) {
            std::array<char, 4096> bytes;
            const ssize_t count = ::read(STDIN_FILENO, bytes.data(), bytes.size());
            if (count <= 0)
                sources[0].fd = -1; // the end, and poll passes over it
            else
                input.append(bytes.data(), static_cast<std::size_t>(count));
            submitLines(pool, input);
        }
    }
    return 0;
}
