#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// What the tests of several folders need.
namespace common {

using Bytes = std::vector<char>;

constexpr std::size_t headerBytes = 4;

inline Bytes bytes(std::string_view text)
{
    return {text.begin(), text.end()};
}

inline std::string text(const Bytes& bytes)
{
    return {bytes.begin(), bytes.end()};
}

inline void append(Bytes& bytes, std::string_view more)
{
    bytes.insert(bytes.end(), more.begin(), more.end());
}

inline void append(Bytes& bytes, const Bytes& more)
{
    bytes.insert(bytes.end(), more.begin(), more.end());
}

inline void eraseFront(Bytes& bytes, std::size_t count)
{
    bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count));
}

/// The first bytes, which are then no longer there.
inline Bytes takeFront(Bytes& bytes, std::size_t count)
{
    Bytes front(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count));
    eraseFront(bytes, count);
    return front;
}

/// The four bytes in front of a payload.
Bytes header(std::uint32_t length);

/// A payload as it travels on a pipe.
Bytes frame(std::string_view payload);
Bytes frame(const Bytes& payload);

} // namespace common
