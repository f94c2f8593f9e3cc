#include "pool/include/nqPoolWorker.h"

#include "include/nqWorker.h"
#include "pool/include/nqPool.h"
#include "pool/nqEnvelope.h"
#include "pool/nqExceptionText.h"
#include "pool/nqOwnProgram.h"
#include "pool/nqWorkFailure.h"
#include "pool/nqWorkerStart.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <unistd.h>

// From the command line of a worker to its end:
// - it makes sure that it is the program file that the pool means;
// - it enters the host's folder and connects;
// - the pool's first message makes the work, the others are jobs, the last one ends the work.
// An exception of the work is an answer. Any other ends the process with its text on standard
// error: the pool then still has the job's bytes.

namespace nq {

namespace {

constexpr int failed = 1;     // the work, or what it needs of the machine
constexpr int misstarted = 2; // by hand, or with a file that cannot be read

constexpr int stepMs = 1'000; // after so long without a message, spare memory is given back

// What fits into a message of the scheduler.
constexpr std::size_t longestMessage = std::numeric_limits<std::int32_t>::max();

std::string lastError()
{
    return std::generic_category().message(errno);
}

void complain(const char* program, const std::string& text)
{
    const std::string line = std::string(program) + ": " + text + '\n';
    std::fputs(line.c_str(), stderr);
}

class PoolWorker : public nqWorker {
public:
    PoolWorker(const std::string& pipe, const std::string& tag, const nqMakeWork& make)
        : nqWorker(pipe),
          mEnvelope(tag),
          mMake(make)
    {
    }

    void processJob(std::vector<char>& message, std::vector<char>& answer) override
    {
        std::string_view job;
        switch (mEnvelope.read({message.data(), message.size()}, job)) {
        case nqEnvelope::Message::Initialise:
            initialise();
            answer = mEnvelope.initialised();
            return;
        case nqEnvelope::Message::Job:
            run(job, answer);
            return;
        case nqEnvelope::Message::Leave:
            mWork = nullptr;
            answer = mEnvelope.left();
            setFinished(true);
            return;
        case nqEnvelope::Message::Unknown:
            break;
        }
        throw std::runtime_error("a message of the pool makes no sense; are pool and worker built "
                                 "with the same version of the library?");
    }

private:
    void initialise()
    {
        if (const auto text = exceptionOf([&] { mWork = mMake(); }))
            throw std::runtime_error("the worker cannot be initialised: " + *text);
    }

    void run(std::string_view job, std::vector<char>& answer)
    {
        const auto failure = failureOf([&] {
            mWork(job, answer);
            if (answer.size() > longestMessage)
                throw std::length_error(
                    "the result has " + std::to_string(answer.size()) + " bytes; at most " +
                    std::to_string(longestMessage) + " can be sent");
        });
        if (!failure) {
            mEnvelope.wrapResult(answer);
            return;
        }
        std::vector<char>().swap(answer); // memory may be what the work has run out of
        answer = mEnvelope.exception(*failure, job);
        if (answer.size() > longestMessage)
            throw std::length_error(failure->message);
    }

    const nqEnvelope mEnvelope;
    const nqMakeWork& mMake;
    nqWork mWork; // empty until the pool asks for it
};

std::string ofHost(const nqWorkerStart& start, const std::string& name)
{
    return "/proc/" + std::to_string(start.host) + name;
}

// Otherwise somebody has copied its command line, or a program stands between it and the host.
bool isChildOf(const nqWorkerStart& start)
{
    return ::getppid() == start.host;
}

// Starts the file that the host holds open, if this process runs another one. Without the file on
// the new command line, it is not looked at again. Returns why that is not possible.
std::string becomeTheProgram(const nqWorkerStart& start, int argc, char* argv[])
{
    if (!start.program || nqOwnExecutable().identity() == start.program->identity)
        return {};
    const std::string path = ofHost(start, "/fd/" + std::to_string(start.program->descriptor));
    if (nqFileIdentity::of(path) != start.program->identity)
        return "the program of the host has been replaced, and the host no longer holds it open";
    nqWorkerStart unconditional = start;
    unconditional.program.reset();
    std::string argument = unconditional.argument();
    std::vector<char*> arguments(argv, argv + argc + 1);
    arguments[static_cast<std::size_t>(argc) - 2] = argument.data();
    ::execv(path.c_str(), arguments.data());
    return "the program of the host has been replaced, and cannot be started from " + path + ": " +
           lastError();
}

std::string enterTheHostsFolder(const nqWorkerStart& start)
{
    const std::string folder = ofHost(start, "/cwd");
    if (::chdir(folder.c_str()) == 0)
        return {};
    return "the host's folder cannot be entered through " + folder + ": " + lastError();
}

std::string howToRunAJob(const char* program)
{
    return std::string("to run the job in a file: ") + program + " --job FILE";
}

// The pool knows by now that this worker is over, and need not read any more. A pipe takes so much
// in any case.
constexpr std::size_t longestLastWords = 4096;

// The exit status.
int giveUp(const nqWorkerStart& start, const char* program, const std::string& problem)
{
    if (isChildOf(start)) {
        complain(program, problem);
        return failed;
    }
    complain(program, problem + "; a pool starts its workers itself; " + howToRunAJob(program));
    return misstarted;
}

int work(PoolWorker& worker, const nqWorkerStart& start, const char* program)
{
    worker.processWorker(0);
    // A pool that stops at once leaves its last worker no time, which is nothing to complain about.
    if (worker.hasFinished() && !isChildOf(start))
        return giveUp(start, program, "no pool listens for this worker");
    while (!worker.hasFinished() || worker.isSending())
        worker.processWorker(stepMs);
    return EXIT_SUCCESS;
}

int serve(int argc, char* argv[], const nqMakeWork& make)
{
    const char* const program = argv[0];
    const std::optional<nqWorkerStart> start = nqWorkerStart::read(argc, argv);
    if (!start) {
        complain(program, "arguments of a worker that no pool has made; " + howToRunAJob(program));
        return misstarted;
    }
    std::string problem = becomeTheProgram(*start, argc, argv);
    if (problem.empty())
        problem = enterTheHostsFolder(*start);
    if (!problem.empty())
        return giveUp(*start, program, problem);
    int status = failed;
    const auto text = exceptionOf([&] {
        PoolWorker worker(argv[argc - 1], start->tag, make);
        status = work(worker, *start, program);
    });
    if (!text)
        return status;
    complain(program, text->substr(0, longestLastWords));
    return failed;
}

// Nothing, with errno, when it cannot be read.
std::optional<std::vector<char>> contentOf(const char* path)
{
    const std::unique_ptr<std::FILE, decltype(&std::fclose)> file(
        std::fopen(path, "rbe"), &std::fclose);
    if (!file)
        return std::nullopt;
    std::vector<char> content;
    char part[1 << 16];
    while (const std::size_t count = std::fread(part, 1, sizeof part, file.get()))
        content.insert(content.end(), part, part + count);
    if (std::ferror(file.get()) != 0)
        return std::nullopt;
    return content;
}

bool print(const std::vector<char>& result)
{
    const bool isWhole = result.empty() || // which has no address
                         std::fwrite(result.data(), result.size(), 1, stdout) == 1;
    return isWhole && std::fflush(stdout) == 0;
}

// Nothing stands between the job and a debugger: no fork, no limit.
int runFile(const char* program, const char* path, const nqMakeWork& make)
{
    const std::optional<std::vector<char>> job = contentOf(path);
    if (!job) {
        complain(program, std::string("the job in ") + path + " cannot be read: " + lastError());
        return misstarted;
    }
    std::vector<char> result;
    if (const auto text = exceptionOf([&] { make()({job->data(), job->size()}, result); })) {
        complain(program, *text);
        return failed;
    }
    if (!print(result)) {
        complain(program, "the result cannot be written: " + lastError());
        return misstarted;
    }
    return EXIT_SUCCESS;
}

// Nothing when the command line is neither that of a worker nor that of a job.
std::optional<int> runIfWorker(int argc, char* argv[], const nqMakeWork& make)
{
    const bool isWorker = nqWorkerStart::isOne(argc, argv);
    const bool isJob = argc == 3 && std::strcmp(argv[1], "--job") == 0;
    if (!isWorker && !isJob)
        return std::nullopt;
    nqOwnProgram::enterWorker();
    return isWorker ? serve(argc, argv, make) : runFile(argv[0], argv[2], make);
}

} // namespace

void runAsWorkerMade(int argc, char* argv[], nqMakeWork make)
{
    if (const std::optional<int> status = runIfWorker(argc, argv, make))
        std::exit(*status);
    nqOwnProgram::note(std::move(make));
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): declared as the one before, which keeps it
int runWorkerMade(int argc, char* argv[], nqMakeWork make)
{
    if (const std::optional<int> status = runIfWorker(argc, argv, make))
        return *status;
    const char* const program = argc > 0 ? argv[0] : "this";
    complain(
        program,
        "a worker program, which a pool starts; name it in nqPoolOptions::worker; " +
            howToRunAJob(program));
    return misstarted;
}

} // namespace nq
