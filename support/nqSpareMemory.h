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
    /// How well memory has to fit a payload.
    enum class Fit {
        loosely, // it comes back when the payload is done: any that is large enough
        closely, // it may be gone for long: also not much larger
    };

    explicit nqSpareMemory(Fit fit)
        : mFit(fit)
    {
    }

    void keep(std::vector<char>&& payload) noexcept;

    /// The latest spare that fits `bytes`, still holding old bytes; or an empty vector. Where
    /// memory has to fit loosely, the spares that are too small are released first: whoever takes
    /// fresh memory must not hold more than it needs.
    std::vector<char> take(std::size_t bytes);

    /// Whether `payload` holds a large memory of which `bytes` would leave most unused.
    static bool isWasted(const std::vector<char>& payload, std::size_t bytes);

    /// Large memory was of no use for many payloads in a row. For the owner to release it then.
    bool isOutgrown() const
    {
        return mUselessInARow >= uselessUntilOutgrown;
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
    static constexpr std::uint32_t uselessUntilOutgrown = 64;

    bool fits(const std::vector<char>& spare, std::size_t bytes) const;
    std::vector<char> remove(std::size_t index);

    const Fit mFit;
    std::array<std::vector<char>, maxSpares> mSpares; // oldest first
    std::size_t mCount = 0;                           // of them
    std::uint32_t mUselessInARow = 0;                 // payloads
};

} // namespace nq
