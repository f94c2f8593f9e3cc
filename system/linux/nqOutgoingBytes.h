#pragma once

#include <cstddef>
#include <vector>

namespace nq {

/// What waits to be sent on one pipe: a buffer, and behind it a range that still lies in the
/// memory of the one who lent it.
class nqOutgoingBytes {
public:
    std::vector<char>& buffer()
    {
        return mBuffer;
    }
    const std::vector<char>& buffer() const
    {
        return mBuffer;
    }

    std::size_t size() const
    {
        return mBuffer.size() + mLentSize;
    }
    std::size_t lentBytes() const
    {
        return mLentSize;
    }

    /// Adds a range at the end. A small one is copied, unless it continues the lent one.
    void lend(const char* bytes, std::size_t size);

    void copyLent();

    /// What is to be sent first, of more than nothing: the buffer, or when it is empty what is
    /// lent.
    struct Piece {
        const char* mBytes;
        std::size_t mSize;
    };
    Piece front() const;

    /// Forgets the first `count` bytes, or all.
    void drop(std::size_t count);
    void clear();

private:
    std::vector<char> mBuffer;
    const char* mLent = nullptr;
    std::size_t mLentSize = 0;
};

} // namespace nq
