#include "nqNamedPipeServer.h"

#include "pipe_helpers.h"
#include "system/linux/nqPidfd.h"
#include "system/linux/nqStartedProcess.h"

#include <ctime>

using namespace pipe_test;
using nq::nqNamedPipe;
using nq::nqNamedPipeServer;
using nq::nqStartedProcess;

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
        mStarted.clear();
        mServer.closeNamedPipeServer();
        LeavesNothingBehind::TearDown();
    }

    // What nqProcess notes of a process that was started with the server's name as an argument.
    nqStartedProcess& noteStart(pid_t pid)
    {
        mStarted.push_back(std::make_unique<nqStartedProcess>(
            "worker", std::vector<std::string>{"--pipe", mName}));
        mStarted.back()->noteStart(pid);
        return *mStarted.back();
    }

    bool admitsSomebody()
    {
        return mServer.waitForNewConnection(0, nullptr);
    }

    std::string mName = freshName();
    nqNamedPipeServer mServer;
    std::vector<std::unique_ptr<nqStartedProcess>> mStarted;
};

// The connection of a launch that was given up: here by a process that has died, or has merely hung
// up, before anybody accepted.
void connectAndHangUp(const std::string& name)
{
    const Descriptor socket = rawSocket();
    ASSERT_TRUE(rawConnect(socket, name));
}

// A process that leads a process group of its own, holds no copy of the listening socket, connects
// when it is told to, and stays until the connection ends.
struct Worker {
    Worker(nqNamedPipeServer& server, const std::string& name)
        : mChild([&] {
              server.closeNamedPipeServer();
              const Descriptor socket = rawSocket();
              if (::setpgid(0, 0) != 0)
                  return 1;
              mAlive.raise();
              if (!mMayConnect.await() || !rawConnect(socket, name))
                  return 1;
              mConnected.raise();
              return rawSeesTheEnd(socket) ? 0 : 2;
          })
    {
        EXPECT_TRUE(mAlive.await());
    }

    void connect()
    {
        mMayConnect.raise();
        EXPECT_TRUE(mConnected.await());
    }

    Event mAlive;
    Event mMayConnect;
    Event mConnected;
    Child mChild;
};

// The same, connected.
struct GroupLeader : Worker {
    GroupLeader(nqNamedPipeServer& server, const std::string& name)
        : Worker(server, name)
    {
        connect();
    }
};

// Start times are counted in ticks: what starts after this is younger than what started before it.
void awaitNextTick()
{
    const auto tick = [] {
        timespec now{};
        ::clock_gettime(CLOCK_BOOTTIME, &now);
        return (now.tv_sec * 1'000'000'000LL + now.tv_nsec) /
               (1'000'000'000LL / ::sysconf(_SC_CLK_TCK));
    };
    for (const auto start = tick(); tick() <= start + 1;)
        continue;
}

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
    GroupLeader late(mServer, mName);
    noteStart(late.mChild.pid()).noteKill();
    ASSERT_FALSE(admitsSomebody());
    EXPECT_FALSE(mServer.hasPendingConnections());
    EXPECT_EQ(late.mChild.wait(), 0) << "its connection has been ended";
}

TEST_F(NamedPipeServerRefuses, aLivingMemberOfAGroupWhoseLeaderHasEnded)
{
    GroupLeader helper(mServer, mName);
    noteStart(helper.mChild.pid()).noteEnd(nq::nqChildEnd{});
    ASSERT_FALSE(admitsSomebody());
    EXPECT_EQ(helper.mChild.wait(), 0);
}

TEST_F(NamedPipeServerRefuses, noGroupOfAProcessThatNoObjectStandsForAnyMore)
{
    GroupLeader next(mServer, mName);
    noteStart(next.mChild.pid()).noteKill();
    mStarted.clear();
    EXPECT_TRUE(mServer.waitForNewConnection(ampleMs, nullptr));
    mServer.closeNamedPipeServer();
    EXPECT_EQ(next.mChild.wait(), 0);
}

TEST_F(NamedPipeServerRefuses, noLeaderOfAGroupWhoseNumberIsInUseAgain)
{
    GroupLeader next(mServer, mName);
    noteStart(next.mChild.pid()).noteKill();
    noteStart(next.mChild.pid());
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
    noteStart(group).noteKill();
    EXPECT_FALSE(admitsSomebody());
}

TEST_F(NamedPipeServerRefuses, aSecondConnectionFromTheGroupOfOneWorker)
{
    GroupLeader worker(mServer, mName);
    noteStart(worker.mChild.pid());
    EXPECT_TRUE(mServer.waitForNewConnection(ampleMs, nullptr));
    Event connected;
    Child helper([&] {
        const Descriptor socket = rawSocket();
        if (::setpgid(0, worker.mChild.pid()) != 0 || !rawConnect(socket, mName))
            return 1;
        connected.raise();
        return rawSeesTheEnd(socket) ? 0 : 2;
    });
    ASSERT_TRUE(connected.await());
    ASSERT_FALSE(admitsSomebody());
    EXPECT_EQ(helper.wait(), 0) << "its connection has been ended";
    mServer.closeNamedPipeServer();
    EXPECT_EQ(worker.mChild.wait(), 0);
}

TEST_F(NamedPipeServerRefuses, noConnectionOfItsWorkerBecauseOfOneToAnotherServer)
{
    nqNamedPipeServer other;
    const std::string otherName = freshName();
    ASSERT_TRUE(other.listenUtf8(otherName));
    GroupLeader worker(mServer, otherName);
    nqStartedProcess started("worker", {mName, otherName});
    started.noteStart(worker.mChild.pid());
    EXPECT_TRUE(other.waitForNewConnection(ampleMs, nullptr));
    Child second([&] {
        const Descriptor socket = rawSocket();
        if (::setpgid(0, worker.mChild.pid()) != 0 || !rawConnect(socket, mName))
            return 1;
        return rawSeesTheEnd(socket) ? 0 : 2;
    });
    EXPECT_TRUE(mServer.waitForNewConnection(ampleMs, nullptr));
    mServer.closeNamedPipeServer();
    other.closeNamedPipeServer();
    EXPECT_EQ(worker.mChild.wait(), 0);
    EXPECT_EQ(second.wait(), 0);
}

TEST_F(NamedPipeServerRefuses, noWorkerOfAnotherServerOfTheSameHost)
{
    GroupLeader worker(mServer, mName);
    nqStartedProcess started("worker", {"the name of another server"});
    started.noteStart(worker.mChild.pid());
    started.noteKill();
    EXPECT_TRUE(mServer.waitForNewConnection(ampleMs, nullptr));
    mServer.closeNamedPipeServer();
    EXPECT_EQ(worker.mChild.wait(), 0);
}

TEST_F(NamedPipeServerRefuses, aStragglerOfAnEarlierLaunchThatHasLeftItsGroup)
{
    const Worker first(mServer, mName);
    noteStart(first.mChild.pid());
    EXPECT_FALSE(admitsSomebody());
    Worker straggler(mServer, mName); // forked by the first, in a group of its own
    awaitNextTick();
    mStarted.clear(); // the first launch gives up
    const Worker latest(mServer, mName);
    noteStart(latest.mChild.pid());
    straggler.connect();
    ASSERT_FALSE(admitsSomebody());
    EXPECT_EQ(straggler.mChild.wait(), 0) << "its connection has been ended";
}

TEST_F(NamedPipeServerRefuses, aStragglerThatIsHardlyOlderThanTheLatestProcess)
{
    const Worker first(mServer, mName);
    noteStart(first.mChild.pid());
    EXPECT_FALSE(admitsSomebody());
    Worker straggler(mServer, mName); // mostly within the clock tick of the next
    mStarted.clear();
    const Worker latest(mServer, mName);
    noteStart(latest.mChild.pid());
    straggler.connect();
    ASSERT_FALSE(admitsSomebody());
    EXPECT_EQ(straggler.mChild.wait(), 0);
}

TEST_F(NamedPipeServerRefuses, aStragglerAfterItHasListenedAnewUnderItsName)
{
    const Worker first(mServer, mName);
    noteStart(first.mChild.pid());
    EXPECT_FALSE(admitsSomebody());
    Worker straggler(mServer, mName);
    awaitNextTick();
    mStarted.clear();
    mServer.closeNamedPipeServer();
    ASSERT_TRUE(mServer.listenUtf8(mName));
    const Worker latest(mServer, mName);
    noteStart(latest.mChild.pid());
    straggler.connect();
    ASSERT_FALSE(admitsSomebody());
    EXPECT_EQ(straggler.mChild.wait(), 0);
}

TEST_F(NamedPipeServerRefuses, aDeadStragglerThoughItHasSentSomething)
{
    const Worker first(mServer, mName);
    noteStart(first.mChild.pid());
    EXPECT_FALSE(admitsSomebody());
    const Worker latest(mServer, mName);
    noteStart(latest.mChild.pid());
    const Descriptor held = rawSocket();
    Child straggler([&] { return rawConnect(held, mName) && rawSend(held, "junk") ? 0 : 1; });
    ASSERT_EQ(straggler.wait(), 0);
    EXPECT_FALSE(admitsSomebody());
}

TEST_F(NamedPipeServerRefuses, noChildOfTheLatestProcessThatHasLeftItsGroup)
{
    const Worker first(mServer, mName);
    noteStart(first.mChild.pid());
    EXPECT_FALSE(admitsSomebody());
    awaitNextTick();
    const Worker latest(mServer, mName);
    noteStart(latest.mChild.pid());
    GroupLeader child(mServer, mName);
    EXPECT_TRUE(mServer.waitForNewConnection(ampleMs, nullptr));
    mServer.closeNamedPipeServer();
    EXPECT_EQ(child.mChild.wait(), 0);
}

TEST_F(NamedPipeServerRefuses, noProcessThatIsOlderThanAllThatWereStartedForIt)
{
    Worker helper(mServer, mName); // a daemon that connects on behalf of the processes
    awaitNextTick();
    const Worker first(mServer, mName);
    noteStart(first.mChild.pid());
    EXPECT_FALSE(admitsSomebody());
    awaitNextTick();
    const Worker latest(mServer, mName);
    noteStart(latest.mChild.pid());
    helper.connect();
    EXPECT_TRUE(mServer.waitForNewConnection(ampleMs, nullptr));
    mServer.closeNamedPipeServer();
    EXPECT_EQ(helper.mChild.wait(), 0);
}

// What a launch that was given up leaves behind must not be taken for the next launch's worker.
TEST_F(NamedPipeServerRefuses, noOlderProcessAndHasItSparedWhenTheWorkerIsKilled)
{
    Worker older(mServer, mName);
    awaitNextTick();
    Worker launched(mServer, mName);
    nqStartedProcess& process = noteStart(launched.mChild.pid());
    older.connect();
    EXPECT_TRUE(admitsSomebody());
    process.killPeer();
    const auto pipe = mServer.takePendingConnection();
    ASSERT_TRUE(pipe);
    pipe->closeNamedPipe();
    EXPECT_EQ(older.mChild.wait(), 0) << "it saw the end of its connection, and no signal";
}

TEST_F(NamedPipeServerRefuses, noYoungerProcessAndHasItKilledWithTheWorker)
{
    if (Descriptor(nq::pidfdOpen(::getpid())).get() < 0)
        GTEST_SKIP() << "nobody but the child itself is killed without pidfds";
    Worker launched(mServer, mName);
    awaitNextTick();
    Worker younger(mServer, mName);
    nqStartedProcess& process = noteStart(launched.mChild.pid());
    younger.connect();
    EXPECT_TRUE(admitsSomebody());
    process.killPeer();
    EXPECT_EQ(younger.mChild.wait(), -1) << "a signal has ended it";
}

TEST_F(NamedPipeServerRefuses, everyLateConnectionOfALaunchThatWasGivenUp)
{
    EXPECT_FALSE(mServer.waitForNewConnection(0, nullptr)); // the launch gives up here
    GroupLeader late(mServer, mName);
    noteStart(late.mChild.pid()).noteKill();
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
