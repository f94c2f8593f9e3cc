#include "tests/common/frame.h"

#include <algorithm>
#include <cstring>

namespace common {

Bytes header(std::uint32_t length)
{
    Bytes raw(headerBytes);
    std::memcpy(raw.data(), &length, headerBytes);
    return raw;
}

Bytes frame(std::string_view payload)
{
    const auto length = static_cast<std::uint32_t>(payload.size());
    Bytes framed(headerBytes + payload.size());
    std::memcpy(framed.data(), &length, headerBytes);
    std::copy(payload.begin(), payload.end(), framed.begin() + headerBytes);
    return framed;
}

Bytes frame(const Bytes& payload)
{
    return frame(std::string_view(payload.data(), payload.size()));
}

} // namespace common
