#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace nq {

/// The bytes of a job or a result, which a ledger and what is being sent share.
using nqSharedBytes = std::shared_ptr<std::vector<char>>;

/// One command on its way to Redis: text, and large payloads where they are.
class nqRedisCommand {
public:
    struct Piece {
        std::string text;      ///< goes first
        nqSharedBytes payload; ///< follows; may be null
    };

    nqRedisCommand() = default;
    nqRedisCommand(std::initializer_list<std::string_view> words);

    nqRedisCommand& add(std::string_view word);
    nqRedisCommand& add(const char* word);
    nqRedisCommand& add(std::uint64_t number);
    nqRedisCommand& add(const nqSharedBytes& payload);

    /// The whole, with its header, to be sent one after the other.
    std::vector<Piece> take();

    /// How many bytes it has, headers aside.
    std::size_t size() const;

private:
    std::string& tail();

    std::size_t mWords = 0;
    std::size_t mSize = 0;
    std::vector<Piece> mPieces;
};

} // namespace nq
