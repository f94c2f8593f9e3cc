#include "tests/fuzz/input.h"

#include <algorithm>
#include <limits>

namespace fuzz {

namespace {

// More than a header has, so that headers in a row do not all fall alike.
constexpr std::size_t bytesPerRandomOne = 5;

constexpr std::size_t fewBytes = 32;

} // namespace

Input::Input(const std::uint8_t* data, std::size_t size)
    : mData(data),
      mLeft(std::min(size, mostBytes))
{
    mMayMake -= mLeft;
}

bool Input::isAtEnd() const
{
    return mLeft == 0;
}

std::uint8_t Input::byte()
{
    if (mLeft == 0)
        return 0;
    --mLeft;
    return *mData++;
}

std::uint16_t Input::twoBytes()
{
    const unsigned low = byte();
    return static_cast<std::uint16_t>(low | static_cast<unsigned>(byte()) << 8);
}

Bytes Input::take(std::size_t count)
{
    count = std::min(count, mLeft);
    Bytes taken(mData, mData + count);
    mData += count;
    mLeft -= count;
    return taken;
}

Bytes Input::rawBytes()
{
    return take(byte() % 32u);
}

Bytes Input::manyBytes()
{
    const std::size_t count = std::min<std::size_t>(twoBytes(), mMayMake);
    mMayMake -= count;
    return made(count);
}

Bytes Input::bytes(std::size_t count)
{
    if (count <= fewBytes) {
        Bytes taken = take(count);
        taken.resize(count);
        return taken;
    }
    mPattern ^= byte();
    return made(count);
}

std::uint64_t Input::below(std::uint64_t end)
{
    std::uint64_t number = 0;
    for (std::uint64_t reach = end - 1; reach != 0; reach >>= 8)
        number = number << 8 | byte();
    return number % end;
}

Bytes Input::made(std::size_t count)
{
    Bytes all(count);
    for (std::size_t i = 0; i < count; i += bytesPerRandomOne) {
        mPattern = mPattern * 1664525u + 1013904223u;
        all[i] = static_cast<char>(mPattern >> 24);
    }
    return all;
}

std::uint32_t Input::length()
{
    constexpr std::uint32_t most = std::numeric_limits<std::uint32_t>::max();
    constexpr std::uint32_t mostSigned = std::numeric_limits<std::int32_t>::max();
    return pick<std::uint32_t>(
        {0,
         1,
         2,
         5,
         twoBytes(),
         refusedBytes - 1,
         refusedBytes,
         mostSigned,
         mostSigned + 1,
         most - 1,
         most});
}

Bytes Input::sent()
{
    switch (byte() % 5) {
    case 0:
        return common::frame(rawBytes());
    case 1:
        return common::frame(manyBytes());
    case 2:
        return common::header(length());
    case 3:
        return manyBytes();
    default:
        return rawBytes();
    }
}

} // namespace fuzz
