// Submits jobs and notes in a file what it has submitted and what became of it, line by line, so
// that nothing of that is lost with it. Continues where the program before it was killed.
//
//   usage: chaos_submitter URL FILE RUN UPTO SEED
//
// Lines: "S RUN ID NUMBER JOB", "O RUN ID STATE TEXT", "E RUN DROPPED AGAIN".
#include <nqClusterPool.h>

#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <memory>
#include <poll.h>
#include <random>
#include <string>
#include <unistd.h>

namespace {

class Notes {
public:
    explicit Notes(const std::string& path)
        : mFile(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600))
    {
    }

    void add(const std::string& line) const
    {
        const std::string whole = line + '\n';
        if (::write(mFile, whole.data(), whole.size()) != static_cast<ssize_t>(whole.size()))
            ::_exit(3);
    }

private:
    int mFile;
};

int submittedBefore(const std::string& path)
{
    std::ifstream file(path);
    int count = 0;
    for (std::string line; std::getline(file, line);)
        count += line.substr(0, 2) == "S " ? 1 : 0;
    return count;
}

std::string jobFor(int number, std::minstd_rand& random)
{
    switch (random() % 50) {
    case 0:
        return "crash";
    case 1:
        return "large 300000";
    case 2:
    case 3:
    case 4:
        return "pause " + std::to_string(random() % 50);
    default:
        return "echo " + std::to_string(number);
    }
}

/// In one line of bounded length.
std::string textOf(const nq::nqOutcome& outcome)
{
    if (outcome.state == nq::nqOutcome::State::Failed)
        return std::to_string(static_cast<int>(outcome.reason));
    return outcome.bytes.size() > 100 ? "long" : std::string(outcome.text());
}

/// Redis may be away just now.
std::unique_ptr<nq::nqClusterPool>
makePool(const char* url, const nq::nqPoolOptions& options, const nq::nqClusterOptions& cluster)
{
    for (int tries = 0;; ++tries) {
        try {
            return std::make_unique<nq::nqClusterPool>(url, "tests", options, cluster);
        } catch (const nq::nqPoolError&) {
            if (tries == 1'000)
                throw;
            ::poll(nullptr, 0, 20);
        }
    }
}

} // namespace

int main(int argc, char* argv[])
try {
    if (argc != 6)
        return 2;
    const Notes notes(argv[2]);
    const std::string run = argv[3];
    const int upTo = std::stoi(argv[4]);
    std::minstd_rand random(static_cast<unsigned>(std::stoul(argv[5])));

    nq::nqPoolOptions options;
    options.maxPendingJobs = 200;
    options.retry.attempts = 4;
    nq::nqClusterOptions cluster;
    cluster.client = "chaos";
    cluster.stallTimeout = std::chrono::milliseconds(1'000);
    cluster.connectTimeout = std::chrono::milliseconds(20'000);
    const std::unique_ptr<nq::nqClusterPool> made = makePool(argv[1], options, cluster);
    nq::nqClusterPool& pool = *made;

    const auto note = [&](const nq::nqOutcome& outcome) {
        notes.add(
            "O " + run + ' ' + std::to_string(outcome.id) + ' ' +
            std::to_string(static_cast<int>(outcome.state)) + ' ' + textOf(outcome));
    };
    const auto collect = [&](std::chrono::milliseconds timeout) {
        while (const std::optional<nq::nqOutcome> outcome = pool.next(timeout))
            note(*outcome);
    };
    for (int number = submittedBefore(argv[2]); number < upTo; ++number) {
        const std::string job = jobFor(number, random);
        const nq::nqJobId id = pool.submit(job, note);
        notes.add("S " + run + ' ' + std::to_string(id) + ' ' + std::to_string(number) + ' ' + job);
        collect(std::chrono::milliseconds(0));
    }
    pool.drain();
    collect(std::chrono::milliseconds(-1));
    const nq::nqClusterStatistics statistics = pool.statistics();
    notes.add(
        "E " + run + ' ' + std::to_string(statistics.outcomesDropped) + ' ' +
        std::to_string(statistics.sentAgain));
    return 0;
} catch (const std::exception& error) {
    std::cerr << "chaos_submitter: " << error.what() << '\n';
    return 1;
}
