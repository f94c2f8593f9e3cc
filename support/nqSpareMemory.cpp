#include "support/nqSpareMemory.h"

#include <numeric>
#include <utility>

namespace nq {

namespace {

// Below this the allocator hands out memory that it has at hand.
constexpr std::size_t largeBytes = std::size_t{64} << 10;

} // namespace

void nqSpareMemory::keep(std::vector<char>&& payload) noexcept
{
    if (payload.capacity() == 0)
        return;
    if (mCount == maxSpares)
        remove(0);
    mSpares[mCount] = std::move(payload);
    ++mCount;
}

// The latest: the processor's cache still holds its bytes.
std::vector<char> nqSpareMemory::take(std::size_t bytes)
{
    ++mUselessInARow;
    for (std::size_t i = mCount; i-- > 0;) {
        if (!fits(mSpares[i], bytes))
            continue;
        if (bytes >= largeBytes && !isWasted(mSpares[i], bytes))
            mUselessInARow = 0;
        return remove(i);
    }
    if (mFit == Fit::loosely)
        release();
    return {};
}

bool nqSpareMemory::fits(const std::vector<char>& spare, std::size_t bytes) const
{
    return spare.capacity() >= bytes && (mFit == Fit::loosely || !isWasted(spare, bytes));
}

std::vector<char> nqSpareMemory::remove(std::size_t index)
{
    std::vector<char> removed = std::move(mSpares[index]);
    for (--mCount; index < mCount; ++index)
        mSpares[index] = std::move(mSpares[index + 1]);
    return removed;
}

bool nqSpareMemory::isWasted(const std::vector<char>& payload, std::size_t bytes)
{
    return payload.capacity() >= largeBytes && payload.capacity() / 2 > bytes;
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
    mCount = 0;
    mUselessInARow = 0;
}

} // namespace nq
