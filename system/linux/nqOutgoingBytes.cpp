#include "system/linux/nqOutgoingBytes.h"

#include <algorithm>
#include <cstddef>

namespace nq {

namespace {

// The copy takes less time than a second send, whose first has woken the peer for a header alone:
// 1.4 times as many echoes of 16 KiB on one processor (`bench-ours --bytes 16384 --processors 0`).
constexpr std::size_t largestCopy = std::size_t{32} << 10;

} // namespace

void nqOutgoingBytes::lend(const char* bytes, std::size_t size)
{
    if (mLentSize != 0 && mLent + mLentSize == bytes) {
        mLentSize += size;
        return;
    }
    copyLent();
    if (size > largestCopy) {
        mLent = bytes;
        mLentSize = size;
    } else {
        mBuffer.insert(mBuffer.end(), bytes, bytes + size);
    }
}

void nqOutgoingBytes::copyLent()
{
    mBuffer.insert(mBuffer.end(), mLent, mLent + mLentSize);
    mLentSize = 0;
}

nqOutgoingBytes::Piece nqOutgoingBytes::front() const
{
    return mBuffer.empty() ? Piece{mLent, mLentSize} : Piece{mBuffer.data(), mBuffer.size()};
}

void nqOutgoingBytes::drop(std::size_t count)
{
    const std::size_t buffered = std::min(count, mBuffer.size());
    mBuffer.erase(mBuffer.begin(), mBuffer.begin() + static_cast<std::ptrdiff_t>(buffered));
    mLent += count - buffered;
    mLentSize -= count - buffered;
}

void nqOutgoingBytes::clear()
{
    mBuffer.clear();
    mLentSize = 0;
}

} // namespace nq
