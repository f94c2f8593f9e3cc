#include "nqNamedPipe.h"

#include "pipe_helpers.h"
#include "system/linux/nqDescriptor.h"

#include <algorithm>
#include <iterator>
#include <sys/select.h>

using namespace pipe_test;
using nq::nqNamedPipe;
using nq::nqNamedPipeServer;

namespace {

std::set<int> descriptorsSince(const std::set<int>& before)
{
    const std::set<int> now = openDescriptorNumbers();
    std::set<int> added;
    std::set_difference(
        now.begin(), now.end(), before.begin(), before.end(), std::inserter(added, added.end()));
    return added;
}

class NamedPipeDescriptors : public LeavesNothingBehind {
protected:
    std::set<int> descriptorsSinceStart() const
    {
        return descriptorsSince(descriptorsAtStart());
    }
};

bool isSocket(int descriptor)
{
    int type = 0;
    socklen_t size = sizeof type;
    return ::getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &size) == 0;
}

// Occupies every number that a select() set has room for.
std::vector<Descriptor> occupyNumbersBelowSelectLimit()
{
    std::vector<Descriptor> occupied;
    for (;;) {
        occupied.emplace_back(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
        if (occupied.back().get() < 0 || occupied.back().get() >= FD_SETSIZE)
            return occupied;
    }
}

constexpr rlim_t enoughDescriptors = FD_SETSIZE + 64;

bool standardStreamsAreStillClosed()
{
    return !isOpen(STDIN_FILENO) && !isOpen(STDOUT_FILENO) && !isOpen(STDERR_FILENO);
}

void closeStandardStreams()
{
    ::close(STDIN_FILENO);
    ::close(STDOUT_FILENO);
    ::close(STDERR_FILENO);
}

} // namespace

TEST_F(NamedPipeDescriptors, areCloseOnExecAndSocketsDoNotBlock)
{
    nqNamedPipeServer server;
    const std::string name = freshName();
    ASSERT_TRUE(server.listenUtf8(name));
    Event done;
    Child worker([&] {
        nqNamedPipe pipe;
        return pipe.connectToNamedPipeServerUtf8(name) && done.await() ? 0 : 1;
    });
    nqNamedPipe client;
    const auto watched = acceptOne(server);
    ASSERT_TRUE(client.connectToNamedPipeServerUtf8(name));
    const auto unwatched = acceptOne(server);
    const std::set<int> added = descriptorsSinceStart();
    EXPECT_GE(added.size(), 4U); // at least the listener and three ends of connections
    for (const int descriptor : added) {
        EXPECT_TRUE(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC) << descriptor;
        if (isSocket(descriptor)) {
            EXPECT_TRUE(::fcntl(descriptor, F_GETFL) & O_NONBLOCK) << descriptor;
        }
    }
    done.raise();
    EXPECT_EQ(worker.wait(), 0);
}

TEST_F(NamedPipeDescriptors, areOnlyTheSocketsWhenBothEndsAreInOneProcess)
{
    PipePair pair;
    ASSERT_TRUE(pair.mServerSide);
    const std::set<int> sockets{pair.mClient.getSocket(), pair.mServerSide->getSocket()};
    EXPECT_EQ(descriptorsSinceStart(), sockets);
}

TEST_F(NamedPipeDescriptors, areGivenUpRatherThanLeftOnAStandardStreamWhenNoOtherNumberIsFree)
{
    const Descriptor saved(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    ::close(STDIN_FILENO);
    {
        const DescriptorLimit limit;
        ASSERT_TRUE(limit.set(STDERR_FILENO + 1)); // the number just closed is the only free one
        const int fresh = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        EXPECT_EQ(fresh, STDIN_FILENO);
        const nq::nqDescriptor descriptor(fresh);
        EXPECT_FALSE(descriptor.isOpen());
        EXPECT_FALSE(isOpen(STDIN_FILENO));
    }
    if (saved.get() >= 0)
        ::dup2(saved.get(), STDIN_FILENO);
}

TEST_F(NamedPipeDescriptors, neverLandOnAStandardStreamOfAServer)
{
    const std::string name = freshName();
    Event listening;
    Child host([&] {
        closeStandardStreams();
        nqNamedPipeServer server;
        if (!server.listenUtf8(name))
            return 1;
        listening.raise();
        const auto pipe = acceptOne(server);
        if (!pipe || !pipe->isConnected())
            return 2;
        return standardStreamsAreStillClosed() ? 0 : 3;
    });
    ASSERT_TRUE(listening.await());
    nqNamedPipe worker;
    EXPECT_TRUE(worker.connectToNamedPipeServerUtf8(name));
    EXPECT_EQ(host.wait(), 0);
}

TEST_F(NamedPipeDescriptors, neverLandOnAStandardStreamOfAClient)
{
    const std::string name = freshName();
    nqNamedPipeServer server;
    ASSERT_TRUE(server.listenUtf8(name));
    Child worker([&] {
        closeStandardStreams();
        nqNamedPipe pipe;
        if (!pipe.connectToNamedPipeServerUtf8(name))
            return 1;
        append(pipe.outgoingBuffer(), "x");
        pipe.processNamedPipeEvents(0, false);
        return standardStreamsAreStillClosed() ? 0 : 2;
    });
    const auto pipe = acceptOne(server);
    EXPECT_EQ(worker.wait(), 0);
    ASSERT_TRUE(pipe);
    pipe->processNamedPipeEvents(0, false);
    EXPECT_EQ(text(pipe->incomingBuffer()), "x");
}

TEST_F(NamedPipeDescriptors, outOfTheRangeOfSelectAreNotReportedAndServedAllTheSame)
{
    const DescriptorLimit limit;
    if (!limit.set(enoughDescriptors))
        GTEST_SKIP() << "the hard limit of descriptors is below " << enoughDescriptors;
    const auto occupied = occupyNumbersBelowSelectLimit();
    ASSERT_GE(occupied.back().get(), FD_SETSIZE);
    PipePair pair;
    ASSERT_TRUE(pair.mServerSide);
    EXPECT_EQ(pair.mClient.getSocket(), -1);
    EXPECT_EQ(pair.mServerSide->getSocket(), -1);
    append(pair.mClient.outgoingBuffer(), "x");
    pair.mClient.processNamedPipeEvents(0, false);
    pair.mServerSide->processNamedPipeEvents(ampleMs, true);
    EXPECT_EQ(text(pair.mServerSide->incomingBuffer()), "x");
}

// The first number that a select() set has no room for.
TEST_F(NamedPipeDescriptors, atTheVeryLimitOfSelectAreNotReportedAndMoveBelowItWhenANumberIsFree)
{
    const DescriptorLimit limit;
    if (!limit.set(enoughDescriptors))
        GTEST_SKIP() << "the hard limit of descriptors is below " << enoughDescriptors;
    auto occupied = occupyNumbersBelowSelectLimit();
    ASSERT_EQ(occupied.back().get(), FD_SETSIZE);
    nqNamedPipeServer server;
    const std::string name = freshName();
    ASSERT_TRUE(server.listenUtf8(name));
    occupied.pop_back();
    nqNamedPipe pipe;
    ASSERT_TRUE(pipe.connectToNamedPipeServerUtf8(name));
    // It moves to the lowest free number each time that it looks for a better one.
    ASSERT_TRUE(pumpUntil(pipe, [&] { return isSocket(FD_SETSIZE); }));
    EXPECT_EQ(pipe.getSocket(), -1);

    occupied.clear();
    ASSERT_TRUE(pumpUntil(pipe, [&] { return pipe.getSocket() >= 0; }));
    EXPECT_LT(pipe.getSocket(), FD_SETSIZE);
    EXPECT_FALSE(isOpen(FD_SETSIZE));
}

TEST_F(NamedPipeDescriptors, moveOutOfTheRangeOfSelectFromItsLastNumber)
{
    const DescriptorLimit limit;
    if (!limit.set(enoughDescriptors))
        GTEST_SKIP() << "the hard limit of descriptors is below " << enoughDescriptors;
    nq::nqDescriptor descriptor(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, FD_SETSIZE - 1));
    ASSERT_EQ(descriptor.get(), FD_SETSIZE - 1);
    descriptor.moveOutOfRangeOfSelect();
    EXPECT_EQ(descriptor.get(), FD_SETSIZE);
    descriptor.moveOutOfRangeOfSelect();
    EXPECT_EQ(descriptor.get(), FD_SETSIZE) << "it is where it should be";
}

TEST_F(NamedPipeDescriptors, moveIntoTheRangeOfSelectWhenANumberIsFree)
{
    const DescriptorLimit limit;
    if (!limit.set(enoughDescriptors))
        GTEST_SKIP() << "the hard limit of descriptors is below " << enoughDescriptors;
    auto occupied = occupyNumbersBelowSelectLimit();
    ASSERT_GE(occupied.back().get(), FD_SETSIZE);
    PipePair pair;
    ASSERT_TRUE(pair.mServerSide);
    occupied.clear();
    ASSERT_TRUE(pumpUntil(pair.mClient, [&] { return pair.mClient.getSocket() >= 0; }));
    EXPECT_LT(pair.mClient.getSocket(), FD_SETSIZE);
    append(pair.mClient.outgoingBuffer(), "x");
    pair.mClient.processNamedPipeEvents(0, false);
    pair.mServerSide->processNamedPipeEvents(ampleMs, true);
    EXPECT_EQ(text(pair.mServerSide->incomingBuffer()), "x");
}

TEST_F(NamedPipeDescriptors, areNoneOfAPipeThatFailedToConnectForWantOfThem)
{
    nqNamedPipeServer server;
    const std::string name = freshName();
    ASSERT_TRUE(server.listenUtf8(name));
    nqNamedPipe pipe;
    const DescriptorLimit limit;
    ASSERT_TRUE(limit.exhaust());
    EXPECT_FALSE(pipe.connectToNamedPipeServerUtf8(name));
    EXPECT_FALSE(pipe.isConnected());
}

std::set<int> numbersInRangeOfSelect(const std::set<int>& descriptors)
{
    return {descriptors.begin(), descriptors.lower_bound(FD_SETSIZE)};
}

TEST_F(NamedPipeDescriptors, leaveTheRangeOfSelectToTheSocketsOfPipes)
{
    const DescriptorLimit limit;
    if (!limit.set(enoughDescriptors))
        GTEST_SKIP() << "the hard limit of descriptors is below " << enoughDescriptors;
    Event done;
    const std::set<int> before = openDescriptorNumbers();
    nqNamedPipeServer server;
    const std::string name = freshName();
    ASSERT_TRUE(server.listenUtf8(name));
    Child worker([&] {
        nqNamedPipe pipe;
        return pipe.connectToNamedPipeServerUtf8(name) && done.await() ? 0 : 1;
    });
    const auto pipe = acceptOne(server);
    ASSERT_TRUE(pipe);
    EXPECT_EQ(numbersInRangeOfSelect(descriptorsSince(before)), std::set<int>{pipe->getSocket()});
    done.raise();
    EXPECT_EQ(worker.wait(), 0);
}

TEST_F(NamedPipeDescriptors, stayWhereTheyAreWhereTheLimitDoesNotAllowMore)
{
    const DescriptorLimit limit;
    ASSERT_TRUE(limit.set(FD_SETSIZE));
    Event done;
    const std::set<int> before = openDescriptorNumbers();
    nqNamedPipeServer server;
    const std::string name = freshName();
    ASSERT_TRUE(server.listenUtf8(name));
    Child worker([&] {
        nqNamedPipe pipe;
        return pipe.connectToNamedPipeServerUtf8(name) && done.await() ? 0 : 1;
    });
    const auto pipe = acceptOne(server);
    ASSERT_TRUE(pipe);
    EXPECT_TRUE(pipe->isConnected());
    EXPECT_EQ(descriptorsSince(before).size(), 3U) << "the listener, the socket and the watch";
    done.raise();
    EXPECT_EQ(worker.wait(), 0);
    EXPECT_TRUE(pumpUntil(*pipe, [&] { return !pipe->isConnected(); }));
}

TEST_F(NamedPipeDescriptors, reportAWatchThatSelectCanHoldWhileTheBufferIsFull)
{
    const DescriptorLimit limit;
    if (!limit.set(enoughDescriptors))
        GTEST_SKIP() << "the hard limit of descriptors is below " << enoughDescriptors;
    Event done;
    const std::set<int> before = openDescriptorNumbers();
    nqNamedPipeServer server;
    const std::string name = freshName();
    ASSERT_TRUE(server.listenUtf8(name));
    Child worker([&] {
        nqNamedPipe pipe;
        if (!pipe.connectToNamedPipeServerUtf8(name))
            return 1;
        pipe.outgoingBuffer().assign(incomingLimit, 'x');
        return pumpUntil(pipe, [&] { return !pipe.hasPendingWrite(); }) && done.await() ? 0 : 2;
    });
    const auto pipe = acceptOne(server);
    ASSERT_TRUE(pipe);
    const int socket = pipe->getSocket();
    const auto isFull = [&] { return pipe->incomingBuffer().size() >= incomingLimit; };
    ASSERT_TRUE(pumpUntil(*pipe, isFull));
    const int watch = pipe->getSocket();
    EXPECT_NE(watch, socket);
    EXPECT_GE(watch, 0);
    EXPECT_LT(watch, FD_SETSIZE);

    pipe->incomingBuffer().clear();
    EXPECT_EQ(pipe->getSocket(), socket);
    pipe->processNamedPipeEvents(0, false);
    EXPECT_EQ(numbersInRangeOfSelect(descriptorsSince(before)).count(watch), 0U);
    done.raise();
    EXPECT_EQ(worker.wait(), 0);
}
