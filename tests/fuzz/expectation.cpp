#include "tests/fuzz/expectation.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>

namespace fuzz {

namespace {

using common::append;
using common::eraseFront;
using common::headerBytes;

/// Least significant byte first, as on every machine that the libraries are built for.
std::size_t lengthAt(const Bytes& bytes, std::size_t offset)
{
    std::size_t length = 0;
    for (std::size_t i = headerBytes; i > 0; --i)
        length = length * 256 + static_cast<unsigned char>(bytes[offset + i - 1]);
    return length;
}

} // namespace

void require(bool isTrue, const char* what)
{
    if (isTrue)
        return;
    std::cerr << "fuzz: not so: " << what << std::endl;
    std::abort();
}

std::deque<Bytes> payloadsOf(const Bytes& stream)
{
    std::deque<Bytes> payloads;
    std::size_t offset = 0;
    while (stream.size() - offset >= headerBytes) {
        const std::size_t length = lengthAt(stream, offset);
        offset += headerBytes;
        if (length == 0 || length >= refusedBytes)
            continue;
        if (stream.size() - offset < length)
            break;
        const auto first = stream.begin() + static_cast<std::ptrdiff_t>(offset);
        payloads.emplace_back(first, first + static_cast<std::ptrdiff_t>(length));
        offset += length;
    }
    return payloads;
}

void ExpectedReader::arrive(const Bytes& bytes)
{
    append(mUnread, bytes);
}

ExpectedReader::Outcome ExpectedReader::step()
{
    if (mLength == 0) {
        if (mUnread.size() < headerBytes)
            return Outcome::waits;
        const std::size_t length = lengthAt(mUnread, 0);
        eraseFront(mUnread, headerBytes);
        if (length >= refusedBytes)
            return Outcome::throws;
        mLength = length;
        mPayload.clear();
        if (length == 0)
            return Outcome::waits;
    }
    const std::size_t count = std::min(mUnread.size(), mLength - mPayload.size());
    append(mPayload, common::takeFront(mUnread, count));
    if (mPayload.size() < mLength)
        return Outcome::waits;
    mLength = 0;
    return Outcome::isWhole;
}

void ExpectedReader::drop()
{
    mUnread.clear();
}

bool ExpectedReader::isWithinPayload() const
{
    return mLength != 0;
}

const Bytes& ExpectedReader::unread() const
{
    return mUnread;
}

const Bytes& ExpectedReader::payload() const
{
    return mPayload;
}

ExpectedWriter::ExpectedWriter(std::uint64_t limit)
    : mLimit(limit)
{
}

void ExpectedWriter::start(const Bytes& payload, bool isWritable)
{
    require(mOutgoing.empty(), "a frame starts on an empty buffer");
    if (isWritable) {
        mOutgoing = common::frame(payload);
        mOutgoing.resize(std::min<std::uint64_t>(headerBytes, mLimit));
    }
    mPending = payload;
}

void ExpectedWriter::goOn(bool isWritable)
{
    if (!isWritable || mLimit <= mOutgoing.size())
        return;
    const std::size_t count = std::min<std::uint64_t>(mPending.size(), mLimit - mOutgoing.size());
    append(mOutgoing, common::takeFront(mPending, count));
}

void ExpectedWriter::passOn(std::uint64_t count)
{
    eraseFront(mOutgoing, std::min<std::uint64_t>(count, mOutgoing.size()));
}

void ExpectedWriter::setLimit(std::uint64_t limit)
{
    mLimit = limit;
}

void ExpectedWriter::forgetPayload()
{
    mPending.clear();
}

void ExpectedWriter::drop()
{
    mOutgoing.clear();
}

bool ExpectedWriter::isPending() const
{
    return !mPending.empty();
}

const Bytes& ExpectedWriter::outgoing() const
{
    return mOutgoing;
}

} // namespace fuzz
