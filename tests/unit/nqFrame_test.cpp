#include "worker/nqFrame.h"

#include "tests/common/refusedMemory.h"
#include "tests/unit/testSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <limits>
#include <new>
#include <string>
#include <utility>

namespace {

using nq::nqFrame;
using support::Bytes;
using support::bytes;
using support::frame;
using support::header;

using support::operator+; // NOLINT(misc-unused-using-decls): the check overlooks operators

#ifdef __SANITIZE_ADDRESS__
constexpr bool isSanitized = true; // every byte costs more than a byte then
#else
constexpr bool isSanitized = false;
#endif

/// Whether a test may take so much memory: where there is plenty left, and no tool watches each
/// byte of it.
bool mayTake(std::size_t bytesWanted)
{
    if (isSanitized || !common::RefusedMemory::isPossible())
        return false;
    std::ifstream figures("/proc/meminfo");
    std::string name;
    std::size_t kibibytes = 0;
    while (figures >> name >> kibibytes) {
        if (name == "MemAvailable:")
            return kibibytes / 2 > bytesWanted / 1024;
        figures.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    }
    return false;
}

/// One open pipe and one frame in each direction.
class Frame : public testing::Test {
protected:
    scripted::Machine machine;
    scripted::Pipe& script = machine.planPipe();
    nq::nqNamedPipe pipe;
    Bytes payload;
    nq::nqSpareMemory spares{nq::nqSpareMemory::Fit::closely};
    std::int32_t count = 0;

    bool receive(bool mayStart = true)
    {
        return nqFrame::receive(pipe, payload, count, mayStart, spares);
    }
};

TEST_F(Frame, hasItsLengthInFourLittleEndianBytesAndNothingElse)
{
    nqFrame::sendHeader(pipe, Bytes(0x010203));
    EXPECT_EQ(script.outgoing, (Bytes{3, 2, 1, 0}));
}

TEST_F(Frame, hasALengthOfZeroForAnEmptyPayload)
{
    nqFrame::sendHeader(pipe, {});
    EXPECT_EQ(script.outgoing, (Bytes{0, 0, 0, 0}));
}

TEST_F(Frame, putsAsMuchOfItsHeaderIntoTheBufferAsThereIsRoomOnPurpose)
{
    const Bytes whole{1, 2, 0, 0};
    for (const int room : {0, 1, 2, 3, 4, 5}) {
        script.outgoing = bytes("old");
        script.outgoingLimit = 3 + static_cast<std::uint64_t>(room);
        nqFrame::sendHeader(pipe, Bytes(0x0201));
        const Bytes expected(whole.begin(), whole.begin() + std::min(room, 4));
        EXPECT_EQ(script.outgoing, bytes("old") + expected);
    }
}

TEST_F(Frame, addsNothingToABufferThatIsFullerThanItsLimit)
{
    script.outgoing = bytes("older");
    script.outgoingLimit = 3;
    nqFrame::sendHeader(pipe, bytes("x"));
    nqFrame::sendPayload(pipe, bytes("x"), count);
    EXPECT_EQ(script.outgoing, bytes("older"));
    EXPECT_EQ(count, 0);
}

TEST_F(Frame, sendsOnlyTheHeaderOfAPayloadThatFourSignedBytesCannotCountOnPurpose)
{
    constexpr std::size_t tooLarge = std::size_t{1} << 31;
    if (!mayTake(tooLarge))
        GTEST_SKIP() << "two gibibytes are more than may be taken here";
    const Bytes huge(tooLarge);
    nqFrame::sendHeader(pipe, huge);
    nqFrame::sendPayload(pipe, huge, count);
    EXPECT_EQ(script.outgoing, bytes(std::string("\0\0\0\x80", 4)));
    EXPECT_EQ(count, 0);
    EXPECT_FALSE(nqFrame::isSendPending(huge, count));
}

TEST_F(Frame, sendsNeitherHeaderNorPayloadWithoutAConnection)
{
    script.isConnected = false;
    nqFrame::sendHeader(pipe, bytes("x"));
    nqFrame::sendPayload(pipe, bytes("x"), count);
    EXPECT_TRUE(script.outgoing.empty());
    EXPECT_EQ(count, 0);
}

TEST_F(Frame, sendsNeitherHeaderNorPayloadIntoAClosedWriteChannel)
{
    script.isWriteChannelClosed = true;
    nqFrame::sendHeader(pipe, bytes("x"));
    nqFrame::sendPayload(pipe, bytes("x"), count);
    EXPECT_TRUE(script.outgoing.empty());
    EXPECT_EQ(count, 0);
}

TEST_F(Frame, sendsThoughTheReadChannelIsClosed)
{
    script.isReadChannelClosed = true;
    nqFrame::sendPayload(pipe, bytes("abc"), count);
    EXPECT_EQ(script.outgoing, bytes("abc"));
    EXPECT_EQ(count, 3);
}

TEST_F(Frame, sendsItsPayloadFromTheOffsetOn)
{
    count = 2;
    nqFrame::sendPayload(pipe, bytes("abcde"), count);
    EXPECT_EQ(script.outgoing, bytes("cde"));
    EXPECT_EQ(count, 5);
}

TEST_F(Frame, sendsAsMuchPayloadAsThereIsRoom)
{
    script.outgoingLimit = 4;
    script.outgoing = bytes("x");
    nqFrame::sendPayload(pipe, bytes("abcde"), count);
    EXPECT_EQ(script.outgoing, bytes("xabc"));
    EXPECT_EQ(count, 3);
    nqFrame::sendPayload(pipe, bytes("abcde"), count);
    EXPECT_EQ(count, 3);
}

TEST_F(Frame, isThroughWhenItsLastByteIsInTheBuffer)
{
    EXPECT_TRUE(nqFrame::isSendPending(bytes("ab"), 0));
    EXPECT_TRUE(nqFrame::isSendPending(bytes("ab"), 1));
    EXPECT_FALSE(nqFrame::isSendPending(bytes("ab"), 2));
    EXPECT_FALSE(nqFrame::isSendPending({}, 0));
    count = 2;
    nqFrame::sendPayload(pipe, bytes("ab"), count);
    EXPECT_TRUE(script.outgoing.empty());
}

TEST_F(Frame, isReceivedWholeWhenItArrivesAtOnce)
{
    script.incoming = frame("payload");
    EXPECT_TRUE(receive());
    EXPECT_EQ(payload, bytes("payload"));
    EXPECT_EQ(count, 7);
    EXPECT_TRUE(script.incoming.empty());
}

TEST_F(Frame, isNotStartedBeforeItsFourLengthBytesAreThere)
{
    script.incoming = {7, 0, 0};
    count = 99;
    EXPECT_FALSE(receive());
    EXPECT_EQ(count, 0);
    EXPECT_TRUE(payload.empty());
    EXPECT_EQ(script.incoming.size(), 3U);
}

TEST_F(Frame, hasItsFinalSizeInZerosOnceItsHeaderIsThere)
{
    script.incoming = header(3);
    EXPECT_FALSE(receive());
    EXPECT_EQ(payload, Bytes(3, '\0'));
    EXPECT_EQ(count, 0);
    EXPECT_TRUE(script.incoming.empty());
}

TEST_F(Frame, growsByWhatArrives)
{
    script.incoming = header(5) + bytes("ab");
    EXPECT_FALSE(receive());
    EXPECT_EQ(count, 2);
    EXPECT_FALSE(receive());
    script.incoming = bytes("cd");
    EXPECT_FALSE(receive());
    script.incoming = bytes("e");
    EXPECT_TRUE(receive());
    EXPECT_EQ(payload, bytes("abcde"));
}

TEST_F(Frame, leavesTheFrameBehindItInTheBuffer)
{
    script.incoming = frame("one") + frame("two");
    EXPECT_TRUE(receive());
    EXPECT_EQ(payload, bytes("one"));
    EXPECT_EQ(script.incoming, frame("two"));
}

TEST_F(Frame, isConsumedButNotReceivedWhenItIsEmptyOnPurpose)
{
    script.incoming = frame("") + frame("x");
    EXPECT_FALSE(receive());
    EXPECT_TRUE(payload.empty());
    EXPECT_EQ(script.incoming, frame("x"));
}

TEST_F(Frame, takesNothingWithoutAConnection)
{
    script.isConnected = false;
    script.incoming = frame("x");
    EXPECT_FALSE(receive());
    EXPECT_EQ(script.incoming, frame("x"));

    script.isConnected = true;
    script.incoming = header(3) + bytes("ab");
    EXPECT_FALSE(receive());
    script.isConnected = false;
    script.incoming = bytes("c");
    EXPECT_FALSE(receive());
    EXPECT_EQ(script.incoming, bytes("c"));
}

TEST_F(Frame, isWholeAtOnceWhenItMayNotStartAndNothingIsAwaitedOnPurpose)
{
    script.incoming = frame("x");
    EXPECT_TRUE(receive(false));
    EXPECT_TRUE(payload.empty());
    EXPECT_EQ(script.incoming, frame("x"));
}

TEST_F(Frame, closesThePipeWhenThereIsNoMemoryForItSoThatNoPayloadIsTakenForAHeader)
{
    if (!common::RefusedMemory::isPossible())
        GTEST_SKIP();
    constexpr std::uint32_t large = 1U << 20;
    script.incoming = header(large) + bytes("payload");
    {
        const common::RefusedMemory refused(large);
        EXPECT_THROW(receive(), std::bad_alloc);
    }
    EXPECT_FALSE(pipe.isConnected());
    EXPECT_TRUE(script.incoming.empty());
    EXPECT_TRUE(payload.empty());
    EXPECT_FALSE(receive());
}

TEST_F(Frame, takesTheMemoryOfASpareAndShowsNoneOfItsBytes)
{
    Bytes spare = bytes("old bytes");
    const char* const memory = spare.data();
    spares.keep(std::move(spare));
    script.incoming = frame("new");
    EXPECT_TRUE(receive());
    EXPECT_EQ(payload, bytes("new"));
    EXPECT_EQ(payload.data(), memory);
}

TEST_F(Frame, leavesASpareAloneUntilAPayloadStarts)
{
    spares.keep(bytes("old"));
    script.incoming = {'\1', '\0', '\0'};
    EXPECT_FALSE(receive());
    script.incoming = header(0);
    EXPECT_FALSE(receive());
    EXPECT_FALSE(spares.isEmpty());
}

TEST_F(Frame, goesOnThoughANewOneMayNotStart)
{
    script.incoming = header(2) + bytes("a");
    EXPECT_FALSE(receive());
    script.incoming = bytes("b");
    EXPECT_TRUE(receive(false));
    EXPECT_EQ(payload, bytes("ab"));
}

} // namespace
