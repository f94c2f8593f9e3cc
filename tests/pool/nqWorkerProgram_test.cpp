#include "pool/nqWorkerProgram.h"

#include "pool/include/nqPool.h"
#include "pool/nqOwnProgram.h"
#include "tests/common/descriptors.h"
#include "tests/common/files.h"
#include "tests/common/processes.h"
#include "tests/common/waiting.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using common::TemporaryFolder;
using nq::nqOwnProgram;
using nq::nqPoolOptions;
using nq::nqWorkerProgram;

/// What `story` tells from a forked child: what a program has noted about itself is noted for good.
std::string toldByAChild(const std::function<std::string()>& story)
{
    int ends[2];
    if (::pipe(ends) != 0)
        return "(no pipe)";
    common::Descriptor reader(ends[0]);
    common::Descriptor writer(ends[1]);
    common::Child child([&] {
        const std::string told = story();
        return ::write(writer.get(), told.data(), told.size()) == static_cast<ssize_t>(told.size())
                   ? 0
                   : 1;
    });
    writer.close();
    std::string told = common::readAll(reader.get());
    EXPECT_EQ(child.wait(), 0);
    return told;
}

std::string refusalOf(const nqPoolOptions& options)
{
    try {
        const nqWorkerProgram program(options);
        return "(none)";
    } catch (const nq::nqPoolError& refusal) {
        return refusal.what();
    }
}

bool isIn(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

nqPoolOptions optionsFor(const std::string& worker)
{
    nqPoolOptions options;
    options.worker = worker;
    return options;
}

std::string ownPath()
{
    return std::filesystem::read_symlink("/proc/self/exe").string();
}

/// As runAsWorker() does.
void noteEchoingWork()
{
    nqOwnProgram::note([] {
        return [](std::string_view job, std::vector<char>& result) {
            result.assign(job.begin(), job.end());
        };
    });
}

/// Without a program's file.
std::string optionOf(const nqWorkerProgram& program)
{
    return "--nq-pool-worker=" + program.tag() + ":" + std::to_string(::getpid());
}

class WorkerProgram : public testing::Test {
protected:
    TemporaryFolder mFolder;
    const std::string mWorker = mFolder.addScript("worker", "exit 0");
};

TEST_F(WorkerProgram, isTheOneThatIsNamed)
{
    EXPECT_EQ(nqWorkerProgram(optionsFor(mWorker)).path(), mWorker);
}

TEST_F(WorkerProgram, countsARelativePathFromTheFolderOfTheHostNow)
{
    const common::CurrentFolder inside(mFolder.path());
    const nqWorkerProgram program(optionsFor("./worker"));
    const common::CurrentFolder outside("/");
    EXPECT_TRUE(std::filesystem::equivalent(program.path(), mWorker));
}

TEST_F(WorkerProgram, getsTheTagBehindTheHostsArguments)
{
    nqPoolOptions options = optionsFor(mWorker);
    options.arguments = {"--fast", "7"};
    const nqWorkerProgram program(options);
    EXPECT_TRUE(program.isEnveloped());
    ASSERT_EQ(program.arguments().size(), 3U);
    EXPECT_EQ(program.arguments()[0], "--fast");
    EXPECT_EQ(program.arguments()[1], "7");
    EXPECT_EQ(program.arguments()[2], optionOf(program));
}

TEST_F(WorkerProgram, getsATagOfItsOwn)
{
    const nqPoolOptions options = optionsFor(mWorker);
    EXPECT_NE(nqWorkerProgram(options).tag(), nqWorkerProgram(options).tag());
}

TEST_F(WorkerProgram, getsNothingButTheHostsArgumentsWhenItIsPlain)
{
    nqPoolOptions options = optionsFor(mWorker);
    options.plainWorker = true;
    options.arguments = {"--fast"};
    const nqWorkerProgram program(options);
    EXPECT_FALSE(program.isEnveloped());
    EXPECT_EQ(program.arguments(), std::vector<std::string>{"--fast"});
}

TEST_F(WorkerProgram, isRefusedWhenItIsMissing)
{
    const std::string missing = mFolder.file("missing");
    EXPECT_EQ(
        refusalOf(optionsFor(missing)),
        "The worker program " + missing +
            " cannot be used: No such file or directory; give its path; a "
            "name alone is looked for in the current folder, not in PATH");
}

TEST_F(WorkerProgram, isRefusedWhenItIsAFolder)
{
    EXPECT_EQ(
        refusalOf(optionsFor(mFolder.path())),
        "The worker program " + mFolder.path() +
            " cannot be used: it is a folder; give the path of the program in it");
}

TEST_F(WorkerProgram, isRefusedWhenItIsNoFileOfBytes)
{
    const std::string fifo = mFolder.addFifo("fifo");
    EXPECT_EQ(
        refusalOf(optionsFor(fifo)),
        "The worker program " + fifo +
            " cannot be used: it is no regular file; give the path of a program");
}

TEST_F(WorkerProgram, isRefusedWhenItMayNotBeExecuted)
{
    const std::string file = mFolder.addFile("text", "text", 0644);
    EXPECT_EQ(
        refusalOf(optionsFor(file)),
        "The worker program " + file +
            " cannot be used: Permission denied; give it execute permission, as chmod +x does");
}

TEST_F(WorkerProgram, hasToBeNamedWhenItIsPlain)
{
    nqPoolOptions options;
    options.plainWorker = true;
    EXPECT_EQ(
        refusalOf(options),
        "nqPoolOptions::plainWorker is for another program than this one; name it in "
        "nqPoolOptions::worker");
}

TEST(OwnProgramAsWorker, isRefusedBeforeRunAsWorker)
{
    EXPECT_EQ(
        refusalOf({}),
        "This program cannot be its own worker: it has not called nq::runAsWorker(); call that at "
        "the beginning of main(), or name another program in nqPoolOptions::worker");
}

TEST(OwnProgramAsWorker, isRefusedByItsPathToo)
{
    const std::string refusal =
        "The worker program " + ownPath() +
        " cannot be used: it is this program itself, and nothing tells a worker from the host; "
        "call nq::runAsWorker() at the beginning of main(), or give the worker arguments in "
        "nqPoolOptions::arguments";
    nqPoolOptions options = optionsFor(ownPath());
    EXPECT_EQ(refusalOf(options), refusal);
    options.plainWorker = true;
    EXPECT_EQ(refusalOf(options), refusal);
}

TEST(OwnProgramAsWorker, isAnotherProgramWhenAnArgumentTellsIt)
{
    nqPoolOptions options = optionsFor(ownPath());
    options.arguments = {"--be-a-worker"};
    const nqWorkerProgram program(options);
    EXPECT_EQ(program.path(), ownPath());
    EXPECT_EQ(program.arguments()[0], "--be-a-worker");
}

TEST(OwnProgramAsWorker, isStartedByItsPath)
{
    EXPECT_EQ(
        toldByAChild([] {
            noteEchoingWork();
            return nqWorkerProgram({}).path();
        }),
        ownPath());
}

TEST(OwnProgramAsWorker, isToldWhichFileItIs)
{
    const auto file = nq::nqFileIdentity::of(ownPath());
    ASSERT_TRUE(file);
    const std::string told = toldByAChild([] {
        noteEchoingWork();
        const nqWorkerProgram program({});
        const std::string option = optionOf(program);
        const std::string argument = program.arguments().at(0);
        return isIn(argument, option) ? argument.substr(option.size()) : argument;
    });
    const std::string identity =
        ":" + std::to_string(file->device) + ":" + std::to_string(file->inode) + ":";
    EXPECT_EQ(told.substr(0, identity.size()), identity);
}

TEST(OwnProgramAsWorker, mayBeNamedByItsPath)
{
    EXPECT_EQ(
        toldByAChild([] {
            noteEchoingWork();
            const nqWorkerProgram program(optionsFor(ownPath()));
            return program.arguments().at(0) == optionOf(program) ? "another" : "own";
        }),
        "own");
}

TEST(OwnProgramAsWorker, isNotHandedDownToPrograms)
{
    EXPECT_EQ(
        toldByAChild([] {
            noteEchoingWork();
            const int flags = ::fcntl(nqOwnProgram::noted()->executable.descriptor(), F_GETFD);
            return std::to_string(flags);
        }),
        std::to_string(FD_CLOEXEC));
}

TEST(OwnProgramAsWorker, leavesTheStandardStreamsAlone)
{
    EXPECT_EQ(
        toldByAChild([] {
            ::close(STDIN_FILENO);
            noteEchoingWork();
            return std::string(::fcntl(STDIN_FILENO, F_GETFD) == -1 ? "closed" : "taken");
        }),
        "closed");
}

TEST(OwnProgramAsWorker, keepsItsPathWhenItsDescriptorHasBeenClosed)
{
    EXPECT_EQ(
        toldByAChild([] {
            noteEchoingWork();
            ::close(nqOwnProgram::noted()->executable.descriptor());
            return nqWorkerProgram({}).path();
        }),
        ownPath());
}

TEST(OwnProgramAsWorker, isRefusedInsideAWorker)
{
    EXPECT_EQ(
        toldByAChild([] {
            noteEchoingWork();
            nqOwnProgram::enterWorker();
            return refusalOf({});
        }),
        "This program cannot be its own worker: it runs as a worker itself; make pools in the host "
        "alone, or name another program in nqPoolOptions::worker");
}

TEST(OwnProgramAsWorker, takesNoArguments)
{
    EXPECT_EQ(
        toldByAChild([] {
            noteEchoingWork();
            nqPoolOptions options;
            options.arguments = {"--fast"};
            return refusalOf(options);
        }),
        "nqPoolOptions::arguments are for another program than this one; leave them empty, or name "
        "a program in nqPoolOptions::worker");
}

TEST(OwnProgramAsWorker, isRefusedWithoutProc)
{
    constexpr const char* notPossible = "(not possible)";
    const std::string told = toldByAChild([&]() -> std::string {
        if (::unshare(CLONE_NEWNS) != 0 ||
            ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("none", "/proc", "tmpfs", 0, nullptr) != 0)
            return notPossible;
        noteEchoingWork();
        return refusalOf({});
    });
    if (told == notPossible)
        GTEST_SKIP() << "may not hide /proc";
    EXPECT_EQ(
        told,
        "This program cannot be its own worker: its executable cannot be found, /proc/self/exe: No "
        "such file or directory; see to it that /proc is there, or name another program in "
        "nqPoolOptions::worker");
}

TEST(WorkInProcess, isThatOfRunAsWorker)
{
    EXPECT_EQ(
        toldByAChild([] {
            noteEchoingWork();
            nqPoolOptions options;
            options.inProcess = true;
            std::vector<char> result;
            nqWorkerProgram(options).ownWork()()("echo", result);
            return std::string(result.begin(), result.end());
        }),
        "echo");
}

TEST(WorkInProcess, isRefusedBeforeRunAsWorker)
{
    nqPoolOptions options;
    options.inProcess = true;
    EXPECT_EQ(
        refusalOf(options),
        "nqPoolOptions::inProcess needs the work of this program; call nq::runAsWorker() at the "
        "beginning of main()");
}

} // namespace
