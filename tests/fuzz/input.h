#pragma once

#include "tests/common/frame.h"
#include "tests/common/random.h"

#include <cstddef>
#include <cstdint>

namespace fuzz {

using common::Bytes;

/// Under a target, memory of this many bytes and more is refused, so that a length that a hostile
/// peer announces costs what it costs on a host that does not have that memory.
constexpr std::size_t refusedBytes = std::size_t{1} << 16;

/// All that one input can make of itself stays so far below that nothing but such a length is ever
/// refused, a buffer that doubles included.
constexpr std::size_t mostBytes = std::size_t{1} << 14;

/// Reads an input of the fuzzer as a row of choices. Behind its end, every choice is the first.
class Input : public common::Random {
public:
    Input(const std::uint8_t* data, std::size_t size);

    bool isAtEnd() const;
    std::uint8_t byte();
    std::uint16_t twoBytes();

    /// Takes as many bytes as `end` needs.
    std::uint64_t below(std::uint64_t end) override;

    /// As they stand in the input if they are few, and else made of one byte of it.
    Bytes bytes(std::size_t count) override;

    /// Bytes as they stand in the input.
    Bytes rawBytes();
    /// Up to 65535 bytes, as long as this input may still have some. No two stretches are alike,
    /// and where they are read as headers, many of these announce little: a refused one takes long.
    Bytes manyBytes();
    /// What a peer sends in one go: anything, or a header with or without what it announces.
    Bytes sent();

private:
    Bytes made(std::size_t count);
    Bytes take(std::size_t count);
    std::uint32_t length();

    const std::uint8_t* mData;
    std::size_t mLeft;
    std::size_t mMayMake = mostBytes;
    std::uint32_t mPattern = 1;
};

} // namespace fuzz
