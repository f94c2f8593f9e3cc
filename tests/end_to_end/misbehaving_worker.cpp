// A worker whose jobs name what it does wrong. The bytes of a job are a command and, after one
// blank, its argument; a command line option names what goes wrong before the first job.

#include "nqLog.h"
#include "nqWorker.h"
#include "tests/common/descriptors.h"
#include "tests/common/frame.h"
#include "tests/common/processes.h"
#include "tests/common/rawSocket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr int stepMs =
    1000; // only how often the loop looks at hasFinished; the pipe wakes it earlier
constexpr int lingerMs = 20'000; // much longer than the time limit that it is tried with
constexpr std::size_t mebibyte = std::size_t{1} << 20; // more than a pipe of the kernel holds

[[noreturn]] void hangForEver()
{
    for (;;)
        pause();
}

/// Comes back when somebody has read most of it.
void printMore()
{
    std::fputs(std::string(mebibyte, '.').c_str(), stderr);
}

/// Without waiting for what the library still has to send. False when the host has gone.
bool sendRaw(std::string_view bytes)
{
    return common::sendPastTheLibrary(bytes);
}

std::string frame(std::string_view payload)
{
    return common::text(common::frame(payload));
}

/// The value behind `name` in /proc/self/status.
std::string statusField(const std::string& name)
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.compare(0, name.size() + 1, name + ':') == 0)
            return line.substr(line.find_first_not_of(" \t", name.size() + 1));
    return "";
}

bool has(const std::vector<std::string>& arguments, const std::string& wanted)
{
    return std::find(arguments.begin(), arguments.end(), wanted) != arguments.end();
}

std::string joined(const std::vector<std::string>& texts)
{
    std::string all;
    for (const std::string& text : texts)
        all += (all.empty() ? "" : "\n") + text;
    return all;
}

std::string exitStatusOf(pid_t child)
{
    const int exitCode = common::waitForExitCode(child);
    return exitCode == -1 ? "a signal" : std::to_string(exitCode);
}

class MisbehavingWorker : public nq::nqWorker {
public:
    MisbehavingWorker(
        const std::string& pipeName,
        std::vector<std::string> arguments,
        std::string inheritedDescriptors)
        : nqWorker(pipeName),
          mArguments(std::move(arguments)),
          mInheritedDescriptors(std::move(inheritedDescriptors))
    {
    }

    void processJob(std::vector<char>& job, std::vector<char>& result) override
    {
        const std::string_view text(job.data(), job.size());
        const std::size_t blank = std::min(text.find(' '), text.size());
        const std::string_view argument = text.substr(std::min(blank + 1, text.size()));
        const std::string answer = perform(text.substr(0, blank), argument);
        result.assign(answer.begin(), answer.end());
    }

    void endOfWork() override
    {
        if (mIgnoresTheEnd)
            hangForEver();
        if (has(mArguments, "--print-at-the-end"))
            printMore();
        nqWorker::endOfWork();
    }

private:
    using Behaviour = std::string (MisbehavingWorker::*)(std::string_view argument);
    struct Command {
        const char* name;
        Behaviour behaviour;
    };

    std::string perform(std::string_view name, std::string_view argument)
    {
        static constexpr Command commands[] = {
            {"abort", &MisbehavingWorker::abortNow},
            {"allocate-until-fail", &MisbehavingWorker::allocateUntilFail},
            {"answer-and-die", &MisbehavingWorker::answerAndDie},
            {"answer-and-hang", &MisbehavingWorker::answerAndHang},
            {"answer-then-grow", &MisbehavingWorker::answerThenGrow},
            {"arguments", &MisbehavingWorker::tellArguments},
            {"close-pipe-and-linger", &MisbehavingWorker::closePipeAndLinger},
            {"close-pipe-and-print", &MisbehavingWorker::closePipeAndPrint},
            {"crash", &MisbehavingWorker::crash},
            {"descriptors", &MisbehavingWorker::tellDescriptors},
            {"dribble", &MisbehavingWorker::dribble},
            {"echo", &MisbehavingWorker::echo},
            {"empty-result", &MisbehavingWorker::answerNothing},
            {"environment", &MisbehavingWorker::tellEnvironment},
            {"exit", &MisbehavingWorker::exitNow},
            {"finish-after-this", &MisbehavingWorker::finishAfterThis},
            {"flood", &MisbehavingWorker::flood},
            {"folder", &MisbehavingWorker::tellFolder},
            {"fork-helper", &MisbehavingWorker::forkHelper},
            {"helper-exits", &MisbehavingWorker::helperExits},
            {"helper-returns", &MisbehavingWorker::helperReturns},
            {"grow", &MisbehavingWorker::grow},
            {"grow-and-hang", &MisbehavingWorker::growAndHang},
            {"half-frame", &MisbehavingWorker::sendHalfFrame},
            {"half-header", &MisbehavingWorker::sendHalfHeader},
            {"hang", &MisbehavingWorker::hang},
            {"ignore-end", &MisbehavingWorker::ignoreEnd},
            {"junk-and-die", &MisbehavingWorker::junkAndDie},
            {"log", &MisbehavingWorker::log},
            {"map-untouched", &MisbehavingWorker::mapUntouched},
            {"pid", &MisbehavingWorker::tellPid},
            {"print", &MisbehavingWorker::print},
            {"print-and-hang", &MisbehavingWorker::printAndHang},
            {"process-group", &MisbehavingWorker::tellProcessGroup},
            {"signals", &MisbehavingWorker::tellSignals},
            {"standard-input", &MisbehavingWorker::tellStandardInput},
            {"throw", &MisbehavingWorker::throwException},
            {"throw-and-tell", &MisbehavingWorker::throwAndTell},
        };
        const auto* command =
            std::find_if(std::begin(commands), std::end(commands), [name](const Command& known) {
                return name == known.name;
            });
        if (command == std::end(commands))
            return "unknown command " + std::string(name);
        return (this->*command->behaviour)(argument);
    }

    // What a well-behaved worker does, and what the tests ask it about its surroundings.

    std::string echo(std::string_view argument)
    {
        return std::string(argument);
    }

    std::string tellPid(std::string_view)
    {
        return std::to_string(getpid());
    }

    std::string tellProcessGroup(std::string_view)
    {
        return std::to_string(getpgrp());
    }

    std::string tellArguments(std::string_view)
    {
        return joined(mArguments);
    }

    std::string tellFolder(std::string_view)
    {
        return std::filesystem::current_path().string();
    }

    std::string tellEnvironment(std::string_view name)
    {
        const char* value = std::getenv(std::string(name).c_str());
        return value ? value : "unset";
    }

    std::string tellDescriptors(std::string_view)
    {
        return mInheritedDescriptors;
    }

    std::string tellSignals(std::string_view)
    {
        return "blocked " + statusField("SigBlk") + " ignored " + statusField("SigIgn");
    }

    std::string tellStandardInput(std::string_view)
    {
        return std::filesystem::read_symlink("/proc/self/fd/0").string();
    }

    std::string print(std::string_view text)
    {
        std::printf("out: %.*s\n", static_cast<int>(text.size()), text.data());
        std::fflush(stdout);
        std::fprintf(stderr, "err: %.*s\n", static_cast<int>(text.size()), text.data());
        return "printed";
    }

    std::string log(std::string_view text)
    {
        nq::nqLog::LogEntry entry;
        entry.mMessage = text;
        entry.mLevel = nq::nqLog::Info;
        nq::nqLog::WriteToStandardOutput(entry);
        nq::nqLog().Write(entry, true);
        return "logged";
    }

    std::string finishAfterThis(std::string_view argument)
    {
        setFinished(true);
        return std::string(argument);
    }

    // Ends without an answer.

    std::string crash(std::string_view)
    {
        std::signal(SIGSEGV, SIG_DFL);
        std::raise(SIGSEGV);
        return "survived";
    }

    std::string abortNow(std::string_view)
    {
        std::abort();
    }

    std::string exitNow(std::string_view status)
    {
        _exit(std::stoi(std::string(status)));
    }

    std::string throwException(std::string_view)
    {
        throw std::runtime_error("left the hook");
    }

    /// The last thing that this process does is to write into the file whether the hook was left.
    std::string throwAndTell(std::string_view file)
    {
        static std::string path;
        static bool isHookLeft = false;
        struct Witness {
            ~Witness()
            {
                isHookLeft = true;
            }
        };
        path = file;
        std::set_terminate([] {
            std::ofstream(path) << (isHookLeft ? "left" : "not left");
            _exit(EXIT_FAILURE);
        });
        const Witness witness;
        throw std::runtime_error("left the hook");
    }

    std::string sendHalfFrame(std::string_view)
    {
        sendRaw(common::text(common::header(1000)) + std::string(500, 'h'));
        _exit(0);
    }

    std::string sendHalfHeader(std::string_view)
    {
        sendRaw(common::text(common::header(1000)).substr(0, 2));
        _exit(0);
    }

    std::string closePipeAndLinger(std::string_view milliseconds)
    {
        shutdown(common::socketOfPipe(), SHUT_RDWR);
        poll(nullptr, 0, std::stoi(std::string(milliseconds)));
        _exit(0);
    }

    std::string closePipeAndPrint(std::string_view)
    {
        shutdown(common::socketOfPipe(), SHUT_RDWR);
        printMore();
        _exit(0);
    }

    // Does not end.

    std::string hang(std::string_view)
    {
        hangForEver();
    }

    std::string printAndHang(std::string_view text)
    {
        print(text);
        hangForEver();
    }

    std::string growAndHang(std::string_view bytes)
    {
        grow(bytes);
        hangForEver();
    }

    std::string answerNothing(std::string_view)
    {
        return "";
    }

    // Answers past the library, so that the answer is out before the misbehaviour begins.

    /// Answers with its pid when it is given nothing to say.
    std::string answerAndDie(std::string_view payload)
    {
        sendRaw(frame(payload.empty() ? tellPid(payload) : payload));
        _exit(0);
    }

    std::string junkAndDie(std::string_view payload)
    {
        sendRaw(frame(payload) + "nobody asked for these bytes");
        _exit(0);
    }

    std::string answerAndHang(std::string_view payload)
    {
        sendRaw(frame(payload));
        hangForEver();
    }

    std::string answerThenGrow(std::string_view bytes)
    {
        sendRaw(frame("growing"));
        growAndHang(bytes);
        return "";
    }

    std::string flood(std::string_view payload)
    {
        sendRaw(frame(payload));
        std::string unasked;
        while (unasked.size() < mebibyte)
            unasked += frame(std::string(64, 'f'));
        while (sendRaw(unasked)) {
        }
        _exit(0);
    }

    std::string dribble(std::string_view payload)
    {
        const std::string bytes = frame(payload);
        for (const char& byte : bytes)
            sendRaw(std::string_view(&byte, 1));
        hangForEver();
    }

    // Answers, and keeps something.

    std::string grow(std::string_view bytes)
    {
        mHoard.emplace_back(std::stoull(std::string(bytes)), 'x'); // written to, thus resident
        return "grown";
    }

    std::string mapUntouched(std::string_view bytes)
    {
        const std::size_t size = std::stoull(std::string(bytes));
        void* const memory =
            mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        return memory != MAP_FAILED ? "mapped" : "refused";
    }

    std::string allocateUntilFail(std::string_view)
    {
        for (;;)
            mHoard.emplace_back(mebibyte, 'x');
    }

    // A helper that comes back from the hook as if it were the worker.
    std::string helperReturns(std::string_view)
    {
        const pid_t helper = fork();
        if (helper == 0)
            return "of the helper";
        return "the helper left with " + exitStatusOf(helper);
    }

    std::string helperExits(std::string_view)
    {
        const pid_t helper = fork();
        if (helper == 0)
            std::exit(EXIT_SUCCESS); // with the destructors of static objects
        return "the helper left with " + exitStatusOf(helper);
    }

    std::string forkHelper(std::string_view)
    {
        const pid_t helper = fork();
        if (helper == 0)
            hangForEver(); // holds a copy of the socket and of the standard streams
        return std::to_string(helper);
    }

    std::string ignoreEnd(std::string_view)
    {
        std::signal(SIGTERM, SIG_IGN);
        mIgnoresTheEnd = true;
        return "ignoring";
    }

    std::vector<std::string> mArguments; // as the process got them
    std::string mInheritedDescriptors;
    std::vector<std::vector<char>> mHoard;
    bool mIgnoresTheEnd = false;
};

/// Leaves the process group in a child, connects once the test opens `fifo`, and hangs up at once.
/// The test sees from the end of the FIFO's reader that the connection has been made and left.
void connectAndHangUpWhenTold(const std::string& pipeName, const std::string& fifo)
{
    if (fork() != 0)
        hangForEver();
    setsid();
    std::ifstream told(fifo);
    told.get();
    const MisbehavingWorker late(pipeName, {}, "");
}

/// Stays in the process group and connects once the test opens `fifo`, which a killed one never
/// does.
void waitToBeTold(const std::string& fifo)
{
    std::ifstream told(fifo);
    told.get();
}

/// Comes back when a reader is there.
void tell(const std::string& fifo)
{
    close(open(fifo.c_str(), O_WRONLY | O_CLOEXEC));
}

void work(nq::nqWorker& worker)
{
    while (!worker.hasFinished() || worker.isSending())
        worker.processWorker(stepMs);
}

void workAndLinger(nq::nqWorker& worker)
{
    try {
        work(worker);
    } catch (const std::exception&) {
        poll(nullptr, 0, lingerMs);
    }
}

std::string optionValue(const std::vector<std::string>& arguments, const std::string& option)
{
    for (const std::string& argument : arguments)
        if (argument.compare(0, option.size(), option) == 0)
            return argument.substr(option.size());
    return "";
}

bool isOption(const std::string& argument)
{
    return argument.empty() || argument.front() == '-';
}

} // namespace

int main(int argc, char** argv)
{
    std::string descriptors;
    for (const int fd : common::openDescriptorNumbers())
        descriptors += (descriptors.empty() ? "" : " ") + std::to_string(fd);
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const auto pipeName = std::find_if_not(arguments.begin(), arguments.end(), isOption);
    if (pipeName == arguments.end() || has(arguments, "--exit-at-once"))
        return EXIT_FAILURE;
    if (has(arguments, "--never-connect"))
        hangForEver();
    if (const std::string fifo = optionValue(arguments, "--hang-up-when-told="); !fifo.empty()) {
        connectAndHangUpWhenTold(*pipeName, fifo);
        return EXIT_SUCCESS;
    }
    if (const std::string fifo = optionValue(arguments, "--connect-when-told="); !fifo.empty())
        waitToBeTold(fifo);

    if (has(arguments, "--static")) {
        static MisbehavingWorker worker(*pipeName, arguments, descriptors);
        work(worker);
        return EXIT_SUCCESS;
    }
    MisbehavingWorker worker(*pipeName, arguments, descriptors);
    if (const std::string fifo = optionValue(arguments, "--tell-when-connected="); !fifo.empty())
        tell(fifo);
    if (has(arguments, "--linger-after-an-exception"))
        workAndLinger(worker);
    else
        work(worker);
    return EXIT_SUCCESS;
}
