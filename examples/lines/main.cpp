// Prints the lines of many files that match a regular expression, in the order of the files. One
// that crashes or hangs the C++ library's matcher costs a worker, and is named at the end.
#include <nqPool.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

volatile std::sig_atomic_t interrupted = 0;

/// A job is an expression and a file's path, with a NUL between them, which neither can hold.
std::string matchingLines(std::string_view job)
{
    const auto end = job.find('\0');
    const std::regex expression(std::string(job.substr(0, end)));
    const std::string path(job.substr(end + 1));
    std::ifstream file(path);
    if (!file)
        throw std::runtime_error("cannot be opened");
    std::string found;
    for (std::string line; std::getline(file, line);) {
        if (std::regex_search(line, expression))
            found.append(path).append(": ").append(line) += '\n';
    }
    return found;
}

/// Shows how far it is. False after Ctrl-C.
bool goesOn(const nq::nqPool& pool)
{
    const nq::nqPoolStatistics now = pool.statistics();
    std::cerr << '\r' << now.done << " files, " << now.failed << " failed, "
              << now.queued + now.running << " to go " << std::flush;
    return interrupted == 0;
}

} // namespace

int main(int argc, char* argv[])
try {
    nq::runAsWorker(argc, argv, matchingLines);
    if (argc != 3) {
        std::cerr << "usage: lines EXPRESSION FOLDER\n";
        return 2;
    }
    const std::regex mustBeGood(argv[1]); // or is refused here, once
    std::signal(SIGINT, [](int) { interrupted = 1; });

    nq::nqPoolOptions options;
    options.jobTimeout = std::chrono::seconds(1);
    options.memoryCap = 256UL << 20;
    options.recycleAfterJobs = 1000; // against leaks
    options.retry.attempts = 3;
    options.order = nq::nqPoolOptions::Order::Submission;
    options.maxPendingJobs = 1000; // submit() pumps meanwhile
    nq::nqPool pool(options);

    std::vector<std::string> failures;
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[2])) {
        if (!entry.is_regular_file())
            continue;
        if (interrupted != 0 || (++count % 100 == 0 && !goesOn(pool)))
            break;
        const std::string path = entry.path();
        pool.submit(std::string(argv[1]) + '\0' + path, [path, &failures](nq::nqOutcome&& outcome) {
            std::cerr << "\r\x1b[K"; // a terminal shows progress there
            if (outcome)
                std::cout << outcome.text();
            else if (outcome.reason != nq::nqAttempt::Reason::Stopped)
                failures.push_back(path + ": " + outcome.failureText());
        });
    }
    pool.drain([&pool](const nq::nqProgress&) { return goesOn(pool); });
    pool.stop(); // after Ctrl-C, ends what still runs
    std::cerr << (interrupted != 0 ? "\ninterrupted\n" : "\n");
    for (const std::string& failure : failures)
        std::cerr << failure << '\n';
    return interrupted != 0 || !failures.empty() || !std::cout.flush() ? 1 : 0;
} catch (const std::exception& error) {
    std::cerr << "lines: " << error.what() << '\n';
    return 2;
}
