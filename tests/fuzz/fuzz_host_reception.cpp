// The receiver of frames as the host uses it: bytes of a hostile worker, cut anywhere, over a pipe
// that may lose its connection between any two of them.

#include "tests/common/refusedMemory.h"
#include "tests/fuzz/expectation.h"
#include "tests/fuzz/input.h"
#include "tests/scripted/scriptedMachine.h"

#include "system/nqNamedPipe.h"
#include "worker/nqFrame.h"

#include <new>
#include <utility>

namespace {

using fuzz::Bytes;
using fuzz::require;
using Outcome = fuzz::ExpectedReader::Outcome;

class Reception {
public:
    explicit Reception(fuzz::Input& input)
        : mInput(input),
          mRecord(mMachine.planPipe())
    {
    }

    void play()
    {
        while (!mInput.isAtEnd() && !mIsClosed)
            playEvent();
        if (!mIsClosed)
            end();
    }

private:
    void playEvent()
    {
        switch (mInput.byte() % 8) {
        case 0:
        case 1:
            deliver(mInput.sent());
            break;
        case 2:
            deliver(mInput.sent());
            step();
            break;
        case 3:
            mPieceBytes = mInput.byte() % 8u;
            break;
        case 4:
            mRecord.isConnected = !mRecord.isConnected;
            break;
        default:
            for (unsigned left = 1 + mInput.byte() % 8u; left > 0 && !mIsClosed; --left)
                step();
        }
    }

    /// In pieces of the size set before; what is left after a number of them comes at once.
    void deliver(const Bytes& bytes)
    {
        common::append(mStream, bytes);
        Bytes rest = bytes;
        for (int pieces = 16; mPieceBytes != 0 && rest.size() > mPieceBytes && pieces > 0;
             --pieces) {
            const auto end = rest.begin() + static_cast<std::ptrdiff_t>(mPieceBytes);
            mRecord.arrivals.emplace_back(rest.begin(), end);
            rest.erase(rest.begin(), end);
        }
        mRecord.arrivals.push_back(std::move(rest));
    }

    void step()
    {
        mMachine.calls.clear();
        mMachine.trace.clear();
        if (!mRecord.arrivals.empty())
            mExpected.arrive(mRecord.arrivals.front());
        mPipe.processNamedPipeEvents(0, false);
        if (mPipe.incomingBuffer().empty())
            return;
        const Outcome expected = mRecord.isConnected ? mExpected.step() : Outcome::waits;
        require(receive() == expected, "the outcome of a step");
        if (expected == Outcome::throws) {
            require(!mRecord.isConnected && mPayload.empty(), "nobody reads on without memory");
            mIsClosed = true;
            return;
        }
        require(mRecord.incoming == mExpected.unread(), "what a step leaves for the next");
        if (expected != Outcome::isWhole)
            return;
        require(mPayload == mExpected.payload(), "the bytes of a payload");
        ++mWholeCount;
        mPayload = {};
        mReceived = 0;
    }

    Outcome receive()
    {
        const common::RefusedMemory refused(fuzz::refusedBytes);
        try {
            return nq::nqFrame::receive(mPipe, mPayload, mReceived, true) ? Outcome::isWhole
                                                                          : Outcome::waits;
        } catch (const std::bad_alloc&) {
            return Outcome::throws;
        }
    }

    /// However the stream was cut, it holds the same payloads.
    void end()
    {
        mRecord.isConnected = true;
        const std::size_t mostSteps = mRecord.arrivals.size() + mStream.size();
        for (std::size_t left = mostSteps; left > 0 && !isDrained() && !mIsClosed; --left)
            step();
        if (mIsClosed)
            return;
        require(isDrained(), "the receiver takes what it can");
        require(mWholeCount == fuzz::payloadsOf(mStream).size(), "every payload was received once");
        require(
            mPayload.empty() || static_cast<std::size_t>(mReceived) < mPayload.size(),
            "a whole payload is handed over");
    }

    bool isDrained() const
    {
        const std::size_t least = mExpected.isWithinPayload() ? 1 : nq::nqFrame::headerBytes;
        return mRecord.arrivals.empty() && mRecord.incoming.size() < least;
    }

    fuzz::Input& mInput;
    scripted::Machine mMachine;
    scripted::Pipe& mRecord;
    nq::nqNamedPipe mPipe;
    Bytes mPayload;
    std::int32_t mReceived = 0;
    fuzz::ExpectedReader mExpected;
    Bytes mStream; ///< all that was ever delivered
    std::size_t mPieceBytes = 0;
    std::size_t mWholeCount = 0;
    bool mIsClosed = false; ///< by the receiver, for want of memory
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::Input input(data, size);
    Reception(input).play();
    return 0;
}
