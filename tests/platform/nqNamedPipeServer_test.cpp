#include "nqNamedPipeServer.h"

#include "pipe_helpers.h"

#include <fstream>

using namespace pipe_test;
using nq::nqNamedPipe;
using nq::nqNamedPipeServer;

namespace {

class NamedPipeServer : public LeavesNothingBehind {};

// A server that listens, and under which name.
struct ListeningServer {
    ListeningServer()
    {
        EXPECT_TRUE(mServer.listenUtf8(mName));
    }

    std::string mName = freshName();
    nqNamedPipeServer mServer;
};

bool canConnectTo(const std::string& name)
{
    return rawConnect(rawSocket(), name);
}

// Greets with one byte, by which the other side knows who has connected.
void connectAndSay(nqNamedPipe& pipe, const std::string& name, const std::string& greeting)
{
    ASSERT_TRUE(pipe.connectToNamedPipeServerUtf8(name));
    append(pipe.outgoingBuffer(), greeting);
    pipe.processNamedPipeEvents(0, false);
}

std::string greetingOf(nqNamedPipe& pipe)
{
    pipe.processNamedPipeEvents(0, false);
    return text(pipe.incomingBuffer());
}

bool kernelLists(const std::string& abstractName)
{
    std::ifstream sockets("/proc/net/unix");
    for (std::string line; std::getline(sockets, line);) {
        if (line.size() > abstractName.size() &&
            line.substr(line.size() - abstractName.size() - 1) == "@" + abstractName)
            return true;
    }
    return false;
}

} // namespace

TEST_F(NamedPipeServer, startsIdle)
{
    nqNamedPipeServer server;
    EXPECT_FALSE(server.hasPendingConnections());
    EXPECT_EQ(server.takePendingConnection(), nullptr);
}

TEST_F(NamedPipeServer, doesNotWaitForConnectionsWhenItIsNotListening)
{
    nqNamedPipeServer server;
    bool timedOut = true;
    const auto start = steady_clock::now();
    EXPECT_FALSE(server.waitForNewConnection(ampleMs, &timedOut));
    EXPECT_LT(elapsedSince(start), milliseconds(ampleMs / 2));
    EXPECT_FALSE(timedOut);
}

TEST_F(NamedPipeServer, refusesAnEmptyNameAndOneThatIsTooLong)
{
    nqNamedPipeServer server;
    EXPECT_FALSE(server.listenUtf8(""));
    std::string name = freshName();
    name.resize(108, 'x');
    EXPECT_FALSE(server.listenUtf8(name));
    name.pop_back();
    EXPECT_TRUE(server.listenUtf8(name));
    EXPECT_TRUE(canConnectTo(name));
}

TEST_F(NamedPipeServer, livesInTheAbstractNamespaceOnly)
{
    const ListeningServer listening;
    EXPECT_TRUE(kernelLists(listening.mName));
    EXPECT_NE(::access(listening.mName.c_str(), F_OK), 0);
}

TEST_F(NamedPipeServer, changesNothingWhenItAlreadyListensUnderThatName)
{
    ListeningServer listening;
    nqNamedPipe taken;
    nqNamedPipe queued;
    connectAndSay(taken, listening.mName, "taken");
    ASSERT_TRUE(listening.mServer.waitForNewConnection(ampleMs, nullptr));
    connectAndSay(queued, listening.mName, "queued");
    EXPECT_TRUE(listening.mServer.listenUtf8(listening.mName));
    EXPECT_EQ(greetingOf(*listening.mServer.takePendingConnection()), "taken");
    EXPECT_EQ(greetingOf(*acceptOne(listening.mServer)), "queued");
}

TEST_F(NamedPipeServer, givesUpTheOldNameForANewOne)
{
    ListeningServer listening;
    const std::string newName = freshName();
    EXPECT_TRUE(listening.mServer.listenUtf8(newName));
    EXPECT_TRUE(canConnectTo(newName));
    EXPECT_FALSE(canConnectTo(listening.mName));
}

TEST_F(NamedPipeServer, stopsListeningWhenTheNewNameIsRefused)
{
    ListeningServer listening;
    EXPECT_FALSE(listening.mServer.listenUtf8(""));
    EXPECT_FALSE(canConnectTo(listening.mName));
}

TEST_F(NamedPipeServer, isRefusedANameThatSomebodyElseHolds)
{
    const ListeningServer other;
    nqNamedPipeServer server;
    const auto start = steady_clock::now();
    EXPECT_FALSE(server.listenUtf8(other.mName));
    EXPECT_LT(elapsedSince(start), milliseconds(1'000)) << "only a name of its own is waited for";
    EXPECT_FALSE(server.waitForNewConnection(0, nullptr));
}

TEST_F(NamedPipeServer, listensAgainUnderTheSameName)
{
    ListeningServer listening;
    for (int restart = 0; restart < 10; ++restart) {
        listening.mServer.closeNamedPipeServer();
        EXPECT_FALSE(canConnectTo(listening.mName));
        ASSERT_TRUE(listening.mServer.listenUtf8(listening.mName));
        EXPECT_TRUE(canConnectTo(listening.mName));
    }
}

// A child on its way to exec holds copies of all descriptors. This one lets go when it sees that
// the server has shut the socket down, thus never before the server listens anew.
TEST_F(NamedPipeServer, listensAgainThoughAForkedChildStillHoldsTheOldSocket)
{
    ListeningServer listening;
    const std::set<int> before = descriptorsAtStart();
    int listener = -1;
    for (const int descriptor : openDescriptorNumbers())
        listener = before.count(descriptor) == 0 ? descriptor : listener;
    Event forked;
    Child child([&] {
        forked.raise();
        pollfd shutDown{listener, 0, 0};
        return ::poll(&shutDown, 1, ampleMs) == 1 && (shutDown.revents & POLLHUP) ? 0 : 1;
    });
    ASSERT_TRUE(forked.await());
    listening.mServer.closeNamedPipeServer();
    EXPECT_TRUE(listening.mServer.listenUtf8(listening.mName));
    EXPECT_TRUE(canConnectTo(listening.mName));
    EXPECT_EQ(child.wait(), 0);
}

TEST_F(NamedPipeServer, givesUpOnItsFormerNameAfterASecond)
{
    ListeningServer listening;
    Event done;
    Child child([&] { return done.await() ? 0 : 1; });
    listening.mServer.closeNamedPipeServer();
    const auto start = steady_clock::now();
    EXPECT_FALSE(listening.mServer.listenUtf8(listening.mName));
    EXPECT_GE(elapsedSince(start), milliseconds(1'000));
    EXPECT_LT(elapsedSince(start), milliseconds(15'000));
    done.raise();
    EXPECT_EQ(child.wait(), 0);
    EXPECT_TRUE(listening.mServer.listenUtf8(listening.mName));
}

TEST_F(NamedPipeServer, leavesNothingStaleWhenItsProcessIsKilled)
{
    const std::string name = freshName();
    Event listening;
    Child host([&] {
        nqNamedPipeServer server;
        if (!server.listenUtf8(name))
            return 1;
        listening.raise();
        ::pause();
        return 0;
    });
    ASSERT_TRUE(listening.await());
    host.kill();
    host.wait();
    nqNamedPipeServer server;
    EXPECT_TRUE(server.listenUtf8(name));
}

TEST_F(NamedPipeServer, handsOutConnectionsInTheOrderInWhichTheyCame)
{
    ListeningServer listening;
    nqNamedPipe first;
    nqNamedPipe second;
    connectAndSay(first, listening.mName, "1");
    connectAndSay(second, listening.mName, "2");
    EXPECT_FALSE(listening.mServer.hasPendingConnections());
    ASSERT_TRUE(listening.mServer.waitForNewConnection(ampleMs, nullptr));
    ASSERT_TRUE(listening.mServer.waitForNewConnection(ampleMs, nullptr));
    EXPECT_TRUE(listening.mServer.hasPendingConnections());
    EXPECT_EQ(greetingOf(*listening.mServer.takePendingConnection()), "1");
    EXPECT_EQ(greetingOf(*listening.mServer.takePendingConnection()), "2");
    EXPECT_FALSE(listening.mServer.hasPendingConnections());
}

TEST_F(NamedPipeServer, waitsForANewConnectionAlsoWhenOneIsPending)
{
    ListeningServer listening;
    nqNamedPipe pipe;
    ASSERT_TRUE(pipe.connectToNamedPipeServerUtf8(listening.mName));
    ASSERT_TRUE(listening.mServer.waitForNewConnection(ampleMs, nullptr));
    EXPECT_FALSE(listening.mServer.waitForNewConnection(0, nullptr));
    EXPECT_TRUE(listening.mServer.hasPendingConnections());
}

TEST_F(NamedPipeServer, takesConnectionsInOnlyWhereTheyAreWaitedFor)
{
    ListeningServer listening;
    nqNamedPipe pipe;
    ASSERT_TRUE(pipe.connectToNamedPipeServerUtf8(listening.mName));
    listening.mServer.processPipeServerEvents(0);
    EXPECT_FALSE(listening.mServer.hasPendingConnections());
    EXPECT_TRUE(listening.mServer.waitForNewConnection(ampleMs, nullptr));
}

TEST_F(NamedPipeServer, acceptsAConnectionThatComesWhileItWaits)
{
    ListeningServer listening;
    Child client([&] {
        nqNamedPipe pipe;
        return pipe.connectToNamedPipeServerUtf8(listening.mName) && pumpUntilClosed(pipe) ? 0 : 1;
    });
    bool timedOut = true;
    EXPECT_TRUE(listening.mServer.waitForNewConnection(ampleMs, &timedOut));
    EXPECT_FALSE(timedOut);
    listening.mServer.closeNamedPipeServer();
    EXPECT_EQ(client.wait(), 0);
}

TEST_F(NamedPipeServer, reportsThatTheTimeRanOut)
{
    ListeningServer listening;
    bool timedOut = false;
    const auto start = steady_clock::now();
    EXPECT_FALSE(listening.mServer.waitForNewConnection(60, &timedOut));
    EXPECT_GE(elapsedSince(start), milliseconds(60));
    EXPECT_TRUE(timedOut);
}

TEST_F(NamedPipeServer, waitsTheWholeTimeInAStormOfSignals)
{
    ListeningServer listening;
    const SignalStorm storm;
    const auto start = steady_clock::now();
    EXPECT_FALSE(listening.mServer.waitForNewConnection(120, nullptr));
    EXPECT_GE(elapsedSince(start), milliseconds(120));
    EXPECT_LT(elapsedSince(start), milliseconds(ampleMs / 2));
}

TEST_F(NamedPipeServer, looksOnceWhenThereIsNoTimeToWait)
{
    ListeningServer listening;
    const auto start = steady_clock::now();
    EXPECT_FALSE(listening.mServer.waitForNewConnection(0, nullptr));
    EXPECT_FALSE(listening.mServer.waitForNewConnection(-1, nullptr));
    EXPECT_LT(elapsedSince(start), milliseconds(ampleMs / 2));
    nqNamedPipe pipe;
    ASSERT_TRUE(pipe.connectToNamedPipeServerUtf8(listening.mName));
    EXPECT_TRUE(listening.mServer.waitForNewConnection(-1, nullptr));
}

TEST_F(NamedPipeServer, closesTheConnectionsThatWereNotTaken)
{
    ListeningServer listening;
    nqNamedPipe accepted;
    nqNamedPipe queued;
    ASSERT_TRUE(accepted.connectToNamedPipeServerUtf8(listening.mName));
    ASSERT_TRUE(listening.mServer.waitForNewConnection(ampleMs, nullptr));
    ASSERT_TRUE(queued.connectToNamedPipeServerUtf8(listening.mName));
    listening.mServer.closeNamedPipeServer();
    EXPECT_FALSE(listening.mServer.hasPendingConnections());
    EXPECT_TRUE(pumpUntilClosed(accepted));
    EXPECT_TRUE(pumpUntilClosed(queued));
}

TEST_F(NamedPipeServer, leavesAConnectionThatWasTakenAlone)
{
    ListeningServer listening;
    nqNamedPipe client;
    ASSERT_TRUE(client.connectToNamedPipeServerUtf8(listening.mName));
    const auto taken = acceptOne(listening.mServer);
    ASSERT_TRUE(taken);
    listening.mServer.closeNamedPipeServer();
    append(taken->outgoingBuffer(), "x");
    taken->processNamedPipeEvents(0, false);
    EXPECT_EQ(greetingOf(client), "x");
}

TEST_F(NamedPipeServer, doesNotSpinWhenDescriptorsRunOut)
{
    ListeningServer listening;
    nqNamedPipe client;
    ASSERT_TRUE(client.connectToNamedPipeServerUtf8(listening.mName));
    bool timedOut = true;
    const DescriptorLimit limit;
    ASSERT_TRUE(limit.exhaust());
    const auto start = steady_clock::now();
    EXPECT_FALSE(listening.mServer.waitForNewConnection(ampleMs, &timedOut));
    EXPECT_LT(elapsedSince(start), milliseconds(ampleMs / 2));
    EXPECT_FALSE(timedOut);
}

TEST_F(NamedPipeServer, acceptsAgainWhenThereAreDescriptorsAgain)
{
    ListeningServer listening;
    {
        const DescriptorLimit limit;
        ASSERT_TRUE(limit.exhaust());
        EXPECT_FALSE(listening.mServer.waitForNewConnection(0, nullptr));
    }
    nqNamedPipe client;
    ASSERT_TRUE(client.connectToNamedPipeServerUtf8(listening.mName));
    EXPECT_TRUE(listening.mServer.waitForNewConnection(ampleMs, nullptr));
}

TEST_F(NamedPipeServer, doesNotListenWhenDescriptorsRunOut)
{
    nqNamedPipeServer server;
    const std::string name = freshName();
    {
        const DescriptorLimit limit;
        ASSERT_TRUE(limit.exhaust());
        EXPECT_FALSE(server.listenUtf8(name));
    }
    EXPECT_TRUE(server.listenUtf8(name));
}
