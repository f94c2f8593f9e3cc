#include "cluster/nqRedisReply.h"

namespace nq {

std::uint64_t nqRedisReply::number() const
{
    if (mReply == nullptr)
        return 0;
    if (mReply->type == REDIS_REPLY_INTEGER)
        return mReply->integer < 0 ? 0 : static_cast<std::uint64_t>(mReply->integer);
    std::uint64_t number = 0;
    for (const char digit : text()) {
        if (digit < '0' || digit > '9')
            return 0;
        number = number * 10 + static_cast<std::uint64_t>(digit - '0');
    }
    return number;
}

nqRedisReply nqRedisReply::find(std::string_view key) const
{
    for (std::size_t i = 0; i + 1 < size(); i += 2) {
        if ((*this)[i].text() == key)
            return (*this)[i + 1];
    }
    return nqRedisReply(nullptr);
}

} // namespace nq
