#pragma once

#include "system/linux/nqPipeSocket.h"

#include <cstddef>
#include <vector>

namespace nq {

/// What has been received on one pipe and not yet taken: bytes in a range that the consumer has
/// given, and behind them a buffer for what comes when there is no range, or when it is full.
class nqIncomingBytes {
public:
    std::vector<char>& buffer()
    {
        return mBuffer;
    }
    const std::vector<char>& buffer() const
    {
        return mBuffer;
    }

    std::size_t untakenBytes() const
    {
        return mFilled + mBuffer.size();
    }

    /// Nothing fits until the consumer takes something.
    bool isFull() const
    {
        return !isFilling() && mBuffer.size() >= bufferLimitBytes;
    }

    /// Takes a large range in front of the buffer, which is empty, and declines a small one.
    void fill(char* bytes, std::size_t size);
    std::size_t takeFilled();
    void stopFilling();

    /// Whether the range has room left.
    bool isFilling() const
    {
        return mFilled < mRangeSize;
    }

    /// How many bytes the next call of receiveFrom may take.
    std::size_t room() const;

    /// Takes up to `wanted` bytes, more than none and within the room, from the kernel once. No
    /// byte is lost when there is no memory for them.
    nqTransfer receiveFrom(int socket, std::size_t wanted);

    void clear();

private:
    // One flooding worker does not grow the host beyond this.
    static constexpr std::size_t bufferLimitBytes = std::size_t{256} << 10;

    std::vector<char> mBuffer;
    char* mRange = nullptr; // its first untaken byte
    std::size_t mRangeSize = 0;
    std::size_t mFilled = 0;
};

} // namespace nq
