#include "nqWaitSet.h"

#include "pipe_helpers.h"
#include "system/linux/nqEpoll.h"
#include "system/linux/nqPlatformLog.h"
#include "system/linux/nqWatchedDescriptor.h"

#include <optional>
#include <sys/epoll.h>
#include <sys/select.h>

using namespace pipe_test;
using nq::nqNamedPipe;
using nq::nqNamedPipeServer;
using nq::nqWaitSet;

namespace {

bool isReadable(int descriptor)
{
    pollfd watched{descriptor, POLLIN, 0};
    return ::poll(&watched, 1, 0) == 1 && (watched.revents & POLLIN) != 0;
}

bool isReadable(const nqWaitSet& set)
{
    return isReadable(set.descriptor());
}

bool becomesReadable(const nqWaitSet& set)
{
    return common::becomesReadable(set.descriptor());
}

const std::string noDescriptor = "Cannot make a descriptor to wait on: Too many open files";

class WaitSet : public LeavesNothingBehind {
protected:
    CapturingLog mLog;
};

/// A pipe that reports to a set, and at its other end a socket that does what the test says.
class PipeInAWaitSet : public LeavesNothingBehind {
protected:
    void SetUp() override
    {
        LeavesNothingBehind::SetUp();
        mSet.emplace();
        mLink.emplace();
        ASSERT_TRUE(mLink->mPipe);
        pipe().reportTo(&*mSet);
    }

    void TearDown() override
    {
        mLink.reset();
        mSet.reset();
        LeavesNothingBehind::TearDown();
    }

    nqNamedPipe& pipe()
    {
        return *mLink->mPipe;
    }
    const Descriptor& peer() const
    {
        return mLink->mPeer;
    }
    const nqWaitSet& set() const
    {
        return *mSet;
    }

    /// What a host does when the set is readable.
    void step()
    {
        pipe().processNamedPipeEvents(0, false);
        pipe().reportTo(&*mSet);
    }

    /// Steps while the set has something; false when that never ends.
    bool comesToRest()
    {
        constexpr int ampleSteps = 1'000;
        for (int steps = 0; steps < ampleSteps; ++steps) {
            if (!isReadable(set()))
                return true;
            step();
        }
        return false;
    }

    void sendUntilTheKernelIsFull() const
    {
        const std::string bytes(4096, 'x');
        while (::send(peer().get(), bytes.data(), bytes.size(), MSG_DONTWAIT) > 0)
            continue;
    }

    std::optional<nqWaitSet> mSet;
    std::optional<PipeToRawSocket> mLink;
};

/// A pipe in a set whose peer is a process of its own, while the test holds the peer's socket.
class DyingPeerInAWaitSet : public LeavesNothingBehind {
protected:
    void SetUp() override
    {
        LeavesNothingBehind::SetUp();
        nqNamedPipeServer server;
        const std::string name = freshName();
        ASSERT_TRUE(server.listenUtf8(name));
        mSet.emplace();
        mMayDie.emplace();
        mSocket = rawSocket();
        mProcess.emplace([&] { return rawConnect(mSocket, name) && mMayDie->await() ? 0 : 1; });
        mPipe = acceptOne(server);
        ASSERT_TRUE(mPipe);
        mPipe->reportTo(&*mSet);
    }

    void TearDown() override
    {
        letDie();
        mPipe.reset();
        mSet.reset();
        mSocket.close();
        mMayDie.reset();
        LeavesNothingBehind::TearDown();
    }

    void letDie()
    {
        if (!mProcess)
            return;
        mMayDie->raise();
        EXPECT_EQ(mProcess->wait(), 0);
        mProcess.reset();
    }

    void step()
    {
        mPipe->processNamedPipeEvents(0, false);
        mPipe->reportTo(&*mSet);
    }

    std::optional<nqWaitSet> mSet;
    Descriptor mSocket;
    std::optional<Event> mMayDie;
    std::optional<Child> mProcess;
    std::unique_ptr<nqNamedPipe> mPipe;
};

/// A descriptor in a set, readable, and a duplicate of it that stays.
class DuplicatedDescriptorInASet : public testing::Test {
protected:
    DuplicatedDescriptorInASet()
    {
        int ends[2] = {-1, -1};
        EXPECT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
        EXPECT_EQ(::write(ends[1], "!", 1), 1);
        mWriting = Descriptor(ends[1]);
        mDuplicate = Descriptor(::fcntl(ends[0], F_DUPFD_CLOEXEC, 0));
        mWatched.emplace(nq::nqDescriptor(ends[0]));
        mWatched->watchIn(&mSet, EPOLLIN);
    }

    void SetUp() override
    {
        ASSERT_TRUE(isReadable(mSet.get()));
    }

    void TearDown() override
    {
        EXPECT_TRUE(isReadable(mDuplicate.get())) << "the test proves nothing";
    }

    nq::nqEpoll mSet;
    Descriptor mWriting;
    Descriptor mDuplicate;
    std::optional<nq::nqWatchedDescriptor> mWatched;
};

/// A set that is made while the kernel refuses a descriptor.
class WaitSetWithoutADescriptor : public WaitSet {
protected:
    void SetUp() override
    {
        WaitSet::SetUp();
        // A sanitizer that meets a class for the first time needs descriptors itself.
        nq::logError("before");
        mLog.mMessages.clear();
    }

    void TearDown() override
    {
        if (mSet) {
            EXPECT_EQ(mLog.mMessages, std::vector{noDescriptor});
            EXPECT_EQ(mSet->descriptor(), -1);
            mSet->setReady(true); // without effect
            mSet.reset();
        }
        WaitSet::TearDown();
    }

    std::optional<nqWaitSet> mSet;
};

constexpr rlim_t enoughDescriptors = FD_SETSIZE + 64;

} // namespace

TEST_F(WaitSet, hasADescriptorThatSelectCanHoldAndThatIsCloseOnExec)
{
    const nqWaitSet set;
    EXPECT_GT(set.descriptor(), STDERR_FILENO);
    EXPECT_LT(set.descriptor(), FD_SETSIZE);
    for (const int descriptor : openDescriptorNumbers()) {
        if (descriptorsAtStart().count(descriptor) == 0) {
            EXPECT_TRUE(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC) << descriptor;
        }
    }
}

TEST_F(WaitSet, isReadableWhileItsOwnerSaysSo)
{
    nqWaitSet set;
    EXPECT_FALSE(isReadable(set));
    set.setReady(true);
    set.setReady(true);
    EXPECT_TRUE(isReadable(set));
    EXPECT_TRUE(isReadable(set)) << "it is level-triggered";
    set.setReady(false);
    EXPECT_FALSE(isReadable(set));
    set.setReady(true);
    EXPECT_TRUE(isReadable(set));
}

TEST_F(WaitSet, wakesUpAThreadThatWaitsThroughASetOfItsOwn)
{
    nqWaitSet set;
    const Descriptor outer(::epoll_create1(EPOLL_CLOEXEC));
    epoll_event event{};
    event.events = EPOLLIN;
    ASSERT_EQ(::epoll_ctl(outer.get(), EPOLL_CTL_ADD, set.descriptor(), &event), 0);
    EXPECT_EQ(::epoll_wait(outer.get(), &event, 1, 0), 0);
    set.setReady(true);
    EXPECT_EQ(::epoll_wait(outer.get(), &event, 1, 0), 1);
    set.setReady(false);
    EXPECT_EQ(::epoll_wait(outer.get(), &event, 1, 0), 0);
}

TEST_F(WaitSetWithoutADescriptor, saysWhyWhenTheKernelHasNone)
{
    const DescriptorLimit limit;
    ASSERT_TRUE(limit.exhaust());
    mSet.emplace();
}

TEST_F(WaitSetWithoutADescriptor, saysWhyWhenOnlyOneIsFree)
{
    const DescriptorLimit limit;
    ASSERT_TRUE(limit.exhaustButOne());
    mSet.emplace();
}

TEST_F(WaitSetWithoutADescriptor, saysWhyWhenNoneBelowTheLimitOfSelectIsFree)
{
    const DescriptorLimit limit;
    if (!limit.set(enoughDescriptors))
        GTEST_SKIP() << "the hard limit of descriptors is below " << enoughDescriptors;
    std::vector<Descriptor> occupied;
    do
        occupied.emplace_back(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
    while (occupied.back().get() < FD_SETSIZE);
    mSet.emplace();
}

TEST_F(WaitSet, takesOneNumberBelowTheLimitOfSelect)
{
    const DescriptorLimit limit;
    if (!limit.set(enoughDescriptors))
        GTEST_SKIP() << "the hard limit of descriptors is below " << enoughDescriptors;
    const nqWaitSet set;
    const std::set<int> all = openDescriptorNumbers();
    const std::set<int> low(all.begin(), all.lower_bound(FD_SETSIZE));
    EXPECT_EQ(low.size(), descriptorsAtStart().size() + 1);
}

TEST_F(WaitSet, isLeftAloneByAForkedChild)
{
    std::optional<nqWaitSet> set(std::in_place);
    set->setReady(true);
    Child child([&] {
        const bool hasNone = set->descriptor() == -1;
        set->setReady(false);
        set.reset();
        return hasNone ? 0 : 1;
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_TRUE(isReadable(*set));
}

TEST_F(PipeInAWaitSet, isQuietAtRest)
{
    EXPECT_FALSE(isReadable(set()));
    step();
    EXPECT_FALSE(isReadable(set()));
}

TEST_F(PipeInAWaitSet, reportsBytesUntilTheyAreRead)
{
    ASSERT_TRUE(rawSend(peer(), "result"));
    EXPECT_TRUE(isReadable(set()));
    EXPECT_TRUE(isReadable(set())) << "it is level-triggered";
    step();
    EXPECT_FALSE(isReadable(set())) << "though nobody has taken them";
    EXPECT_EQ(takeAll(pipe()), "result");
}

TEST_F(PipeInAWaitSet, reportsTheEndUntilItIsClosed)
{
    mLink->mPeer.close();
    EXPECT_TRUE(isReadable(set()));
    step();
    EXPECT_FALSE(pipe().isConnected());
    EXPECT_FALSE(isReadable(set()));
}

TEST_F(PipeInAWaitSet, isQuietWhileItsBufferIsFullAndThePeerFloodsOn)
{
    while (pipe().incomingBuffer().size() < incomingLimit) {
        sendUntilTheKernelIsFull();
        step();
    }
    sendUntilTheKernelIsFull();
    EXPECT_FALSE(isReadable(set()));

    take(pipe(), 1);
    pipe().reportTo(&*mSet);
    EXPECT_TRUE(isReadable(set())) << "there is room again";
}

TEST_F(PipeInAWaitSet, reportsTheEndBehindAFullBuffer)
{
    while (pipe().incomingBuffer().size() < incomingLimit) {
        sendUntilTheKernelIsFull();
        step();
    }
    sendUntilTheKernelIsFull();
    mLink->mPeer.close();
    EXPECT_TRUE(isReadable(set()));
    step();
    EXPECT_FALSE(pipe().isConnected());
    EXPECT_FALSE(isReadable(set()));
}

TEST_F(PipeInAWaitSet, isQuietAboutRoomWhileNothingWaitsForIt)
{
    append(pipe().outgoingBuffer(), "job");
    step();
    EXPECT_FALSE(pipe().hasPendingWrite());
    EXPECT_FALSE(isReadable(set()));
}

TEST_F(PipeInAWaitSet, isQuietWhileTheSocketIsFullAndReportsRoomForTheRest)
{
    const std::string payload(64 * mebibyte, 'x');
    pipe().lend(payload.data(), payload.size());
    ASSERT_TRUE(comesToRest());
    ASSERT_TRUE(pipe().hasPendingWrite());
    EXPECT_FALSE(isReadable(set()));
    step();
    EXPECT_FALSE(isReadable(set())) << "one more attempt changes nothing";

    std::size_t received = 0;
    while (received < payload.size()) {
        const std::size_t count = rawReceive(peer()).size();
        ASSERT_NE(count, 0U);
        received += count;
        ASSERT_TRUE(comesToRest());
    }
    EXPECT_FALSE(pipe().hasPendingWrite());
}

TEST_F(PipeInAWaitSet, isQuietWhenThePeerReadsNoMore)
{
    ASSERT_EQ(::shutdown(peer().get(), SHUT_RD), 0);
    append(pipe().outgoingBuffer(), "nobody reads this");
    step();
    EXPECT_TRUE(pipe().isWriteChannelClosed());
    EXPECT_TRUE(pipe().isConnected());
    EXPECT_FALSE(isReadable(set()));
}

TEST_F(PipeInAWaitSet, isOutOfItWhenItIsClosedThoughADuplicateOfItsSocketIsOpen)
{
    const Descriptor duplicate(::fcntl(pipe().getSocket(), F_DUPFD_CLOEXEC, 0));
    pipe().closeNamedPipe();
    EXPECT_TRUE(isReadable(duplicate.get())) << "the test proves nothing";
    EXPECT_FALSE(isReadable(set()));
}

TEST_F(PipeInAWaitSet, isOutOfItWhenItIsClosedThoughAForkedChildHoldsItsSocket)
{
    Event mayEnd;
    Child holder([&] { return mayEnd.await() ? 0 : 1; });
    mLink->mPipe.reset();
    EXPECT_TRUE(rawSeesTheEnd(peer()));
    EXPECT_FALSE(isReadable(set()));
    mayEnd.raise();
    EXPECT_EQ(holder.wait(), 0);
}

TEST_F(PipeInAWaitSet, staysInItWhenAForkedChildClosesItsCopy)
{
    Child child([&] {
        mLink->mPipe.reset();
        mSet.reset();
        return 0;
    });
    EXPECT_EQ(child.wait(), 0);
    ASSERT_TRUE(rawSend(peer(), "result"));
    EXPECT_TRUE(isReadable(set()));
}

TEST_F(PipeInAWaitSet, reportsNothingMoreOnceItIsTakenOut)
{
    ASSERT_TRUE(rawSend(peer(), "result"));
    pipe().reportTo(nullptr);
    EXPECT_FALSE(isReadable(set()));
    pipe().reportTo(&*mSet);
    EXPECT_TRUE(isReadable(set()));
}

TEST_F(PipeInAWaitSet, movesFromOneSetToAnother)
{
    nqWaitSet other;
    ASSERT_TRUE(rawSend(peer(), "result"));
    pipe().reportTo(&other);
    EXPECT_FALSE(isReadable(set()));
    EXPECT_TRUE(isReadable(other));
    pipe().reportTo(nullptr);
}

TEST_F(PipeInAWaitSet, hasImmediateWorkWhileBytesWaitThatTheKernelHasNotRefused)
{
    EXPECT_FALSE(pipe().hasImmediateWork());
    append(pipe().outgoingBuffer(), "job");
    EXPECT_TRUE(pipe().hasImmediateWork());
    step();
    EXPECT_FALSE(pipe().hasImmediateWork());
}

TEST_F(PipeInAWaitSet, hasNoImmediateWorkWhileTheSocketIsFull)
{
    const std::string payload(64 * mebibyte, 'x');
    pipe().lend(payload.data(), payload.size());
    EXPECT_TRUE(pipe().hasImmediateWork());
    ASSERT_TRUE(comesToRest());
    step();
    ASSERT_TRUE(pipe().hasPendingWrite());
    EXPECT_FALSE(pipe().hasImmediateWork());
}

TEST_F(PipeInAWaitSet, hasNoImmediateWorkWhileBytesLieUntaken)
{
    ASSERT_TRUE(rawSend(peer(), "result"));
    step();
    EXPECT_EQ(pipe().untakenBytes(), 6U);
    EXPECT_FALSE(pipe().hasImmediateWork());
}

TEST_F(PipeInAWaitSet, hasImmediateWorkWhileItsEndIsHiddenBehindUntakenBytes)
{
    ASSERT_TRUE(rawSend(peer(), "result"));
    mLink->mPeer.close();
    step();
    EXPECT_TRUE(pipe().isConnected());
    EXPECT_TRUE(pipe().hasImmediateWork());
    step();
    EXPECT_FALSE(pipe().isConnected());
    EXPECT_FALSE(pipe().hasImmediateWork());
}

TEST_F(DyingPeerInAWaitSet, isReportedThoughItsSocketStaysOpenAndIsFoundAtOnce)
{
    step();
    EXPECT_FALSE(isReadable(*mSet));
    letDie();
    EXPECT_TRUE(becomesReadable(*mSet));
    step();
    EXPECT_FALSE(mPipe->isConnected());
    EXPECT_FALSE(isReadable(*mSet));
}

TEST_F(DyingPeerInAWaitSet, isReportedBehindAFullBuffer)
{
    const std::string bytes(4096, 'x');
    while (mPipe->incomingBuffer().size() < incomingLimit) {
        while (::send(mSocket.get(), bytes.data(), bytes.size(), MSG_DONTWAIT) > 0)
            continue;
        step();
    }
    step();
    EXPECT_FALSE(isReadable(*mSet));
    letDie();
    EXPECT_TRUE(becomesReadable(*mSet));
    step();
    EXPECT_FALSE(mPipe->isConnected());
    EXPECT_FALSE(isReadable(*mSet));
}

TEST_F(DyingPeerInAWaitSet, isNotReportedAfterTheCloseThoughAForkedChildHoldsTheWatch)
{
    Event mayEnd;
    Child holder([&] { return mayEnd.await() ? 0 : 1; });
    mPipe->closeNamedPipe();
    letDie();
    EXPECT_FALSE(isReadable(*mSet));
    mayEnd.raise();
    EXPECT_EQ(holder.wait(), 0);
}

TEST_F(DuplicatedDescriptorInASet, isOutOfItOnceClosed)
{
    mWatched->close();
    EXPECT_FALSE(isReadable(mSet.get()));
}

TEST_F(DuplicatedDescriptorInASet, isOutOfItOnceDestroyed)
{
    mWatched.reset();
    EXPECT_FALSE(isReadable(mSet.get()));
}

TEST_F(DuplicatedDescriptorInASet, isOutOfItOnceAnotherTakesItsPlace)
{
    *mWatched = nq::nqDescriptor();
    EXPECT_FALSE(isReadable(mSet.get()));
}

TEST_F(DuplicatedDescriptorInASet, isOutOfItOnceReleased)
{
    const nq::nqDescriptor released = mWatched->release();
    EXPECT_TRUE(isReadable(released.get()));
    EXPECT_FALSE(isReadable(mSet.get()));
}

TEST_F(DuplicatedDescriptorInASet, takesItsEntryAlongWhenItIsMoved)
{
    nq::nqWatchedDescriptor other = std::move(*mWatched);
    mWatched.reset();
    EXPECT_TRUE(isReadable(mSet.get()));
    other.close();
    EXPECT_FALSE(isReadable(mSet.get()));
}

TEST_F(DuplicatedDescriptorInASet, hasNoEntryAfterItHasGotAnotherNumber)
{
    const int before = mWatched->get();
    mWatched->moveToLowNumber();
    ASSERT_NE(mWatched->get(), before);
    EXPECT_FALSE(isReadable(mSet.get()));
    mWatched->watchIn(&mSet, EPOLLIN);
    EXPECT_TRUE(isReadable(mSet.get()));
    mWatched->close();
    EXPECT_FALSE(isReadable(mSet.get()));
}

TEST_F(DuplicatedDescriptorInASet, hasNoEntryAfterItHasMovedOutOfTheRangeOfSelect)
{
    const DescriptorLimit limit;
    if (!limit.set(enoughDescriptors))
        GTEST_SKIP() << "the hard limit of descriptors is below " << enoughDescriptors;
    mWatched->moveOutOfRangeOfSelect();
    ASSERT_GE(mWatched->get(), FD_SETSIZE);
    EXPECT_FALSE(isReadable(mSet.get()));
    mWatched->watchIn(&mSet, EPOLLIN);
    EXPECT_TRUE(isReadable(mSet.get()));
    mWatched->close();
}

TEST_F(DuplicatedDescriptorInASet, isWatchedForWhatWasSaidLast)
{
    mWatched->watchIn(&mSet, EPOLLPRI);
    EXPECT_FALSE(isReadable(mSet.get()));
    mWatched->watchIn(&mSet, EPOLLIN);
    EXPECT_TRUE(isReadable(mSet.get()));
    mWatched->close();
}
