#include "nqOwnerProcess.h"
#include "nqProcess.h"

#include "pipe_helpers.h"

#include <optional>
#include <thread>

using namespace pipe_test;
using nq::nqNamedPipe;
using nq::nqNamedPipeServer;
using nq::nqOwnerProcess;
using nq::nqProcess;

namespace {

/// The exit status of a child that this way of forking makes.
template <typename Body>
int exitStatusOf(pid_t (*fork)(), Body body)
{
    const pid_t child = fork();
    if (child == 0)
        ::_exit(body());
    return common::waitForExitCode(child);
}

/// Both ways to fork: one that runs the handlers which libraries register, and one that skips them.
class InAForkedChild : public LeavesNothingBehind, public testing::WithParamInterface<pid_t (*)()> {
protected:
    template <typename Body>
    int exitStatusOfChild(Body body)
    {
        return exitStatusOf(GetParam(), body);
    }
};

INSTANTIATE_TEST_SUITE_P(, InAForkedChild, testing::Values(&::fork, &::_Fork), [](const auto& way) {
    return way.param == &::fork ? "fork" : "forkWithoutHandlers";
});

/// Two ends of one connection.
struct Connection {
    Connection()
    {
        nqNamedPipeServer server;
        const std::string name = freshName();
        mEnd.emplace();
        if (server.listenUtf8(name) && mEnd->connectToNamedPipeServerUtf8(name))
            mOtherEnd = acceptOne(server);
    }

    std::optional<nqNamedPipe> mEnd;
    std::unique_ptr<nqNamedPipe> mOtherEnd;
};

} // namespace

TEST(OwnerProcess, isTheOneThatMadeTheObject)
{
    const nqOwnerProcess owner;
    EXPECT_TRUE(owner.isThisProcess());
}

TEST(OwnerProcess, isTheSameForAllThreads)
{
    const nqOwnerProcess owner;
    bool isSame = false;
    std::thread([&] { isSame = owner.isThisProcess() && nqOwnerProcess().isThisProcess(); }).join();
    EXPECT_TRUE(isSame);
}

TEST_P(InAForkedChild, anObjectOfTheParentBelongsToTheParent)
{
    const nqOwnerProcess owner;
    EXPECT_EQ(exitStatusOfChild([&] { return owner.isThisProcess() ? 1 : 0; }), 0);
    EXPECT_TRUE(owner.isThisProcess());
}

TEST_P(InAForkedChild, anObjectOfItsOwnBelongsToIt)
{
    EXPECT_EQ(exitStatusOfChild([] { return nqOwnerProcess().isThisProcess() ? 0 : 1; }), 0);
}

TEST_P(InAForkedChild, noObjectOfAnAncestorBelongsToItsChild)
{
    const nqOwnerProcess owner;
    const auto ownerOfChild = [&] {
        const nqOwnerProcess inBetween;
        return exitStatusOfChild([&] {
            const nqOwnerProcess own;
            const bool isAnyForeign = owner.isThisProcess() || inBetween.isThisProcess();
            return own.isThisProcess() && !isAnyForeign ? 0 : 1;
        });
    };
    EXPECT_EQ(exitStatusOfChild(ownerOfChild), 0);
}

TEST_P(InAForkedChild, aPipeOfTheParentMovesNothing)
{
    Connection connection;
    append(connection.mEnd->outgoingBuffer(), "once");
    const auto pump = [&] {
        connection.mEnd->processNamedPipeEvents(0, false);
        return connection.mEnd->isConnected() ? 1 : 0;
    };
    EXPECT_EQ(exitStatusOfChild(pump), 0);
    connection.mEnd->processNamedPipeEvents(0, false);
    connection.mOtherEnd->processNamedPipeEvents(ampleMs, true);
    EXPECT_EQ(takeAll(*connection.mOtherEnd), "once");
}

TEST_P(InAForkedChild, theEndOfAPipeOfTheParentLeavesItsConnectionAlone)
{
    Connection connection;
    const auto end = [&] {
        connection.mEnd.reset();
        connection.mOtherEnd.reset();
        return 0;
    };
    EXPECT_EQ(exitStatusOfChild(end), 0);
    append(connection.mEnd->outgoingBuffer(), "alive");
    connection.mEnd->processNamedPipeEvents(0, false);
    connection.mOtherEnd->processNamedPipeEvents(ampleMs, true);
    EXPECT_EQ(takeAll(*connection.mOtherEnd), "alive");
}

TEST_P(InAForkedChild, aPipeOfTheParentDoesNotConnect)
{
    nqNamedPipeServer server;
    const std::string name = freshName();
    ASSERT_TRUE(server.listenUtf8(name));
    nqNamedPipe pipe;
    const auto connect = [&] { return pipe.connectToNamedPipeServerUtf8(name) ? 1 : 0; };
    EXPECT_EQ(exitStatusOfChild(connect), 0);
}

TEST_P(InAForkedChild, aPipeOfItsOwnWorks)
{
    nqNamedPipeServer server;
    const std::string name = freshName();
    ASSERT_TRUE(server.listenUtf8(name));
    const auto connect = [&] {
        nqNamedPipe pipe;
        append(pipe.outgoingBuffer(), "lost at the connection");
        if (!pipe.connectToNamedPipeServerUtf8(name))
            return 1;
        append(pipe.outgoingBuffer(), "hello");
        pipe.processNamedPipeEvents(0, false);
        return 0;
    };
    EXPECT_EQ(exitStatusOfChild(connect), 0);
    const auto taken = acceptOne(server);
    ASSERT_NE(taken, nullptr);
    taken->processNamedPipeEvents(ampleMs, true);
    EXPECT_EQ(takeAll(*taken), "hello");
}

TEST_P(InAForkedChild, theEndOfAServerOfTheParentLeavesItListening)
{
    std::optional<nqNamedPipeServer> server(std::in_place);
    const std::string name = freshName();
    ASSERT_TRUE(server->listenUtf8(name));
    const auto end = [&] {
        server.reset();
        return 0;
    };
    EXPECT_EQ(exitStatusOfChild(end), 0);
    nqNamedPipe client;
    EXPECT_TRUE(client.connectToNamedPipeServerUtf8(name));
    EXPECT_NE(acceptOne(*server), nullptr);
}

TEST_P(InAForkedChild, aServerOfTheParentNeitherListensNorAccepts)
{
    nqNamedPipeServer server;
    nqNamedPipeServer idle;
    const std::string name = freshName();
    ASSERT_TRUE(server.listenUtf8(name));
    nqNamedPipe client;
    ASSERT_TRUE(client.connectToNamedPipeServerUtf8(name));
    const std::string otherName = freshName();
    const auto use = [&] {
        return server.waitForNewConnection(0, nullptr) || idle.listenUtf8(otherName) ? 1 : 0;
    };
    EXPECT_EQ(exitStatusOfChild(use), 0);
    EXPECT_NE(acceptOne(server), nullptr);
}

TEST_P(InAForkedChild, theEndOfAProcessObjectOfTheParentKillsNobody)
{
    std::optional<nqProcess> process(std::in_place);
    ASSERT_TRUE(process->startProcess(
        "/bin/sh", {"-c", "kill -STOP $$"}, true, nqProcess::InheritedPriority));
    const auto end = [&] {
        process->killProcess();
        process.reset();
        return 0;
    };
    EXPECT_EQ(exitStatusOfChild(end), 0);
    EXPECT_EQ(process->getState(), nqProcess::Running);
    siginfo_t state{};
    const auto pid = static_cast<id_t>(process->getPid());
    EXPECT_EQ(::waitid(P_PID, pid, &state, WSTOPPED | WEXITED | WNOWAIT), 0);
    EXPECT_EQ(state.si_code, CLD_STOPPED) << "it goes on as it was told";
}

TEST_P(InAForkedChild, aProcessObjectOfTheParentStandsForNobody)
{
    nqProcess process;
    ASSERT_TRUE(process.startProcess(
        "/bin/sh", {"-c", "kill -STOP $$"}, true, nqProcess::InheritedPriority));
    const auto ask = [&] {
        return process.getState() == nqProcess::Ended && process.waitForFinished(0xFFFFFFFF) &&
                       !process.setWorkingSetMaxSize(1)
                   ? 0
                   : 1;
    };
    EXPECT_EQ(exitStatusOfChild(ask), 0);
    EXPECT_EQ(process.getState(), nqProcess::Running);
}

TEST_P(InAForkedChild, aProcessObjectOfTheParentStartsNothing)
{
    nqProcess process;
    const auto start = [&] {
        return process.startProcess("/bin/true", {}, true, nqProcess::InheritedPriority) ? 1 : 0;
    };
    EXPECT_EQ(exitStatusOfChild(start), 0);
}
