#include "cluster/nqRedisCommand.h"

#include <array>
#include <charconv>
#include <utility>

namespace nq {

namespace {

constexpr std::size_t copiedUpTo = 4096; // bytes; less than what a piece of its own costs

constexpr std::size_t usualSize = 512; // of a command's text, so that it need not grow

void addHeader(std::string& text, char kind, std::size_t number)
{
    std::array<char, 24> header{kind};
    char* const end = std::to_chars(&header[1], header.end() - 2, number).ptr;
    end[0] = '\r';
    end[1] = '\n';
    text.append(header.data(), end + 2);
}

} // namespace

nqRedisCommand::nqRedisCommand(std::initializer_list<std::string_view> words)
{
    for (const std::string_view word : words)
        add(word);
}

std::string& nqRedisCommand::tail()
{
    if (mPieces.empty() || mPieces.back().payload != nullptr) {
        mPieces.emplace_back();
        mPieces.back().text.reserve(mPieces.size() == 1 ? usualSize : 0);
    }
    return mPieces.back().text;
}

nqRedisCommand& nqRedisCommand::add(std::string_view word)
{
    std::string& text = tail();
    addHeader(text, '$', word.size());
    text += word;
    text += "\r\n";
    mSize += word.size();
    ++mWords;
    return *this;
}

nqRedisCommand& nqRedisCommand::add(const char* word)
{
    return add(std::string_view(word));
}

nqRedisCommand& nqRedisCommand::add(std::uint64_t number)
{
    return add(std::string_view(std::to_string(number)));
}

nqRedisCommand& nqRedisCommand::add(const nqSharedBytes& payload)
{
    if (payload->size() <= copiedUpTo)
        return add(std::string_view(payload->data(), payload->size()));
    addHeader(tail(), '$', payload->size());
    mPieces.back().payload = payload;
    tail() = "\r\n";
    mSize += payload->size();
    ++mWords;
    return *this;
}

std::vector<nqRedisCommand::Piece> nqRedisCommand::take()
{
    std::string header;
    addHeader(header, '*', std::exchange(mWords, 0));
    if (!mPieces.empty())
        mPieces.front().text.insert(0, header);
    mSize = 0;
    return std::exchange(mPieces, {});
}

std::size_t nqRedisCommand::size() const
{
    return mSize;
}

} // namespace nq
