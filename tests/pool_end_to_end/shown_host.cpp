// A host that is its own worker and shows its pool in files, for what a test cannot do to itself.
//
//   shown_host run FOLDER      some jobs of all kinds, then the end
//   shown_host endless FOLDER  small jobs until somebody kills it; says when some are in the trace
//   shown_host here FOLDER     some jobs in this process
//   shown_host thread FOLDER   some jobs by a pool on a thread of its own
//
// The files are metrics.prom, status.json, trace.json and timeline.svg in FOLDER.
#include "nqPool.h"
#include "nqPoolThread.h"
#include "tests/pool_end_to_end/test_work.h"

#include <array>
#include <filesystem>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr int jobs = 40;
constexpr std::uintmax_t manyBytes = 8'192;

nq::nqPoolOptions optionsFor(const std::string& folder)
{
    nq::nqPoolOptions options;
    options.name = "a \"pool\" \xFF<&>";
    options.workers = 2;
    options.restartPause = std::chrono::milliseconds(1);
    options.metricsFile = folder + "/metrics.prom";
    options.metricsInterval = std::chrono::milliseconds(20);
    options.statusFile = folder + "/status.json";
    options.statusInterval = std::chrono::milliseconds(20);
    options.traceFile = folder + "/trace.json";
    options.timelineFile = folder + "/timeline.svg";
    return options;
}

nq::nqJobOptions labelled(int number)
{
    constexpr std::array<const char*, 4> labels{
        "plain", "a\n\"b\"\\", "<&>\x01\x7F", "\xC3\xFF\xED\xA0\x80"};
    nq::nqJobOptions options;
    options.label = labels[static_cast<std::size_t>(number) % labels.size()];
    return options;
}

std::string jobOf(int number)
{
    if (number % 8 == 3)
        return "crash";
    return number % 8 == 5 ? "throw it" : "echo " + std::to_string(number);
}

void run(const nq::nqPoolOptions& options)
{
    nq::nqPool pool(options);
    for (int number = 0; number < jobs; ++number) {
        if (!options.inProcess || jobOf(number) != "crash")
            pool.submit(jobOf(number), labelled(number), [](const nq::nqOutcome&) {});
    }
    pool.drain();
}

void runOnAThread(const nq::nqPoolOptions& options)
{
    nq::nqPoolThread pool(options);
    std::vector<std::future<nq::nqOutcome>> outcomes;
    for (int number = 0; number < jobs; ++number)
        outcomes.push_back(pool.submit(jobOf(number), labelled(number)));
    for (auto& outcome : outcomes)
        outcome.wait();
}

[[noreturn]] void runForEver(nq::nqPoolOptions options)
{
    options.maxPendingJobs = 8;
    nq::nqPool pool(options);
    bool isTold = false;
    for (int number = 0;; ++number) {
        pool.submit(jobOf(number), labelled(number), [](const nq::nqOutcome&) {});
        if (!isTold && std::filesystem::file_size(options.traceFile) > manyBytes) {
            isTold = true;
            std::cout << "some are written" << std::endl;
        }
    }
}

} // namespace

int main(int argc, char* argv[])
{
    nq::runAsWorker<pool_end_to_end::TestWork>(argc, argv);
    if (argc != 3)
        return 2;
    const std::string_view scenario = argv[1];
    nq::nqPoolOptions options = optionsFor(argv[2]);
    options.inProcess = scenario == "here";
    if (scenario == "endless")
        runForEver(options);
    else if (scenario == "thread")
        runOnAThread(options);
    else
        run(options);
    return 0;
}
