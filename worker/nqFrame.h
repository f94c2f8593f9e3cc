#pragma once

#include "support/nqSpareMemory.h"
#include "system/nqNamedPipe.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace nq {

/// The bytes on a pipe, the same in both directions: a frame is the payload's length as an unsigned
/// 32-bit integer in host byte order, then the payload; the next frame follows directly. Both ends
/// count a payload's bytes in a signed 32-bit integer.
///
/// None of these steps blocks, and none does anything on a pipe that is not connected. Each is
/// repeated until its frame is through.
class nqFrame {
public:
    static constexpr std::size_t headerBytes = 4;

    /// Appends the header for `payload` to the outgoing buffer, as much of it as there is room for.
    /// What is cut short is never completed, so a frame starts only on an empty outgoing buffer.
    static void sendHeader(nqNamedPipe& pipe, const std::vector<char>& payload);

    /// Appends the bytes of `payload` from offset `sent` on, as many as there is room for, and adds
    /// their number to `sent`.
    static void
    sendPayload(nqNamedPipe& pipe, const std::vector<char>& payload, std::int32_t& sent);

    /// Whether bytes of `payload` remain to be sent.
    static bool isSendPending(const std::vector<char>& payload, std::int32_t sent);

    /// Whether bytes wait that receive() would take: any of a payload that has started, else a
    /// whole header.
    static bool canReceive(const nqNamedPipe& pipe, const std::vector<char>& payload);

    /// Takes bytes of one frame out of the incoming buffer. A header is looked for only while
    /// `payload` is empty and `mayStart` is set; it gives `payload` its final size, in memory of
    /// `spares` if there is any that fits. Until the frame is whole, the bytes of `payload` from
    /// `received` on are unspecified. True when `received` has reached the size. A frame of length
    /// 0 is consumed and gives false. A payload that cannot be allocated closes the pipe and passes
    /// the exception on.
    static bool receive(
        nqNamedPipe& pipe,
        std::vector<char>& payload,
        std::int32_t& received,
        bool mayStart,
        nqSpareMemory& spares);
};

} // namespace nq
