#pragma once

#include <cstddef>
#include <vector>

namespace bench {

/// What the library's interface asks for beyond the bare system calls, as a cost to be measured.
/// Made when the environment variable NQ_BENCH_DEMANDS is set, and by both ends of a pool then:
///
/// - a job is copied into the queue by push and into the pipe's outgoing buffer from there, since
/// its
///   bytes are handed back if it fails; at the other end it is copied from the pipe's incoming
///   buffer into the job; a result is copied into the outgoing buffer and out of the incoming one;
/// - a worker waits no longer than it was told to, which takes a wait apart from the receive;
/// - a host looks for the end of the stream behind a result before it gives that worker a job.
class Demands {
public:
    Demands();

    bool areMade() const;

    /// The same bytes after so many copies; the bytes themselves when nothing is demanded. Valid
    /// until the next call.
    const char* copied(const char* bytes, std::size_t size, int times);

    /// Waits for bytes for at most a second.
    void waitForBytes(int socket) const;

    void lookForTheEnd(int socket) const;

private:
    bool mAreMade;
    std::vector<char> mCopies[2]; // by turns
};

} // namespace bench
