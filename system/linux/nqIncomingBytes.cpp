#include "system/linux/nqIncomingBytes.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace nq {

namespace {

// What one read takes without a range: a header with a payload that its sender copied.
constexpr std::size_t readBytes = std::size_t{36} << 10;

// The rest of a smaller payload comes with one more read, which may bring the next frame as well.
constexpr std::size_t smallestRange = std::size_t{8} << 10;

} // namespace

void nqIncomingBytes::fill(char* bytes, std::size_t size)
{
    mRange = bytes;
    mRangeSize = size < smallestRange ? 0 : size;
    mFilled = 0;
}

std::size_t nqIncomingBytes::takeFilled()
{
    mRange += mFilled;
    mRangeSize -= mFilled;
    return std::exchange(mFilled, 0);
}

void nqIncomingBytes::stopFilling()
{
    mBuffer.insert(mBuffer.begin(), mRange, mRange + mFilled);
    mFilled = 0;
    mRangeSize = 0;
}

std::size_t nqIncomingBytes::room() const
{
    if (isFilling())
        return mRangeSize - mFilled;
    return std::min(readBytes, bufferLimitBytes - std::min(bufferLimitBytes, mBuffer.size()));
}

nqTransfer nqIncomingBytes::receiveFrom(int socket, std::size_t wanted)
{
    if (isFilling()) {
        const nqTransfer received = receiveOnce(socket, mRange + mFilled, wanted);
        mFilled += received.mCount;
        return received;
    }
    mBuffer.reserve(mBuffer.size() + wanted);
    char aside[readBytes]; // the buffer could only grow by zeros first
    const nqTransfer received = receiveOnce(socket, aside, wanted);
    mBuffer.insert(mBuffer.end(), aside, aside + received.mCount);
    return received;
}

void nqIncomingBytes::clear()
{
    mBuffer.clear();
    mFilled = 0;
    mRangeSize = 0;
}

} // namespace nq
