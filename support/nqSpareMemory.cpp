#include "support/nqSpareMemory.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace nq {

namespace {

// Below this the allocator hands out memory that it has at hand.
constexpr std::size_t largeBytes = std::size_t{64} << 10;

constexpr std::uint32_t smallUntilOutgrown = 64;

bool isLarge(const std::vector<char>& payload)
{
    return payload.capacity() >= largeBytes;
}

} // namespace

void nqSpareMemory::keep(std::vector<char>&& payload) noexcept
{
    if (payload.capacity() == 0)
        return;
    if (isLarge(payload))
        mSmallInARow = 0;
    std::rotate(mSpares.begin(), mSpares.end() - 1, mSpares.end());
    mSpares.front() = std::move(payload);
}

// The latest: the processor's cache still holds its bytes.
std::vector<char> nqSpareMemory::take(std::size_t bytes)
{
    const auto fits = [bytes](const std::vector<char>& spare) {
        return spare.capacity() >= bytes && !isWasted(spare, bytes);
    };
    const auto spare = std::find_if(mSpares.begin(), mSpares.end(), fits);
    if (spare == mSpares.end() || !isLarge(*spare))
        ++mSmallInARow;
    else
        mSmallInARow = 0;
    if (spare == mSpares.end())
        return {};
    std::vector<char> taken = std::move(*spare);
    std::rotate(spare, spare + 1, mSpares.end());
    return taken;
}

bool nqSpareMemory::isWasted(const std::vector<char>& payload, std::size_t bytes)
{
    return isLarge(payload) && payload.capacity() / 2 > bytes;
}

bool nqSpareMemory::isOutgrown() const
{
    return mSmallInARow >= smallUntilOutgrown;
}

bool nqSpareMemory::isEmpty() const
{
    return mSpares.front().capacity() == 0;
}

std::size_t nqSpareMemory::bytes() const
{
    const auto add = [](std::size_t sum, const std::vector<char>& spare) {
        return sum + spare.capacity();
    };
    return std::accumulate(mSpares.begin(), mSpares.end(), std::size_t{0}, add);
}

void nqSpareMemory::release() noexcept
{
    mSpares = {};
    mSmallInARow = 0;
}

} // namespace nq
