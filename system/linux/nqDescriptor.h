#pragma once

#include <unistd.h>
#include <utility>

namespace nq {

/// How many standard streams there are. They are 0 to 2, so this is also the first number above
/// them.
constexpr int standardStreamCount = STDERR_FILENO + 1;

/// Whether `stream`, 0 to 2, is open and inherited by children. If it is close-on-exec, it is a
/// file of the host's own that got the number of a closed standard stream. Safe after vfork.
bool isStandardStream(int stream) noexcept;

/// Owns one file descriptor and closes it once. Closing preserves errno.
class nqDescriptor {
public:
    nqDescriptor() = default;

    /// Takes over a descriptor fresh from the kernel, or -1 for none. In a host with a standard
    /// stream closed it may be 0, 1 or 2, and is then moved above them, so that no printed line
    /// ends up in a socket; if that fails, it is closed.
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

    /// Gives the descriptor up to the caller.
    int release() noexcept
    {
        return std::exchange(mFd, -1);
    }

    /// Moves to the lowest free number above the standard streams. Without effect if none is free.
    void moveToLowNumber();

    /// Moves to a number of FD_SETSIZE or more, which leaves the lower ones to sockets that
    /// select() waits on. Without effect if the limit of descriptors forbids that.
    void moveOutOfRangeOfSelect();

private:
    void moveToNumberFrom(int lowest);

    int mFd = -1;
};

} // namespace nq
