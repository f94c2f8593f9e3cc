// Lets jobs fail, prints all that their outcomes tell, and runs one of them again from its bytes.
#include <nqPool.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Reason = nq::nqAttempt::Reason;
using State = nq::nqOutcome::State;

/// Runs in a worker process.
std::string doAsItSays(std::string_view job)
{
    std::cerr << "reading prices.csv" << std::endl; // the last words, should the job fail
    if (job == "throw")
        throw std::runtime_error("row 17 has no price");
    if (job == "leave")
        std::exit(3);
    if (job == "crash")
        std::raise(SIGSEGV);
    std::vector<std::string> heap;
    while (job == "grow")
        heap.emplace_back(1 << 20, 'x');
    if (job == "dawdle")
        std::this_thread::sleep_for(500ms);
    return "the sum is 42";
}

const char* nameOf(State state)
{
    constexpr const char* names[] = {"Done", "Failed", "Cancelled"};
    return names[static_cast<int>(state)];
}

const char* nameOf(Reason reason)
{
    constexpr const char* names[] = {
        "None",
        "Crashed",
        "Exited",
        "MemoryCap",
        "Timeout",
        "Deadline",
        "Exception",
        "ResultLost",
        "NoWorker",
        "Cancelled",
        "Stopped",
        "Lost"};
    return names[static_cast<int>(reason)];
}

std::string milliseconds(std::chrono::microseconds time)
{
    std::ostringstream text;
    text << std::fixed << std::setprecision(1) << static_cast<double>(time.count()) / 1000 << " ms";
    return text.str();
}

/// The text in lines of at most `width` columns, under each other.
std::string wrapped(const std::string& text)
{
    constexpr std::size_t width = 80;
    std::istringstream words(text);
    std::string lines;
    std::size_t column = 0;
    for (std::string word; words >> word; column += word.size() + 1) {
        if (column + word.size() > width) {
            lines += '\n' + std::string(18, ' ');
            column = 0;
        }
        lines += (column == 0 ? "" : " ") + word;
    }
    return lines;
}

/// A member that has nothing to say is left out.
void print(const std::string& member, const std::string& value)
{
    if (!value.empty())
        std::cout << "  " << std::left << std::setw(16) << member << wrapped(value) << '\n';
}

void print(const nq::nqAttempt& attempt)
{
    print("reason", nameOf(attempt.reason));
    print("message", attempt.message);
    if (attempt.exitStatus)
        print("exitStatus", std::to_string(*attempt.exitStatus));
    print("signalName()", attempt.signalName());
    print("dumpedCore", attempt.dumpedCore ? "true" : "");
    if (attempt.peakMemory)
        print("peakMemory", std::to_string(*attempt.peakMemory >> 10) + " KiB");
    print("lastWords", attempt.lastWords);
    print("pid", attempt.pid == 0 ? "" : std::to_string(attempt.pid));
    print("ran", attempt.pid == 0 ? "" : milliseconds(attempt.ran));
}

void print(const std::string& title, const nq::nqOutcome& outcome)
{
    std::cout << title << '\n';
    print("failureText()", outcome.failureText());
    print("state", nameOf(outcome.state));
    print("text()", std::string(outcome.text()));
    print("id", std::to_string(outcome.id));
    print("queued", milliseconds(outcome.queued));
    print("keptAs", outcome.keptAs);
    print(outcome); // its last attempt
    for (const nq::nqAttempt& attempt : outcome.earlierAttempts) {
        std::cout << "  earlierAttempts:\n";
        print(attempt);
    }
    std::cout << std::endl;
}

} // namespace

int main(int argc, char* argv[])
{
    nq::runAsWorker(argc, argv, doAsItSays);

    nq::nqPoolOptions options;
    options.workers = 1; // so that jobs wait for each other
    options.order = nq::nqPoolOptions::Order::Submission;
    options.memoryCap = 128ul << 20;
    options.keepFailedJobs = "failed-jobs"; // a folder
    nq::nqPool pool(options);
    std::vector<char> slow;
    const auto submit = [&](const std::string& job, const nq::nqJobOptions& own = {}) {
        return pool.submit(job, own, [&slow, job](nq::nqOutcome&& outcome) {
            print(job, outcome);
            if (outcome.reason == Reason::Timeout)
                slow = std::move(outcome.bytes);
        });
    };

    nq::nqJobOptions twice;
    twice.retry.emplace().attempts = 2;
    submit("crash", twice);
    submit("leave");
    submit("throw");
    submit("grow");
    nq::nqJobOptions impatient;
    impatient.timeout = 100ms;
    submit("dawdle", impatient);
    nq::nqJobOptions urgent;
    urgent.deadline = std::chrono::steady_clock::now() + 50ms;
    submit("come too late", urgent); // behind all of these
    pool.cancel(submit("be cancelled"));
    pool.drain();

    // The bytes of a job that failed are all that is needed to run it once more.
    pool.submit(std::move(slow), [](nq::nqOutcome&& outcome) {
        print("dawdle, once more and with time enough", outcome);
    });
    pool.drain();

    submit("be stopped");
    pool.stop();

    options.worker = "/bin/false"; // which does not serve as one
    nq::nqPool hopeless(options);
    hopeless.submit(
        "find no worker", [](nq::nqOutcome&& outcome) { print("find no worker", outcome); });
    hopeless.drain();
    return 0;
}
