#pragma once

#include <utility>

namespace nq {

/// Whether `stream`, one of the numbers 0 to 2, is open as a standard stream that children share.
/// One that is closed on exec is a file of the host's own, which was opened when the stream was
/// closed already. Nothing but a system call.
bool isStandardStream(int stream) noexcept;

/// Owns one file descriptor and closes it once. Closing preserves errno.
class nqDescriptor {
public:
    nqDescriptor() = default;

    /// Takes over a descriptor fresh from the kernel, or -1 for none. One that landed on 0, 1 or 2,
    /// because the host runs with a standard stream closed, moves above them: a line that somebody
    /// prints must never end up in a socket.
    explicit nqDescriptor(int fresh);

    nqDescriptor(nqDescriptor&& other) noexcept
        : mFd(std::exchange(other.mFd, -1))
    {
    }

    nqDescriptor& operator=(nqDescriptor&& other) noexcept
    {
        if (this != &other) {
            close();
            mFd = std::exchange(other.mFd, -1);
        }
        return *this;
    }

    ~nqDescriptor()
    {
        close();
    }

    int get() const
    {
        return mFd;
    }
    bool isOpen() const
    {
        return mFd >= 0;
    }
    void close() noexcept;

    /// Moves the descriptor to the lowest free number above the standard streams; keeps it where it
    /// is when no number is free.
    void moveToLowNumber();

    /// Moves the descriptor to a number that select() cannot hold, which leaves the lower ones to
    /// sockets that are selected on; keeps it where it is when the limit of descriptors does not
    /// allow that.
    void moveOutOfRangeOfSelect();

private:
    void moveToNumberFrom(int lowest);

    int mFd = -1;
};

} // namespace nq
