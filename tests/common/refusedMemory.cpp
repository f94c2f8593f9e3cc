#include "tests/common/refusedMemory.h"

#include <cstdlib>
#include <limits>
#include <new>

namespace {

constexpr std::size_t nothing = std::numeric_limits<std::size_t>::max();
std::size_t smallestRefused = nothing;

} // namespace

namespace common {

RefusedMemory::RefusedMemory(std::size_t bytes)
{
    smallestRefused = bytes;
}

RefusedMemory::~RefusedMemory()
{
    smallestRefused = nothing;
}

bool RefusedMemory::isPossible()
{
    const RefusedMemory refused(1);
    try {
        ::operator delete(::operator new(1));
        return false;
    } catch (const std::bad_alloc&) {
        return true;
    }
}

} // namespace common

// Not inlined: the compiler would see the library's memory handed to free, and say so.
[[gnu::noinline]] void* operator new(std::size_t size)
{
    if (size < smallestRefused) {
        if (void* memory = std::malloc(size == 0 ? 1 : size))
            return memory;
    }
    throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept
{
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept
{
    std::free(memory);
}
