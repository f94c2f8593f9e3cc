// Counts the matches of a regular expression in each file, whatever the expression does to a
// worker: run out of stack, try for ever, eat memory.
#include <nqPool.h>

#include <csignal>
#include <fstream>
#include <iostream>
#include <iterator>
#include <regex>
#include <stdexcept>
#include <string>
#include <string_view>

namespace {

volatile std::sig_atomic_t isInterrupted = 0;

/// A job is an expression and a path, a line each.
std::string countMatches(std::string_view job)
{
    const std::size_t end = job.find('\n');
    const std::regex expression(job.data(), end);
    const std::string path(job.substr(end + 1));
    std::ifstream file(path, std::ios::binary);
    const std::string text(std::istreambuf_iterator<char>(file), {});
    if (!file)
        throw std::runtime_error("cannot read " + path);
    const std::sregex_iterator first(text.begin(), text.end(), expression);
    return std::to_string(std::distance(first, std::sregex_iterator()));
}

} // namespace

int main(int argc, char* argv[])
{
    nq::runAsWorker(argc, argv, countMatches);
    if (argc < 2) {
        std::cerr << "usage: pool-search EXPRESSION [FILE...]\n";
        return 2;
    }
    nq::nqPoolOptions options;
    options.jobTimeout = std::chrono::seconds(1);
    options.memoryCap = 512ul << 20;
    options.retry.attempts = 3;
    options.order = nq::nqPoolOptions::Order::Submission; // the files in their order
    options.maxPendingJobs = 1000;                        // submit() pumps until there is room
    nq::nqPool pool(options);
    std::signal(SIGINT, [](int) { isInterrupted = 1; }); // workers do not get Ctrl-C

    for (int index = 2; index < argc && isInterrupted == 0; ++index) {
        const std::string path = argv[index];
        pool.submit(argv[1] + ('\n' + path), [path](const nq::nqOutcome& outcome) {
            if (outcome)
                std::cout << path << ": " << outcome.text() << '\n';
            else
                std::cerr << path << ": " << outcome.failureText() << '\n';
        });
    }
    while (pool.unfinishedCount() != 0 && isInterrupted == 0)
        pool.pump(std::chrono::milliseconds(100));
    pool.stop();

    const nq::nqPoolStatistics all = pool.statistics();
    std::cerr << all.done << " done, " << all.failed << " failed, " << all.cancelled
              << " cancelled, " << all.retried << " attempts more\n";
    return all.done == all.submitted ? 0 : 1;
}
