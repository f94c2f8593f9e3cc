#pragma once

#include <boost/system/error_code.hpp>
#include <cstddef>
#include <limits>

namespace bench {

constexpr int sendBufferBytes = 1 << 20; // as the library asks for

/// The condition by which a read or a write offers the kernel the whole payload at a time. The
/// default offers 64 KiB, which halves the speed of large ones.
struct Whole {
    std::size_t operator()(const boost::system::error_code& error, std::size_t) const
    {
        return error ? 0 : std::numeric_limits<std::size_t>::max();
    }
};

} // namespace bench
