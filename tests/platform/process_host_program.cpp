// The host of the tests in which a host ends. Its first argument names what becomes of it, its
// second is the worker program. Ends at SIGUSR1, or by the hand of the test; standard input ends
// when the test is over.

#include "system/nqProcess.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

constexpr unsigned int lifeLimitSeconds = 300; // no test that failed leaves a process for ever

void say(const std::string& line)
{
    const std::string text = line + "\n";
    if (::write(STDOUT_FILENO, text.data(), text.size()) < 0)
        std::_Exit(EXIT_FAILURE);
}

void waitForSignal()
{
    sigset_t expected;
    ::sigemptyset(&expected);
    ::sigaddset(&expected, SIGUSR1);
    int arrived = 0;
    ::sigwait(&expected, &arrived);
}

// Leaks on purpose: what ends the worker has to be the kernel and not a destructor.
void startWorker(const std::string& program, const std::string& behaviour)
{
    static auto* const worker = new nq::nqProcess;
    if (!worker->startProcess(program, {behaviour}, false, nq::nqProcess::InheritedPriority))
        std::_Exit(EXIT_FAILURE);
}

// Lives until the test is over, and has copies of every descriptor but the output.
[[noreturn]] void liveOn()
{
    ::close(STDOUT_FILENO);
    char byte = 0;
    while (::read(STDIN_FILENO, &byte, 1) > 0) {
    }
    std::_Exit(EXIT_SUCCESS);
}

[[noreturn]] void launchForEver(const std::string& program)
{
    std::deque<nq::nqProcess> workers;
    for (;;) {
        if (!workers.emplace_back().startProcess(
                program, {"answer"}, false, nq::nqProcess::InheritedPriority))
            std::_Exit(EXIT_FAILURE);
        if (workers.size() > 3)
            workers.pop_front();
    }
}

void runThreads()
{
    static std::atomic<unsigned long> turns{0};
    for (int count = 0; count < 4; ++count)
        std::thread([] {
            for (;;) {
                ++turns;
                std::this_thread::yield();
            }
        }).detach();
}

} // namespace

int main(int argc, char** argv)
{
    ::alarm(lifeLimitSeconds);
    sigset_t blocked;
    ::sigemptyset(&blocked);
    ::sigaddset(&blocked, SIGUSR1);
    ::sigprocmask(SIG_BLOCK, &blocked, nullptr);
    if (argc < 2)
        return EXIT_FAILURE;

    const std::string end = argv[1];
    if (end == "live-on")
        liveOn();
    if (argc < 3)
        return EXIT_FAILURE;
    const std::string program = argv[2];
    if (end == "launch-for-ever")
        launchForEver(program);
    if (end == "threads")
        runThreads();
    if (end == "launching-thread-ends")
        std::thread([&] { startWorker(program, "answer-with-helper"); }).join();
    else
        startWorker(program, "answer-with-helper");
    if (end == "fork" && ::fork() == 0)
        liveOn();

    say("launched");
    waitForSignal();
    if (end == "return")
        return EXIT_SUCCESS;
    if (end == "exit-at-once")
        std::_Exit(EXIT_SUCCESS);
    if (end == "abort")
        std::abort();
    if (end == "exec")
        ::execl("/proc/self/exe", argv[0], "live-on", static_cast<char*>(nullptr));
    return EXIT_FAILURE;
}
