#pragma once

#include <cstddef>

namespace common {

/// While it lives, the program is out of memory for every block of at least `bytes`. The tests are
/// single-threaded, and so is this.
class RefusedMemory {
public:
    explicit RefusedMemory(std::size_t bytes);
    ~RefusedMemory();
    RefusedMemory(const RefusedMemory&) = delete;
    RefusedMemory& operator=(const RefusedMemory&) = delete;

    /// False under a tool that puts its own allocator in place of this program's.
    static bool isPossible();
};

} // namespace common
