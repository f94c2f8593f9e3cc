// The child of the process tests. Its argument names its behaviour. Each behaviour reports with one
// line on standard output that it has come so far, and most then do something at each SIGUSR1.

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr unsigned int lifeLimitSeconds = 300; // no test that failed leaves a process for ever
constexpr std::size_t growthBytes = std::size_t{64} << 20;
constexpr std::size_t untouchedBytes = std::size_t{512} << 20;

void say(const std::string& line)
{
    const std::string text = line + "\n";
    if (::write(STDOUT_FILENO, text.data(), text.size()) < 0)
        std::_Exit(EXIT_FAILURE);
}

// Shows the signal mask that it was started with.
[[noreturn]] void rest()
{
    say("ready");
    for (;;)
        ::pause();
}

void waitForSignal()
{
    sigset_t expected;
    ::sigemptyset(&expected);
    ::sigaddset(&expected, SIGUSR1);
    int arrived = 0;
    ::sigwait(&expected, &arrived);
}

[[noreturn]] void answerSignals()
{
    say("ready");
    for (;;) {
        waitForSignal();
        say("pong");
    }
}

// Forks a child that holds the standard output until it is killed, and returns once that lives.
void forkHelper()
{
    int alive[2];
    if (::pipe(alive) != 0)
        std::_Exit(EXIT_FAILURE);
    if (::fork() == 0) {
        ::alarm(lifeLimitSeconds);
        if (::write(alive[1], "", 1) != 1)
            std::_Exit(EXIT_FAILURE);
        for (;;)
            ::pause();
    }
    char byte = 0;
    if (::read(alive[0], &byte, 1) != 1)
        std::_Exit(EXIT_FAILURE);
}

void* allocate(std::size_t bytes)
{
    return ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
}

[[noreturn]] void allocateAtSignals()
{
    say("ready");
    for (;;) {
        waitForSignal();
        void* memory = allocate(growthBytes);
        if (memory == MAP_FAILED) {
            say("refused");
            continue;
        }
        std::memset(memory, 1, growthBytes);
        say("grown");
    }
}

} // namespace

int main(int argc, char** argv)
{
    ::alarm(lifeLimitSeconds);
    const std::string behaviour = argc > 1 ? argv[1] : "";
    if (behaviour == "rest")
        rest();
    sigset_t blocked;
    ::sigemptyset(&blocked);
    ::sigaddset(&blocked, SIGUSR1);
    ::sigprocmask(SIG_BLOCK, &blocked, nullptr);

    if (behaviour == "answer")
        answerSignals();
    if (behaviour == "answer-with-helper") {
        forkHelper();
        answerSignals();
    }
    if (behaviour == "end-without-helper") {
        forkHelper();
        return EXIT_SUCCESS;
    }
    if (behaviour == "leave-group") {
        if (::setpgid(0, ::getpgid(::getppid())) == 0 || ::setsid() >= 0)
            return EXIT_FAILURE; // the kernel keeps the leader of a session where it is
        answerSignals();
    }
    if (behaviour == "allocate")
        allocateAtSignals();
    if (behaviour == "allocate-without-touch" && allocate(untouchedBytes) != MAP_FAILED)
        answerSignals();
    if (behaviour == "speak-on-both") {
        say("on output");
        return ::write(STDERR_FILENO, "on error\n", 9) == 9 ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
