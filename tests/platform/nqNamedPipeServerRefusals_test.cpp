#include "nqNamedPipeServer.h"

#include "pipe_helpers.h"
#include "system/linux/nqWorkerGroups.h"

using namespace pipe_test;
using nq::nqNamedPipe;
using nq::nqNamedPipeServer;
using nq::nqWorkerGroups;

namespace {

class NamedPipeServerRefuses : public LeavesNothingBehind {
protected:
    void SetUp() override
    {
        LeavesNothingBehind::SetUp();
        ASSERT_TRUE(mServer.listenUtf8(mName));
    }

    void TearDown() override
    {
        mServer.closeNamedPipeServer();
        LeavesNothingBehind::TearDown();
    }

    std::string mName = freshName();
    nqNamedPipeServer mServer;
};

// The connection of a launch that was given up: here by a process that has died, or has merely hung
// up, before anybody accepted.
void connectAndHangUp(const std::string& name)
{
    const Descriptor socket = rawSocket();
    ASSERT_TRUE(rawConnect(socket, name));
}

// A connected process that leads a process group of its own and stays until the connection ends.
struct GroupLeader {
    explicit GroupLeader(const std::string& name)
        : mChild([&] {
              const Descriptor socket = rawSocket();
              if (::setpgid(0, 0) != 0 || !rawConnect(socket, name))
                  return 1;
              mConnected.raise();
              return rawSeesTheEnd(socket) ? 0 : 2;
          })
    {
        EXPECT_TRUE(mConnected.await());
    }

    Event mConnected;
    Child mChild;
};

} // namespace

TEST_F(NamedPipeServerRefuses, aPeerThatHasHungUpWithoutSendingAnything)
{
    connectAndHangUp(mName);
    bool timedOut = false;
    EXPECT_FALSE(mServer.waitForNewConnection(0, &timedOut));
    EXPECT_TRUE(timedOut);
    EXPECT_FALSE(mServer.hasPendingConnections());
}

TEST_F(NamedPipeServerRefuses, aHungUpPeerAndFindsTheGoodOneBehindIt)
{
    connectAndHangUp(mName);
    connectAndHangUp(mName);
    nqNamedPipe good;
    ASSERT_TRUE(good.connectToNamedPipeServerUtf8(mName));
    ASSERT_TRUE(mServer.waitForNewConnection(0, nullptr));
    const auto taken = mServer.takePendingConnection();
    EXPECT_FALSE(mServer.hasPendingConnections());
    append(taken->outgoingBuffer(), "x");
    taken->processNamedPipeEvents(0, false);
    good.processNamedPipeEvents(ampleMs, true);
    EXPECT_EQ(text(good.incomingBuffer()), "x");
}

TEST_F(NamedPipeServerRefuses, aHungUpPeerAndWaitsOnForTheRestOfTheTime)
{
    connectAndHangUp(mName);
    bool timedOut = false;
    const auto start = steady_clock::now();
    EXPECT_FALSE(mServer.waitForNewConnection(60, &timedOut));
    EXPECT_GE(elapsedSince(start), milliseconds(60));
    EXPECT_TRUE(timedOut);
}

TEST_F(NamedPipeServerRefuses, noPeerThatHasHungUpAfterItSentSomething)
{
    {
        const Descriptor socket = rawSocket();
        ASSERT_TRUE(rawConnect(socket, mName));
        ASSERT_TRUE(rawSend(socket, "answer"));
    }
    ASSERT_TRUE(mServer.waitForNewConnection(ampleMs, nullptr));
    const auto taken = mServer.takePendingConnection();
    taken->processNamedPipeEvents(0, false);
    EXPECT_EQ(takeAll(*taken), "answer");
}

TEST_F(NamedPipeServerRefuses, aDeadPeerWhoseSocketSomebodyHolds)
{
    const Descriptor held = rawSocket();
    Child dead([&] { return rawConnect(held, mName) ? 0 : 1; });
    ASSERT_EQ(dead.wait(), 0);
    EXPECT_FALSE(mServer.waitForNewConnection(0, nullptr));
    EXPECT_FALSE(mServer.hasPendingConnections());
    EXPECT_TRUE(rawSeesTheEnd(held));
}

TEST_F(NamedPipeServerRefuses, noDeadPeerThatHasSentSomething)
{
    const Descriptor held = rawSocket();
    Child dead([&] { return rawConnect(held, mName) && rawSend(held, "answer") ? 0 : 1; });
    ASSERT_EQ(dead.wait(), 0);
    ASSERT_TRUE(mServer.waitForNewConnection(ampleMs, nullptr));
    const auto taken = mServer.takePendingConnection();
    taken->processNamedPipeEvents(0, false);
    EXPECT_EQ(takeAll(*taken), "answer");
    EXPECT_TRUE(pumpUntilClosed(*taken));
}

TEST_F(NamedPipeServerRefuses, aLivingMemberOfAKilledGroup)
{
    GroupLeader late(mName);
    nqWorkerGroups::ended(late.mChild.pid());
    EXPECT_FALSE(mServer.waitForNewConnection(0, nullptr));
    EXPECT_FALSE(mServer.hasPendingConnections());
    EXPECT_EQ(late.mChild.wait(), 0) << "its connection has been ended";
}

TEST_F(NamedPipeServerRefuses, noLeaderOfAGroupWhoseNumberIsInUseAgain)
{
    GroupLeader next(mName);
    nqWorkerGroups::ended(next.mChild.pid());
    nqWorkerGroups::started(next.mChild.pid());
    EXPECT_TRUE(mServer.waitForNewConnection(ampleMs, nullptr));
    mServer.closeNamedPipeServer();
    EXPECT_EQ(next.mChild.wait(), 0);
}

TEST_F(NamedPipeServerRefuses, aDeadLeaderOfAKilledGroupThoughItHasSentSomething)
{
    const Descriptor held = rawSocket();
    Child late([&] { return rawConnect(held, mName) && rawSend(held, "junk") ? 0 : 1; });
    const pid_t group = late.pid();
    ASSERT_EQ(late.wait(), 0);
    nqWorkerGroups::ended(group);
    EXPECT_FALSE(mServer.waitForNewConnection(0, nullptr));
}

TEST_F(NamedPipeServerRefuses, aSecondConnectionFromTheGroupOfOneWorker)
{
    GroupLeader worker(mName);
    nqWorkerGroups::started(worker.mChild.pid());
    EXPECT_TRUE(mServer.waitForNewConnection(ampleMs, nullptr));
    EXPECT_FALSE(nqWorkerGroups::admits(worker.mChild.pid()));
    mServer.closeNamedPipeServer();
    EXPECT_EQ(worker.mChild.wait(), 0);
    nqWorkerGroups::ended(worker.mChild.pid());
}

// What a launch that was given up leaves behind must not be taken for the next launch's worker.
TEST_F(NamedPipeServerRefuses, everyLateConnectionOfALaunchThatWasGivenUp)
{
    EXPECT_FALSE(mServer.waitForNewConnection(0, nullptr)); // the launch gives up here
    GroupLeader late(mName);
    nqWorkerGroups::ended(late.mChild.pid());
    connectAndHangUp(mName);
    nqNamedPipe next;
    ASSERT_TRUE(next.connectToNamedPipeServerUtf8(mName));
    ASSERT_TRUE(mServer.waitForNewConnection(ampleMs, nullptr));
    const auto taken = mServer.takePendingConnection();
    EXPECT_FALSE(mServer.waitForNewConnection(0, nullptr)) << "only one of three gets in";
    append(taken->outgoingBuffer(), "job");
    taken->processNamedPipeEvents(0, false);
    next.processNamedPipeEvents(ampleMs, true);
    EXPECT_EQ(text(next.incomingBuffer()), "job");
    EXPECT_EQ(late.mChild.wait(), 0);
}

TEST_F(NamedPipeServerRefuses, aProcessOfAnotherUser)
{
    if (!mayChangeUser())
        GTEST_SKIP() << "only root can start a process of another user";
    Event connected;
    Child foreigner([&] {
        const Descriptor socket = rawSocket();
        if (!becomeForeignUser() || !rawConnect(socket, mName) || !rawSend(socket, "let me in"))
            return 1;
        connected.raise();
        return rawSeesTheEnd(socket) ? 0 : 2;
    });
    ASSERT_TRUE(connected.await());
    EXPECT_FALSE(mServer.waitForNewConnection(0, nullptr));
    EXPECT_FALSE(mServer.hasPendingConnections());
    foreigner.wait();
}

TEST_F(NamedPipeServerRefuses, noClientInItsOwnProcess)
{
    nqNamedPipe client;
    ASSERT_TRUE(client.connectToNamedPipeServerUtf8(mName));
    EXPECT_TRUE(mServer.waitForNewConnection(ampleMs, nullptr));
}

TEST_F(NamedPipeServerRefuses, noProcessThatSomebodyElseThanTheHostHasStarted)
{
    Event connected;
    Child grandparent([&] {
        Child worker([&] {
            nqNamedPipe pipe;
            if (!pipe.connectToNamedPipeServerUtf8(mName))
                return 1;
            connected.raise();
            return pumpUntilClosed(pipe) ? 0 : 2;
        });
        return worker.wait();
    });
    ASSERT_TRUE(connected.await());
    EXPECT_TRUE(mServer.waitForNewConnection(ampleMs, nullptr));
    mServer.closeNamedPipeServer();
    EXPECT_EQ(grandparent.wait(), 0);
}

TEST_F(NamedPipeServerRefuses, aCrowdOfHungUpPeersWithinItsTime)
{
    for (int i = 0; i < 500; ++i)
        connectAndHangUp(mName);
    nqNamedPipe good;
    ASSERT_TRUE(good.connectToNamedPipeServerUtf8(mName));
    EXPECT_TRUE(mServer.waitForNewConnection(ampleMs, nullptr));
    EXPECT_TRUE(good.isConnected());
}

TEST_F(NamedPipeServerRefuses, aCrowdWithoutBeingHeldUpForEver)
{
    for (int i = 0; i < 500; ++i)
        connectAndHangUp(mName);
    nqNamedPipe good;
    ASSERT_TRUE(good.connectToNamedPipeServerUtf8(mName));
    EXPECT_FALSE(mServer.waitForNewConnection(0, nullptr));
}
