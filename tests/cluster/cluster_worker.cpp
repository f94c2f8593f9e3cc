// The worker of these tests: a job says what it does.
//
//   echo TEXT     gives TEXT back
//   note FILE     adds a line to FILE
//   wait FILE     says so by making FILE.started, and waits until FILE is there
//   pause MS      takes that long
//   variable NAME gives that of its environment
//   crash         is ended by a signal
//   report TEXT   says that what it has run was ended by a signal
//   large N       gives N bytes
//   reverse TEXT  any other job is reversed as well
#include <nqPoolWorker.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <poll.h>
#include <string>
#include <string_view>
#include <unistd.h>

namespace {

void waitFor(const std::string& path)
{
    std::ofstream(path + ".started") << ::getpid();
    while (::access(path.c_str(), F_OK) != 0)
        ::poll(nullptr, 0, 5);
}

std::string work(std::string_view job)
{
    const std::size_t blank = job.find(' ');
    const std::string_view name = job.substr(0, blank);
    std::string argument(blank == job.npos ? std::string_view() : job.substr(blank + 1));
    if (name == "echo")
        return argument;
    if (name == "wait") {
        waitFor(argument);
        return "waited";
    }
    if (name == "note") {
        std::ofstream(argument, std::ios::app) << "run\n";
        return "noted";
    }
    if (name == "pause") {
        ::poll(nullptr, 0, std::stoi(argument));
        return argument;
    }
    if (name == "variable") {
        const char* const value = std::getenv(argument.c_str());
        return value != nullptr ? value : "none";
    }
    if (name == "crash")
        ::raise(SIGKILL); // a sanitizer would handle others
    if (name == "report") {
        nq::nqJobFailure failure(nq::nqAttempt::Reason::Crashed, argument);
        failure.signal = SIGSEGV;
        throw failure;
    }
    if (name == "large")
        return std::string(std::stoul(argument), 'x');
    return {job.rbegin(), job.rend()};
}

} // namespace

int main(int argc, char* argv[])
{
    return nq::runWorker(argc, argv, work);
}
