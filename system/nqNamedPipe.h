#pragma once

#include "nqExport.h"
#include "nqWaitSet.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace nq {

/// One end of a connected byte stream between two processes of the same user, with a buffer in each
/// direction. Bytes move between the buffers and the kernel only inside processNamedPipeEvents and,
/// as is said there, fill.
///
/// A lost peer is a state, never an exception or a signal: writing to it raises no SIGPIPE.
///
/// | state                      | isReadChannelClosed | isConnected | isWriteChannelClosed |
/// | -------------------------- | ------------------- | ----------- | -------------------- |
/// | never connected, or closed | true                | false       | true                 |
/// | open                       | false               | true        | false                |
/// | end seen, bytes untaken    | false               | true        | as it was            |
/// | end seen, bytes taken      | true                | false       | true                 |
///
/// The peer's end becomes visible only when the bytes sent before it have been taken out of the
/// incoming buffer, so that a last message is never lost. If none of them is taken between the call
/// that sees the end and the next, or between two later ones, the second closes the pipe for good
/// and drops them.
///
/// @par Threads
/// Not locked: one thread per object.
///
/// @par Blocking
/// Only processNamedPipeEvents() waits, and only when told to.
///
/// @par Errors
/// Only allocation exceptions pass through, and no byte is lost over one.
///
/// @par Forked children
/// In a child of the process that made it, a pipe does not connect. The first operation that would
/// transfer bytes or end the connection closes the child's copy and leaves the parent's alone.
///
/// @par Ownership
/// The buffers belong to the pipe, which empties them when it closes.
class NQ_API nqNamedPipe {
public:
    /// Not connected.
    nqNamedPipe();

    /// Closes as closeNamedPipe() does.
    virtual ~nqNamedPipe();

    nqNamedPipe(const nqNamedPipe&) = delete;
    nqNamedPipe& operator=(const nqNamedPipe&) = delete;

    /// Connects to the server that listens under `name` (1 to 107 bytes); closes a previous
    /// connection first. False, and not connected, when the name is refused, nobody listens, or the
    /// server belongs to another user. Does not block.
    bool connectToNamedPipeServerUtf8(const std::string& name);

    /// Writes what is pending and reads what is there, both without blocking. Only if nothing
    /// moved, `wait` is set and `timeoutMs` is above 0, waits up to `timeoutMs` milliseconds for
    /// activity, then writes and reads once more. Returns after the first activity. One call reads
    /// a bounded number of bytes, and reads nothing while the incoming buffer is full; one that has
    /// written may leave the reading to the next.
    void processNamedPipeEvents(int timeoutMs, bool wait);

    /// Whether there is a connection, or an ended one whose last bytes have not been taken yet.
    bool isConnected() const;

    /// The opposite of isConnected(): no byte is left to take and none can come.
    bool isReadChannelClosed() const;

    /// Whether nothing can be sent any more; true as soon as the kernel has refused bytes for good.
    bool isWriteChannelClosed() const;

    /// True while bytes wait to be sent on a pipe that can send.
    bool hasPendingWrite() const;

    /// Received and not yet consumed. The consumer takes bytes from the front and erases them.
    /// Empty until the range of fill() is full.
    std::vector<char>& incomingBuffer();

    /// The same, read-only.
    const std::vector<char>& incomingBuffer() const;

    /// Waiting to be sent. The producer appends at the end and keeps the size within
    /// outgoingBufferLimit().
    std::vector<char>& outgoingBuffer();

    /// The same, read-only.
    const std::vector<char>& outgoingBuffer() const;

    /// How many bytes may wait to be sent, lent ones included; the same for every pipe.
    std::uint64_t outgoingBufferLimit() const;

    /// @name Large payloads, sent from and received into their own memory
    /// @{

    /// How many bytes wait to be sent: those of the outgoing buffer, then the lent ones.
    std::size_t unsentBytes() const;

    /// Adds `size` bytes, more than none, to be sent after all others. They must stay where they
    /// are, unchanged, until lentBytes() is 0 or the pipe is closed. A range that continues the
    /// lent one is lent with it; any other makes the pipe copy the lent one first. The pipe may
    /// copy a small range at once. Without memory for that, throws and adds nothing.
    void lend(const char* bytes, std::size_t size);

    /// How many bytes are still lent.
    std::size_t lentBytes() const;

    /// Copies what is still lent into the outgoing buffer: before the lender changes it, and before
    /// anything is appended to the buffer.
    void copyLent();

    /// Offers memory for the next bytes to be received, in place of memory offered before. Only
    /// while nothing is untaken. It must stay until takeFilled() has counted `size` bytes in all,
    /// stopFilling(), or the pipe is closed. A small range may be declined. Takes at once what the
    /// last processNamedPipeEvents() has left in the kernel, up to its bound, without blocking.
    void fill(char* bytes, std::size_t size);

    /// How many bytes have been received and not yet taken: those in the range of fill(), and
    /// behind them those of the incoming buffer. The end of the stream stays hidden behind both.
    std::size_t untakenBytes() const;

    /// Counts the bytes that have come into the range since the last call as taken.
    std::size_t takeFilled();

    /// Gives the range back. What came into it untaken goes to the front of the incoming buffer.
    void stopFilling();

    /// @}

    /// The descriptor to wait on for incoming bytes; -1 when there is no connection or when the
    /// number cannot go into a select() set. While nothing is read because nobody empties the
    /// incoming buffer, one that reports the peer's death, or -1. Borrowed: never close it.
    int getSocket() const;

    /// Whether another processNamedPipeEvents() would find something to do by what the pipe knows
    /// already: bytes to send that the kernel has not refused yet, or an end that is still to show.
    /// What the kernel has to say is for reportTo().
    bool hasImmediateWork() const;

    /// Makes `set` readable whenever the kernel has something for processNamedPipeEvents(): bytes
    /// or their end, but no bytes while the incoming buffer is full; room for bytes that it has
    /// refused; the peer's death, also while a process that it forked holds the socket open. To be
    /// called again after each processNamedPipeEvents() and what the caller did with the bytes.
    /// Closing the pipe ends it; null does so at once. Borrows the set until then. While the kernel
    /// refuses it memory for that, the set reports less; each call tries again.
    void reportTo(nqWaitSet* set);

    /// Ends the connection and empties both buffers. Sends nothing: what is still in the outgoing
    /// buffer is dropped. What processNamedPipeEvents() has handed to the kernel still arrives.
    void closeNamedPipe();

private:
    friend class nqNamedPipeServer;
    struct Private;
    std::unique_ptr<Private> mPrivate;
};

} // namespace nq
