#pragma once

#include "tests/fuzz/input.h"

#include <cstddef>
#include <cstdint>
#include <deque>

namespace fuzz {

/// Ends the program with `what` when it is not true; to a fuzzer that is a finding.
void require(bool isTrue, const char* what);

/// The payloads of a whole stream, however it was cut: without those that are empty, those whose
/// memory is refused, and what is not complete.
std::deque<Bytes> payloadsOf(const Bytes& stream);

/// What has to become of the bytes that reach one end, step by step.
class ExpectedReader {
public:
    enum class Outcome {
        waits,   ///< no payload is whole
        isWhole, ///< payload() is whole
        throws   ///< the memory of the announced payload is refused
    };

    void arrive(const Bytes& bytes);
    /// One step of the receiver on a pipe that is connected.
    Outcome step();
    void drop();

    bool isWithinPayload() const;
    const Bytes& unread() const;
    const Bytes& payload() const;

private:
    Bytes mUnread;
    Bytes mPayload;
    std::size_t mLength = 0; ///< 0 between two frames
};

/// What has to stand in an outgoing buffer, step by step.
class ExpectedWriter {
public:
    explicit ExpectedWriter(std::uint64_t limit);

    /// Puts the header of `payload` into the empty buffer, in place of all that is yet to come.
    void start(const Bytes& payload, bool isWritable);
    /// Puts into the buffer what it has room for.
    void goOn(bool isWritable);
    /// The peer has taken `count` bytes.
    void passOn(std::uint64_t count);
    void setLimit(std::uint64_t limit);
    /// Nothing more of the payload follows.
    void forgetPayload();
    /// The pipe takes nothing any more.
    void drop();

    bool isPending() const;
    const Bytes& outgoing() const;

private:
    std::uint64_t mLimit;
    Bytes mOutgoing;
    Bytes mPending;
};

} // namespace fuzz
