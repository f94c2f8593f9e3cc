#pragma once

#include <cstddef>
#include <cstdint>
#include <hiredis/hiredis.h>
#include <string_view>

namespace nq {

/// What Redis has answered. Borrows it; every question about something of another kind has a
/// harmless answer, so that whoever asks need not trust the other end.
class nqRedisReply {
public:
    explicit nqRedisReply(const redisReply* reply)
        : mReply(reply)
    {
    }

    bool isError() const
    {
        return mReply != nullptr && mReply->type == REDIS_REPLY_ERROR;
    }

    /// Whether it is an error whose text begins with `word`.
    bool isError(std::string_view word) const
    {
        return isError() && text().substr(0, word.size()) == word;
    }

    bool isNothing() const
    {
        return mReply == nullptr || mReply->type == REDIS_REPLY_NIL;
    }

    /// Empty unless it is a text, a status or an error.
    std::string_view text() const
    {
        if (mReply == nullptr || mReply->str == nullptr)
            return {};
        return {mReply->str, static_cast<std::size_t>(mReply->len)};
    }

    /// Of an integer, or of a text that is one; otherwise 0.
    std::uint64_t number() const;

    /// 0 unless it is an array.
    std::size_t size() const
    {
        return mReply != nullptr && mReply->type == REDIS_REPLY_ARRAY ? mReply->elements : 0;
    }

    /// Nothing beyond the end.
    nqRedisReply operator[](std::size_t index) const
    {
        return nqRedisReply(index < size() ? mReply->element[index] : nullptr);
    }

    /// The value that follows `key` in an array of keys and values.
    nqRedisReply find(std::string_view key) const;

private:
    const redisReply* mReply;
};

} // namespace nq
