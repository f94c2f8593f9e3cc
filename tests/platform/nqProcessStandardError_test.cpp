#include "tests/common/descriptors.h"
#include "tests/common/waiting.h"
#include "tests/platform/process_helpers.h"

#include <fcntl.h>
#include <string>

namespace {

using namespace nq::test;
using common::Descriptor;
using nq::nqProcess;

class ProcessStandardError : public ProcessTest {
protected:
    /// A shell that runs `script` and prints into a pipe of its own.
    static bool startCaptured(nqProcess& process, const std::string& script)
    {
        process.captureStandardError();
        return process.startProcess("/bin/sh", {"-c", script}, true, nqProcess::InheritedPriority);
    }

    static Descriptor take(nqProcess& process)
    {
        return Descriptor(process.takeStandardError().release());
    }

    /// All that comes until nobody is left who could print.
    static std::string readToTheEnd(const Descriptor& end)
    {
        std::string text;
        char bytes[4096];
        while (common::becomesReadable(end.get())) {
            const ssize_t count = ::read(end.get(), bytes, sizeof bytes);
            if (count <= 0)
                return text;
            text.append(bytes, static_cast<std::size_t>(count));
        }
        return text + " (and no end)";
    }
};

} // namespace

TEST_F(ProcessStandardError, isReadByTheHost)
{
    nqProcess process;
    ASSERT_TRUE(startCaptured(process, "echo output; echo error >&2"));
    EXPECT_EQ(readToTheEnd(take(process)), "error\n");
    EXPECT_TRUE(process.waitForFinished(nqProcess::withoutLimit));
}

TEST_F(ProcessStandardError, isThereAfterTheEndOfTheProcessAndItsObject)
{
    Descriptor end;
    {
        nqProcess process;
        ASSERT_TRUE(startCaptured(process, "echo last words >&2"));
        end = take(process);
        EXPECT_TRUE(process.waitForFinished(nqProcess::withoutLimit));
    }
    EXPECT_EQ(readToTheEnd(end), "last words\n");
}

TEST_F(ProcessStandardError, isNoneWithoutBeingCaptured)
{
    nqProcess process;
    ASSERT_TRUE(
        process.startProcess("/bin/sh", {"-c", "exit"}, true, nqProcess::InheritedPriority));
    EXPECT_EQ(process.takeStandardError().get(), -1);
    EXPECT_TRUE(process.waitForFinished(nqProcess::withoutLimit));
}

TEST_F(ProcessStandardError, isTakenOnce)
{
    nqProcess process;
    ASSERT_TRUE(startCaptured(process, "exit"));
    const Descriptor end = take(process);
    EXPECT_NE(end.get(), -1);
    EXPECT_EQ(process.takeStandardError().get(), -1);
    EXPECT_TRUE(process.waitForFinished(nqProcess::withoutLimit));
}

TEST_F(ProcessStandardError, isClosedWithTheObjectWhenNobodyTakesIt)
{
    nqProcess process;
    ASSERT_TRUE(startCaptured(process, "exit"));
    EXPECT_TRUE(process.waitForFinished(nqProcess::withoutLimit));
}

TEST_F(ProcessStandardError, isNoneOfAProgramThatCouldNotBeStarted)
{
    nqProcess process;
    process.captureStandardError();
    EXPECT_FALSE(process.startProcess("/no/such/program", {}, true, nqProcess::InheritedPriority));
    EXPECT_EQ(process.takeStandardError().get(), -1);
}

TEST_F(ProcessStandardError, doesNotBlockTheHostAndIsCloseOnExec)
{
    nqProcess process;
    ASSERT_TRUE(startCaptured(process, "exec sleep 1000"));
    const Descriptor end = take(process);
    EXPECT_TRUE(::fcntl(end.get(), F_GETFD) & FD_CLOEXEC);
    char byte = 0;
    EXPECT_EQ(::read(end.get(), &byte, 1), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(ProcessStandardError, blocksTheProcessThatPrintsMoreThanTheKernelHolds)
{
    constexpr std::size_t bytes = std::size_t{1} << 20;
    nqProcess process;
    ASSERT_TRUE(startCaptured(process, "head -c 1048576 /dev/zero >&2"));
    const Descriptor end = take(process);
    EXPECT_EQ(readToTheEnd(end).size(), bytes) << "not a byte is refused";
    EXPECT_TRUE(process.waitForFinished(nqProcess::withoutLimit));
}

TEST_F(ProcessStandardError, isNotHeldByAnotherProcess)
{
    nqProcess first;
    ASSERT_TRUE(startCaptured(first, "echo first >&2; read nothing"));
    nqProcess second;
    ASSERT_TRUE(startCaptured(second, "echo second >&2; kill -STOP $$"));
    const Descriptor endOfFirst = take(first);
    EXPECT_EQ(readToTheEnd(endOfFirst), "first\n");
    // A process that has just been started may still be closing what it does not inherit.
    const Descriptor end = take(second);
    ASSERT_TRUE(common::becomesReadable(end.get()));
    EXPECT_EQ(second.getState(), nqProcess::Running);
    const std::string pipe = common::openDescriptors().at(endOfFirst.get());
    for (const auto& [number, target] :
         common::openDescriptors(static_cast<pid_t>(second.getPid())))
        EXPECT_NE(target, pipe) << number;
    EXPECT_TRUE(first.waitForFinished(nqProcess::withoutLimit));
}

TEST_F(ProcessStandardError, leavesTheRangeOfSelectToOthers)
{
    constexpr rlim_t enoughDescriptors = FD_SETSIZE + 64;
    const common::DescriptorLimit limit;
    if (!limit.set(enoughDescriptors))
        GTEST_SKIP() << "the hard limit of descriptors is below " << enoughDescriptors;
    nqProcess process;
    ASSERT_TRUE(startCaptured(process, "exit"));
    EXPECT_GE(take(process).get(), FD_SETSIZE);
    EXPECT_TRUE(process.waitForFinished(nqProcess::withoutLimit));
}
