#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace nq {

/// The memory of payloads that are done, for those to come. Fresh memory for a large payload costs
/// more than the payload's way through the kernel: its pages are made and cleared one by one. An
/// echo of 64 MiB is twice as fast with it (`scripts/bench --only echo64m`), and a small job takes
/// no memory from the allocator.
///
/// The spares are few, and the oldest makes room for the latest.
class nqSpareMemory {
public:
    void keep(std::vector<char>&& payload) noexcept;

    /// The latest spare with room for `bytes` and not much more, still holding old bytes; or an
    /// empty vector.
    std::vector<char> take(std::size_t bytes);

    /// Whether `payload` holds a large memory of which `bytes` would leave most unused.
    static bool isWasted(const std::vector<char>& payload, std::size_t bytes);

    /// Many payloads in a row had no use for large memory. For the owner to release it then.
    bool isOutgrown() const
    {
        return mSmallInARow >= smallUntilOutgrown;
    }

    bool isEmpty() const
    {
        return mCount == 0;
    }

    /// What the spares hold in all.
    std::size_t bytes() const;

    void release() noexcept;

private:
    static constexpr std::size_t maxSpares = 4;
    static constexpr std::uint32_t smallUntilOutgrown = 64;

    std::vector<char> remove(std::size_t index);

    std::array<std::vector<char>, maxSpares> mSpares; // oldest first
    std::size_t mCount = 0;                           // of them
    std::uint32_t mSmallInARow = 0;                   // payloads, since large memory was of use
};

} // namespace nq
